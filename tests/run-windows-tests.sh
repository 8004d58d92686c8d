#!/usr/bin/env bash
# Runs the test suite of the 64-bit Windows build (build/mingw64, preset "mingw64") under
# wine64, headless: an X server of its own (Xvfb, through xvfb-run) and one persistent
# wineserver for the whole run, so each test program starts in a fraction of a second.
#   bash tests/run-windows-tests.sh [extra ctest arguments]
# WINEPREFIX defaults to ~/.wine-korvel; it is made on first use (a few seconds).
# KORVEL_WINDOWS_BUILD and KORVEL_WINE choose another build and wine, e.g. build/mingw32 and a
# wine that runs 32-bit programs (docs/windows.md).
set -euo pipefail
cd "$(dirname "$0")/.."
build="${KORVEL_WINDOWS_BUILD:-build/mingw64}"
wine="${KORVEL_WINE:-/usr/lib/wine/wine64}"

if [ -z "${KORVEL_INSIDE_XVFB:-}" ]; then
  # Wine's desktop belongs to the display of the first wine process: start X first.
  exec env KORVEL_INSIDE_XVFB=1 xvfb-run -a -s "-screen 0 1024x768x24" bash "$0" "$@"
fi

for program in "$build"/tests/*/*.exe; do
  # wine64 "runs" a 32-bit program as a silent success; refuse to count that as a pass.
  if [[ "$wine" == */wine64 ]] && file "$program" | grep -q 'PE32 '; then
    echo "$program is a 32-bit program; wine64 cannot run it" >&2
    exit 1
  fi
done

# No sound card here: wine's ALSA driver would print ALSA's complaints about card 0 into the
# standard error of every program that loads WinMM. A null default device keeps them quiet;
# the WinMM tests name their own ALSA configuration (ctest ENVIRONMENT), which wins.
alsa_config="$(mktemp -d)/asound-null.conf"
printf '</usr/share/alsa/alsa.conf>\npcm.!default { type null }\nctl.!default { type hw card 0 }\n' > "$alsa_config"
export ALSA_CONFIG_PATH="$alsa_config"

export WINEPREFIX="${WINEPREFIX:-$HOME/.wine-korvel}" WINEDEBUG="${WINEDEBUG:--all}" WINEDLLOVERRIDES="mscoree,mshtml="
wineserver=/usr/lib/wine/wineserver
mkdir -p "$WINEPREFIX"
"$wineserver" -k 2>/dev/null || true   # a server left over may be tied to another display
"$wineserver" -p                        # persistent: must start before any other wine command
trap '"$wineserver" -k 2>/dev/null || true; rm -rf "$(dirname "$alsa_config")"' EXIT
"$wine" wineboot -i >/dev/null 2>&1 </dev/null

# The shell tests need a marker from a real run, not just an exit status of 0.
if ! "$wine" cmd.exe /c echo korvel-wine-ready 2>/dev/null | tr -d '\r' | grep -qx korvel-wine-ready; then
  echo "wine64 does not run programs in $WINEPREFIX" >&2
  exit 1
fi

ctest --test-dir "$build" --output-on-failure -j "${KORVEL_TEST_JOBS:-$(nproc)}" "$@"
