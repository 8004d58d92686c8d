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

for tool in xvfb-run xauth xdotool xwd python3; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is missing (install xvfb xauth xdotool x11-apps imagemagick: tools/install-deps.sh)"; exit 77
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

check "window opens and shows its picture" wait_for "$log" "READY Korvel Window Probe" 10
check "client area is 640 x 480" wait_for "$log" "SIZE 640 480" 1
window="$(xdotool search --sync --name '^Korvel Window Probe$' | head -1)"

# Screenshot: without a window manager the X window is exactly the client area.
xwd -id "$window" -silent > "$work/shot.xwd"
convert "$work/shot.xwd" -depth 8 "rgb:$work/shot.rgb"
size="$(convert "$work/shot.xwd" -format '%w %h' info:)"
[ -n "${KORVEL_WINDOW_SHOT:-}" ] && convert "$work/shot.xwd" "$KORVEL_WINDOW_SHOT"
check "screenshot is the 640 x 480 client area" test "$size" = "640 480"
check "picture scaled by 2 between 40-pixel bars of the clear colour" check_picture "$work/shot.rgb" 640 0 0

# Keys: X key names and the Windows virtual-key codes the layer must report.
xdotool windowfocus --sync "$window"
for pair in a:41 z:5A 5:35 0:30 Up:26 Left:25 Return:0D BackSpace:08 Delete:2E space:20 F1:70 Escape:1B; do
  key="${pair%%:*}"; code="${pair##*:}"
  mark "$log"
  xdotool keydown "$key"
  check "key $key down reports code $code" wait_for "$log" "INPUT .* keys=$code"
  mark "$log"
  xdotool keyup "$key"
  check "key $key up clears it" wait_for "$log" "INPUT .* keys="
done
mark "$log"
xdotool keydown shift keydown b
check "two keys held at once (shift 10, b 42)" wait_for "$log" "INPUT .* keys=10,42"
mark "$log"
xdotool keyup b keyup shift
check "both released" wait_for "$log" "INPUT .* keys="

# Mouse: client (100, 100) is logical (50, 30); over the top bar the y coordinate clamps to 0.
mark "$log"
xdotool mousemove --window "$window" 100 100
check "pointer in logical coordinates" wait_for "$log" "INPUT 50 30 0 0 0 keys="
mark "$log"
xdotool mousemove --window "$window" 600 10
check "pointer over the top bar clamps to the top edge" wait_for "$log" "INPUT 300 0 0 0 0 keys="
mark "$log"
xdotool mousemove --window "$window" 639 479
check "pointer over the bottom bar clamps to the bottom right corner" wait_for "$log" "INPUT 319 199 0 0 0 keys="
mark "$log"
xdotool mousemove --window "$window" 320 240
mark "$log"
xdotool mousedown 1
check "left button down" wait_for "$log" "INPUT 160 100 1 0 0 keys="
mark "$log"
xdotool mouseup 1
check "left button up" wait_for "$log" "INPUT 160 100 0 0 0 keys="
mark "$log"
xdotool mousedown 3
check "right button is button 1" wait_for "$log" "INPUT 160 100 0 1 0 keys="
mark "$log"
xdotool mouseup 3 mousedown 2
check "middle button is button 2" wait_for "$log" "INPUT 160 100 0 0 1 keys="
mark "$log"
xdotool mouseup 2
check "middle button up" wait_for "$log" "INPUT 160 100 0 0 0 keys="

# Close: the window manager's close message raises the flag; the window stays until the
# program destroys it.
mark "$log"
python3 "$here/x11_close_window.py" "$window"
check "close request raises the close flag" wait_for "$log" "CLOSE 1"
window_exists() { xdotool getwindowname "$window" >/dev/null 2>&1; }
check "window still on screen after the close request" window_exists
check "close flag stays up" wait_for "$log" "STILL_CLOSED 1 WINDOW_KEPT 1" 5
wait "$pid"; status=$?
check "probe exits normally" test "$status" -eq 0

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
