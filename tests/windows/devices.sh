#!/usr/bin/env bash
# The Windows programs under Wine against devices and machines outside it: serial trackers on COM3
# (emulated on a pseudo-terminal), the vendors' libraries, a C host of the DLL, relays from Wine to
# Linux and back, a bridge and a viewer with clients on Linux. Prints a line a story; exit code 1 when one went wrong.
#
#   devices.sh WINDOWS-BUILD LINUX-BIN [STORY...]
#
# WINEPREFIX is the prefix to use; its COM3, COM5 and COM6 are ours meanwhile. Without one, one is made for the run.
set -uo pipefail
source=$(cd "$(dirname "$0")/../.." && pwd)
windows=$(cd "$1" && pwd)
linux=$(cd "$2" && pwd)
shift 2
work=$(mktemp -d)
export WINEPREFIX=${WINEPREFIX:-$work/prefix} WINEDEBUG=-all
unset DISPLAY
failures=0
started=()
# Of 127/8, so that two runs on one machine never meet.
host=127.$(($$ / 65536 % 200 + 20)).$(($$ / 256 % 256)).$(($$ % 250 + 2))
slot=$(($$ % 8 + 9))
com3=$WINEPREFIX/dosdevices/com3

# ---- Helpers -------------------------------------------------------------------------------------

