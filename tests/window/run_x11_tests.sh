#!/usr/bin/env bash
# Drives a real SDL window on an X server: the probe (window_probe.cpp) shows a known picture;
# this script takes a screenshot and checks the letterbox bars and the scaled pixels, types keys
# and moves and clicks the mouse with xdotool and checks what the window layer reports, and
# closes the window the way a window manager's close button does.
# Usage: run_x11_tests.sh PROBE_EXECUTABLE. Starts its own Xvfb. Exit 77 (skipped) when a
# tool is missing.
set -u
probe="$(realpath "$1")"
here="$(cd "$(dirname "$0")" && pwd)"

for tool in xvfb-run xauth xdotool xwd xwininfo python3; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is missing (install xvfb xauth xdotool x11-apps x11-utils imagemagick: tools/install-deps.sh)"; exit 77
  fi
done
if ! convert -version 2>/dev/null | grep -q ImageMagick; then
  echo "SKIP: ImageMagick's convert is missing (install imagemagick: tools/install-deps.sh)"; exit 77
fi
if [ -z "${KORVEL_UNDER_XVFB:-}" ]; then
  KORVEL_UNDER_XVFB=1 exec xvfb-run -a -s "-screen 0 1024x768x24" "$0" "$@"
fi

source "$here/window_checks.sh"
work="$(mktemp -d)"
trap 'kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT
log="$work/probe.log"
unset SDL_VIDEODRIVER
"$probe" > "$log" 2>&1 &
pid=$!
drive_probe_window "$log" "$pid"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
