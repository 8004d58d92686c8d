#!/usr/bin/env bash
# Drives a real Win32 window of the probe (window_probe.cpp built for Windows, x86-64) under
# wine64 on an X server, with the same checks as run_x11_tests.sh: screenshot of the picture,
# keys, pointer, buttons, close request. Wine runs managed (its default), so the X window is
# exactly the client area; without a window manager each window destruction waits about 2 s.
# Usage: run_wine_tests.sh PROBE.exe. Starts its own Xvfb. Exit 77 (skipped) when a tool is
# missing. A 32-bit probe is refused: wine64 cannot run it and would exit 0 silently.
set -u
probe="$(realpath "$1")"
here="$(cd "$(dirname "$0")" && pwd)"
wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver

for tool in xvfb-run xauth xdotool xwd xwininfo python3 file; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is missing (install xvfb xauth xdotool x11-apps x11-utils imagemagick file)"; exit 77
  fi
done
if [ ! -x "$wine" ]; then echo "SKIP: wine64 is missing (install wine64)"; exit 77; fi
if ! convert -version 2>/dev/null | grep -q ImageMagick; then
  echo "SKIP: ImageMagick's convert is missing (install imagemagick)"; exit 77
fi
if ! file "$probe" | grep -q 'PE32+'; then
  echo "FAIL: $probe is not a 64-bit Windows executable (wine64 runs only those)"; exit 1
fi
if [ -z "${KORVEL_UNDER_XVFB:-}" ] && [ -z "${KORVEL_WINE_SESSION:-}" ]; then
  KORVEL_UNDER_XVFB=1 exec xvfb-run -a -s "-screen 0 1024x768x24" "$0" "$@"
fi

# One wine session for the whole run, started on this display before any other wine command,
# unless the caller already runs one here (KORVEL_WINE_SESSION=1, as a test run under wine does).
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
own_session=
if [ -z "${KORVEL_WINE_SESSION:-}" ]; then
  own_session=1
  export WINEPREFIX="${WINEPREFIX:-$HOME/.wine-korvel-tests}"
  mkdir -p "$WINEPREFIX"
  "$wineserver" -k 2>/dev/null || true
  "$wineserver" -p
  "$wine" wineboot -i >/dev/null 2>&1 </dev/null
fi

source "$here/window_checks.sh"
work="$(mktemp -d)"
trap 'kill "$pid" 2>/dev/null; [ -n "$own_session" ] && "$wineserver" -k 2>/dev/null; rm -rf "$work"' EXIT
log="$work/probe.log"
"$wine" "$probe" > "$log" 2>&1 </dev/null &
pid=$!
drive_probe_window "$log" "$pid"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
