#!/usr/bin/env bash
# SystemTS's two commands. Each installs what it needs (Debian packages),
# configures, builds and runs.
#
#   ./build.sh run [FILE]   build and install the library, then build the
#                           example against the installed package and run it
#   ./build.sh test         run the whole test suite (ASan + UBSan) via ctest
set -euo pipefail
cd "$(dirname "$0")"

need_packages() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
}

BASE_PACKAGES=(cmake ninja-build g++ pkg-config libutfcpp-dev)

case "${1:-}" in
  run)
    shift
    need_packages "${BASE_PACKAGES[@]}"
    cmake --preset release >/dev/null
    cmake --build --preset release
    cmake --install build/release >/dev/null
    cmake -S examples -B build/examples -G Ninja -DCMAKE_PREFIX_PATH="$PWD/build/install" >/dev/null
    cmake --build build/examples
    exec build/examples/convert_text "$@"
    ;;
  test)
    need_packages "${BASE_PACKAGES[@]}" libgtest-dev
    cmake --preset test >/dev/null
    cmake --build --preset test
    ctest --preset test
    ;;
  *)
    echo "usage: $0 run [FILE] | test" >&2
    exit 2
    ;;
esac
