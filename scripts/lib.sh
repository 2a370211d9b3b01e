# shellcheck shell=bash
# What the scripts share: installing what is missing, configuring, building.

root=$(cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.." && pwd)
script=scripts/$(basename "$(readlink -f "$0")")

say() { printf '%s: %s\n' "$script" "$*" >&2; }
die() {
  say "$*"
  exit 1
}

# quietly COMMAND...: shows the output only on failure. The command reads no input, which is the
# program's.
quietly() {
  local output code=0
  output=$("$@" </dev/null 2>&1) || code=$?
  if ((code != 0)); then printf '%s\n' "$output" >&2; fi
  return "$code"
}

# ---- Packages ------------------------------------------------------------------------------------

# has NEED: a need is the package's name, or command:package, header.h:package, /file:package,
# -flag:package (one of clang++ that links a runtime).
has() {
  local probe=${1%%:*}
  if [[ $probe == -f* ]]; then
    echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' |
      clang++ "$probe" -x c++ - -o /dev/null >/dev/null 2>&1
  elif [[ $probe == /* ]]; then
    [[ -e $probe ]]
  elif [[ $probe == *.h || $probe == *.hpp ]]; then
    echo "#include <$probe>" | g++ -E -x c++ - >/dev/null 2>&1
  else
    command -v "$probe" >/dev/null
  fi
}

# Prints the packages of the needs that are not met.
missing_packages() {
  local need
  for need in "$@"; do
    has "$need" || printf '%s ' "${need##*:}"
  done
}

install_packages() {
  local as_root=()
  command -v apt-get >/dev/null ||
    die "missing: $*. There is no apt-get here: install them by hand (names as in Debian 12)."
  if ((EUID != 0)); then
    command -v sudo >/dev/null ||
      die "missing: $*. Installing needs root or sudo. As root: apt-get install $*"
    as_root=(sudo)
    say "installing $* (sudo, for apt-get only)"
  else
    say "installing $*"
  fi
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive
    apt-get -q -y -o DPkg::Lock::Timeout=300)
  quietly "${apt[@]}" update || say "apt-get update failed; trying with the present lists"
  quietly "${apt[@]}" install --no-install-recommends "$@" || die "could not install: $*"
}

# need NEED...: installs the packages of unmet needs. Asks the package manager only if there are some.
need() {
  local missing
  read -ra missing <<<"$(missing_packages "$@")"
  ((${#missing[@]} == 0)) && return
  install_packages "${missing[@]}"
  read -ra missing <<<"$(missing_packages "$@")"
  ((${#missing[@]} == 0)) || die "still missing after the installation: ${missing[*]}"
}

# What every build needs beyond the compiler: libraries of headers.
core_needs=(g++ cmake ninja:ninja-build /usr/include/eigen3/Eigen/Dense:libeigen3-dev
  /usr/include/toml++/toml.h:libtomlplusplus-dev CLI/CLI.hpp:libcli11-dev
  nlohmann/json.hpp:nlohmann-json3-dev)

# What the tests take from npm. Installed anew only when the list has changed.
npm_packages() (
  local folder=$root/tests/npm installed=node_modules/.kinetrel-lock.json
  cd "$folder" || exit 1
  cmp -s package-lock.json "$installed" || { quietly npm ci && cp package-lock.json "$installed"; }
)

# What the tools that speak to the network are built with: a library of headers.
net_tool_needs=(boost/asio.hpp:libboost-dev)

# What kinetrel-bridge-ros2 is built with.
ros2_needs=(dds/dds.h:cyclonedds-dev idlc:cyclonedds-tools)

# ---- Building ------------------------------------------------------------------------------------

# Clones in other folders share what this one compiles.
export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=true

# alone PRESET COMMAND...: one at a time in a build folder, also from several terminals.
alone() {
  mkdir -p "$root/build"
  flock "$root/build/$1.lock" "${@:2}"
}

# configure PRESET OPTION...
configure() {
  local cache=$root/build/$1/CMakeCache.txt fresh=()
  # After a move of the tree, the old cache would build the sources at the old place.
  if [[ -e $cache ]] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$cache"; then
    fresh=(--fresh)
  fi
  (cd "$root" && quietly alone "$1" cmake --preset "$1" "${fresh[@]}" "${@:2}")
}

# build PRESET TARGET...: everything without a target.
build() {
  local targets=()
  if (($# > 1)); then targets=(--target "${@:2}"); fi
  quietly alone "$1" cmake --build "$root/build/$1" "${targets[@]}"
}