finish() {
  stop_all
  rm -f "$com3" "$WINEPREFIX"/dosdevices/com[56]
  if [[ $WINEPREFIX == "$work"/* ]]; then wineserver -k; fi
  rm -rf "$work"
}
trap finish EXIT

# in_time SECONDS COMMAND...: nothing of Windows is waited for without an end.
in_time() { timeout -k 5 "$@"; }

# start NAME COMMAND...: in the background, its output in a file of that name.
start() {
  local name=$1
  shift
  timeout -k 5 120 "$@" </dev/null >"$work/$name" 2>&1 &
  started+=($!)
}

stop_all() {
  local pid
  for pid in "${started[@]}"; do kill "$pid" 2>/dev/null; done
  for pid in "${started[@]}"; do wait "$pid" 2>/dev/null; done
  started=()
}

# await FILE TEXT: until it stands there.
await() {
  for _ in {1..300}; do
    grep -qs -- "$2" "$work/$1" && return 0
    sleep 0.1
  done
  echo "  never said: $2"
  return 1
}

kinetrel() { start kinetrel wine "$windows/bin/kinetrel.exe" "-w$slot" "$@"; }

# watch_frames COUNT: that many frames of our slot reach another process in time.
watch_frames() {
  in_time 60 wine "$windows/bin/kinetrel-watch.exe" --block --slot "$slot" --plain --frames "$1" \
    --timeout 30 </dev/null >"$work/frames" 2>&1
  (($(grep -c '^frame' "$work/frames") == $1))
}

# emulate DEVICE...: on COM3. Not under a time limit: it is to get signals.
emulate() {
  rm -f "$com3"
  "$linux/kinetrel-emulate" "$@" --link "$com3" </dev/null >"$work/emulator" 2>&1 &
  emulator=$!
  started+=("$emulator")
  await emulator "$com3"
}

# story NAME FUNCTION ARGUMENT...
story() {
  local name=$1 start=$SECONDS
  shift
  if "$@"; then
    echo "ok    $name ($((SECONDS - start)) s)"
  else
    echo "FAILED $name"
    failures=$((failures + 1))
    for said in "$work"/{kinetrel,service,frames,emulator,said,joined,bridge,packets,view}; do
      [[ -s $said ]] && echo "  --- ${said##*/}" && tail -c 1500 "$said" | tr '\r' '\n' | sed 's/^/  /'
    done
  fi
  stop_all
  rm -f "$work"/{kinetrel,service,frames,emulator,said,joined,bridge,packets,view}
}

# ---- Serial trackers -----------------------------------------------------------------------------

# serial TYPE FRAMES DEVICE...
serial() {
  local type=$1 frames=$2
  shift 2
  emulate "$@" || return 1
  KINETREL_ANY_MAX_BAUD=1 kinetrel -d "$type" -p 3
  watch_frames "$frames"
}

# The tracker goes in mid-run, comes back under the same name, and is the same one.
serial_unplugged() {
  serial 2 5 fastrak --fault unplug:1@usr1 || return 1
  kill -USR1 "$emulator"
  await kinetrel 'has gone' && watch_frames 5
}

# refused CODE NUMBER ARGUMENT...: leaves with the code, and its port with that status.
refused() {
  local code=$1 number=$2 left
  shift 2
  in_time 60 wine "$windows/bin/kinetrel.exe" "-w$slot" "$@" </dev/null >"$work/kinetrel" 2>&1
  left=$?
  ((left == code)) && grep -q "failed to open($number)" "$work/kinetrel" && return
  echo "  left with $left"
  return 1
}

serial_as_stated() {
  emulate fastrak && refused 254 9 -d 2 -p 3
}

# The line itself, from both ends.
joined_lines() {
  local ports=$WINEPREFIX/dosdevices
  start joined python3 "$source/tests/windows/null_modem.py" "$ports/com5" "$ports/com6"
  await joined 'joined' || return 1
  KINETREL_TEST_LINES='COM5 COM6' in_time 100 wine "$windows/bin/windows_test.exe" \
    --gtest_filter='JoinedLines*' </dev/null >"$work/said" 2>&1
}

# Both under Wine: the emulator on the far end of a null modem.
emulated_there() {
  local ports=$WINEPREFIX/dosdevices
  start joined python3 "$source/tests/windows/null_modem.py" "$ports/com5" "$ports/com6"
  await joined 'joined' || return 1
  KINETREL_EMULATE='COM6 COM5' start emulator wine "$windows/bin/kinetrel-emulate.exe" fastrak
  await emulator 'COM5' || return 1
  KINETREL_ANY_MAX_BAUD=1 kinetrel -d 2 -p 5
  watch_frames 20
}

# ---- Libraries -----------------------------------------------------------------------------------

# with_library NAME TYPE: loaded from beside the program, as a vendor's is.
with_library() {
  local folder=$work/$1
  mkdir -p "$folder"
  cp "$windows/bin/kinetrel.exe" "$windows/vendor/$1.dll" "$folder"
  start kinetrel wine "$folder/kinetrel.exe" "-w$slot" -d "$2"
  watch_frames 5
}

without_library() {
  in_time 60 wine "$windows/bin/kinetrel.exe" "-w$slot" -d 6 </dev/null >"$work/kinetrel" 2>&1
  (($? == 254))
}

# exports FILE: what a program or library of ours lets others call.
exports() {
  x86_64-w64-mingw32-objdump -p "$1" | sed -n 's/^\t\[ *[0-9]*\] \([A-Za-z_]*\)$/\1/p' | sort
}

# The program forwards the vendor's 20 functions; the library has the C interface and no more.
exported() {
  diff <(exports "$windows/bin/kinetrel.exe") <(exports "$windows/vendor/isense.dll") &&
    (($(exports "$windows/bin/kinetrel.exe" | grep -c '^ISD_') == 20)) &&
    diff <(exports "$windows/bin/kinetrel.dll") \
      <(grep -o 'kinetrel_[a-z_]*(' "$source/include/kinetrel/kinetrel.h" | tr -d '(' | sort)
}

# The C host of the documentation, compiled against the import library.
c_host() {
  local folder=$work/host
  mkdir -p "$folder"
  cp "$windows/bin/kinetrel.dll" "$folder"
  x86_64-w64-mingw32-gcc -I "$source/include" -Werror "$source/examples/steer.c" \
    "$windows/src/capi/libkinetrel.dll.a" -o "$folder/steer.exe" || return 1
  in_time 60 wine "$folder/steer.exe" -d8 -z- "-w$slot" </dev/null >"$work/said" 2>&1
  grep -q 'Hz' "$work/said"
}

# ---- Relays --------------------------------------------------------------------------------------

serve() { start service "$@" --listen "$host" -d 8 -w "$slot"; await service 'ready'; }

# relay_here: a service on Linux, its relay under Wine.
relay_here() {
  serve "$linux/kinetrel-service" || return 1
  KINETREL_RELAY="$host: $((slot - 1)), 0, 0" kinetrel -d 11
  watch_frames 10
}

# relay_there: a service under Wine, its relay on Linux.
relay_there() {
  serve wine "$windows/bin/kinetrel-service.exe" || return 1
  KINETREL_RELAY="$host: $((slot - 1)), 0, 0" start kinetrel "$linux/kinetrel" "-w$slot" -d 11
  in_time 60 "$linux/kinetrel-watch" --block --slot "$slot" --plain --frames 10 --timeout 30 </dev/null \
    >"$work/frames" 2>&1
}

# The relay is there before its service.
relay_first() {
  KINETREL_RELAY="$host: $((slot - 1)), 0, 0" kinetrel -d 11
  await kinetrel 'Running' && serve "$linux/kinetrel-service" && watch_frames 10
}

# ---- Bridge --------------------------------------------------------------------------------------

# Tracker and bridge under Wine; a VRPN client and an OSC receiver on Linux.
bridge_there() {
  local osc=$((RANDOM % 10000 + 20000))
  start packets oscdump -L "$osc"
  kinetrel -d 8 -s 1 -z-
  start bridge wine "$windows/bin/kinetrel-bridge.exe" --slot "$slot" "vrpn://$host:3883?name=Tracker0" \
    "osc://127.0.0.1:$osc"
  in_time 60 python3 "$source/tests/windows/vrpn_client.py" "$host" 3883 Tracker0 20 >"$work/said" 2>&1
  (($(grep -c '^pose sensor 0 ' "$work/said") == 20)) && grep -q pong "$work/said" &&
    ! grep -v -E 'pong|age -?0\.' "$work/said" && await packets "/kinetrel/$slot/sensor/1/pose fffffff"
}

# All the other protocols, to receivers on Linux. They multicast, so they run in a network of their own;
# there Wine needs a server of its own, and that a prefix of its own.
bridge_receivers() {
  mkdir "$work/receivers" &&
    cp -a "$WINEPREFIX"/{*.reg,.update-timestamp,dosdevices} "$work/receivers" &&
    ln -s "$WINEPREFIX/drive_c" "$work/receivers" || return 1
  WINEPREFIX=$work/receivers KINETREL_TEST_WINDOWS=$windows/bin in_time 400 \
    python3 "$source/tests/bridge/test_receivers.py" "$linux" >"$work/said" 2>&1 ||
    (($? == 77)) # such a network cannot be made here
}

# It refuses a port that is taken.
bridge_refuses() {
  start bridge wine "$windows/bin/kinetrel-bridge.exe" "vrpn://$host:3883"
  await bridge 'serves' || return 1
  in_time 60 wine "$windows/bin/kinetrel-bridge.exe" "vrpn://$host:3883" </dev/null >"$work/said" 2>&1
  (($? == 2)) && grep -q 'cannot be opened' "$work/said"
}

# ---- View ----------------------------------------------------------------------------------------

# Starts kinetrel-view and leaves its address in `page`.
view() {
  start view wine "$windows/bin/kinetrel-view.exe" --port 0 "$@"
  await view 'http://' || return 1
  page=$(head -1 "$work/view" | tr -d '\r')
}

# answers STATUS PATH CURL-ARGUMENT...
answers() {
  local status
  status=$(in_time 20 curl -s -o "$work/said" -w '%{http_code}' "${@:3}" "${page%/*}/$2")
  [[ $status == "$1" ]] && return
  echo "  $2 ${*:3}: $status"
  return 1
}

# Tracker and server under Wine, curl on Linux.
view_there() {
  kinetrel -d 8 -s 1 -z-
  view || return 1
  await kinetrel Running && answers 200 "api/trackers/$slot" && grep -q '"state":"running"' "$work/said" &&
    answers 200 '' && grep -q '</html>' "$work/said" && answers 200 metrics &&
    promtool check metrics <"$work/said" && answers 403 '' -H 'Host: rebound.example' &&
    answers 403 '' -H 'Origin: http://evil.example' && answers 404 '../kinetrel-view.exe' --path-as-is &&
    answers 404 'c:/windows/win.ini' || return 1
  in_time 10 curl -s -N -m 3 -H 'Connection: Upgrade' -H 'Upgrade: websocket' -H 'Sec-WebSocket-Version: 13' \
    -H 'Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==' "${page}api/trackers/$slot/frames" >"$work/frames"
  (($(grep -ao '"type":"frame"' "$work/frames" | wc -l) > 3))  # curl confirms none, so no more than eight come
}

# A port that is taken, and a token.
view_refuses() {
  view --listen 127.0.0.1 || return 1
  answers 401 metrics && answers 200 "metrics?${page#*\?}" || return 1
  local port=${page%/*}
  in_time 60 wine "$windows/bin/kinetrel-view.exe" --port "${port##*:}" </dev/null >"$work/said" 2>&1
  (($? == 2)) && grep -q 'is in use' "$work/said"
}

# ---- The stories ---------------------------------------------------------------------------------

wanted() { (($# < 2)) || [[ " ${*:2} " == *" $1 "* ]]; }

(
  wineserver -p
  wine cmd /c exit
) </dev/null >/dev/null 2>&1

serial_stories() {
  story 'serial: FASTRAK' serial 2 20 fastrak
  story 'serial: Flock of Birds' serial 3 20 flock
  story 'serial: GPS' serial 12 10 gps --motion=ramp --rate=15
  story 'serial: a tracker that is unplugged and comes back' serial_unplugged
  story 'serial: a port that is too slow by its own account' serial_as_stated
  if [[ -e $windows/bin/windows_test.exe ]]; then story 'serial: the line itself' joined_lines; fi
  story 'serial: an emulator at the other end of a null modem' emulated_there
  story 'serial: no such port' refused 254 13 -d 2 -p 9
}
library_stories() {
  story 'library: isense.dll' with_library isense 6
  story 'library: pdi.dll' with_library pdi 10
  story 'library: none' without_library
  story 'library: what is exported' exported
  story 'library: a host in C' c_host
}
relay_stories() {
  story 'relay: from Linux to Wine' relay_here
  story 'relay: from Wine to Linux' relay_there
  story 'relay: before its service' relay_first
}
bridge_stories() {
  story 'bridge: to VRPN and OSC on Linux' bridge_there
  story 'bridge: OSC, Free-D, opentrack, PosiStageNet, DTrack, OpenTrackIO and LSL on Linux' bridge_receivers
  story 'bridge: a port that is taken' bridge_refuses
}
view_stories() {
  story 'view: a tracker in a browser on Linux' view_there
  story 'view: a token, and a port that is taken' view_refuses
}
for kind in serial library relay bridge view; do
  if wanted "$kind" "$@"; then "${kind}_stories"; fi
done
((failures == 0))
