# shellcheck shell=bash
# Completion for kinetrel and its tools in bash. Each program's --help tells its options, so this file
# knows only what their values may be.

# The long options of a program; --[no-]query is two.
_kinetrel_options() {
  "$1" --help 2>/dev/null </dev/null |
    sed -nE 's/^ +(-[a-zA-Z], ?)?--(\[no-\])?([a-z][a-z0-9-]*).*/\2--\3/p' |
    sed -E 's/^\[no-\]--(.*)/--\1\n--no-\1/'
}

# The names under "Devices:" of kinetrel --help.
_kinetrel_devices() {
  "$1" --help 2>/dev/null </dev/null | sed -nE '/^Devices:/,/^$/s/^ +[0-9]+ +([a-z-]+) .*/\1/p'
}

# What may follow an option; empty: nothing that is known.
_kinetrel_values() {
  case $2 in
    --device) _kinetrel_devices "$1" ;;
    --units) echo inch cm m ;;
    --sync) echo internal external crt ;;
    --components) echo position angles quaternion position,angles position,quaternion ;;
    --slot) echo {1..16} ;;
    --filter) echo dropout gate map one-euro predict rigid ;;
    --port) compgen -f /dev/tty; compgen -f /dev/serial/by-id/; echo usb ;;
  esac
}

# What a program takes that is no option.
_kinetrel_words() {
  case ${1##*/} in
    kinetrel-emulate)
      "$1" --help 2>/dev/null </dev/null | sed -nE '/^Devices:/,/^$/s/^ +([a-z-]+) .*/\1/p'
      ;;
    kinetrel-bridge | kinetrel-bridge-ros2)
      "$1" --list 2>/dev/null </dev/null | sed -nE 's/^([a-z][a-z0-9-]*) .*/\1/p'
      ;;
  esac
}

_kinetrel() {
  local program=$1 word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} values
  # "--units=c" are three words to bash.
  if [[ $word == = ]]; then word=""; elif [[ $before == = ]]; then before=${COMP_WORDS[COMP_CWORD - 2]}; fi
  COMPREPLY=()
  if [[ $before == --config ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    compopt -o filenames 2>/dev/null
    return
  fi
  if [[ $before == --* ]]; then values=$(_kinetrel_values "$program" "$before"); fi
  if [[ -z $values && $word == -* ]]; then values=$(_kinetrel_options "$program"); fi
  if [[ -z $values ]]; then values=$(_kinetrel_words "$program"); fi
  mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word")
  if ((${#COMPREPLY[@]} == 0)) && [[ $word != -* ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}

complete -F _kinetrel kinetrel kinetrel-service kinetrel-scan kinetrel-watch kinetrel-view \
  kinetrel-bridge kinetrel-bridge-ros2 kinetrel-emulate kinetrel-record kinetrel-calibrate kinetrel-certify
