#!/usr/bin/env bash
# Installs the packages a fresh Debian 12 machine needs to build, test, fuzz and benchmark the
# engine, and to cross-build it for Windows and run those tests under wine64 (headless, in
# Xvfb). Does nothing when they are all present.
set -euo pipefail
packages=(
  cmake ninja-build g++ make libgtest-dev googletest clang libclang-rt-14-dev ccache  # building and testing
  lua5.4 hyperfine time                                                               # benchmark peers and timing
  libpixman-1-dev                                                                     # image benchmark peer
  sox libsndfile1-dev                                                                 # WAV test files and reference reader
  libsdl2-dev libmpg123-dev lame                                                      # window and sound on Linux, MP3 decoding, MP3 test files
  libpng-dev                                                                          # PNG benchmark peer
  xvfb xauth xdotool x11-apps x11-utils imagemagick                                   # real-window tests (display, input, screenshots), image test files
  g++-mingw-w64-x86-64 g++-mingw-w64-i686 wine64 file                               # Windows builds and their tests
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
