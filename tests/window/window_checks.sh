# Shared by the window driver scripts (sourced): result counting, waiting for the probe's
# report lines, and checking a screenshot against the probe's known picture.

passed=0
failed=0

check() {  # check NAME COMMAND...: runs the command, counts and prints the result
  local name="$1"; shift
  if "$@"; then
    passed=$((passed + 1)); echo "ok - $name"
  else
    failed=$((failed + 1)); echo "FAIL - $name"
  fi
}

# mark LOG: later waits look only at lines written after this point, so an old line that
# happens to match cannot answer for a new action.
seen=0
mark() { seen="$(wc -l < "$1")"; }

# wait_for LOG REGEX [SECONDS]: true once a line of LOG after the mark matches (extended
# regex, whole line).
wait_for() {
  local log="$1" pattern="$2" seconds="${3:-5}" tries
  tries=$((seconds * 20))
  while [ "$tries" -gt 0 ]; do
    tail -n "+$((seen + 1))" "$log" | tr -d '\r' | grep -Eqx "$pattern" && return 0
    sleep 0.05
    tries=$((tries - 1))
  done
  echo "  (no line matching '$pattern' in $log; last lines:)"; tr -d '\r' < "$log" | tail -3 | sed 's/^/    /'
  return 1
}

# The probe's 320 × 200 picture in a 640 × 480 client area on the clear colour blue: scaled
# by 2 with 40-pixel bars at top and bottom. Each entry: x y red green blue (client pixels).
probe_expectations=(
  "320 20 0 0 255"    "0 0 0 0 255"       "639 39 0 0 255"    "320 440 0 0 255"   "639 479 0 0 255"
  "0 40 255 0 0"      "159 300 255 0 0"   "319 439 255 0 0"   "320 40 0 255 0"    "639 439 0 255 0"
  "2 42 255 255 255"  "3 43 255 255 255"  "4 42 255 0 0"      "1 42 255 0 0"      "2 44 255 0 0"
  "620 50 0 0 255"    "600 40 0 0 255"    "598 40 0 255 0"    "10 430 128 0 127"  "19 439 128 0 127"
)

# check_picture RGB_FILE WIDTH OFFSET_X OFFSET_Y: the probe's picture at that place of a raw
# 8-bit RGB screenshot WIDTH pixels wide.
check_picture() {
  python3 - "$@" "${probe_expectations[@]}" <<'PY'
import sys
path, width, ox, oy = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
data = open(path, "rb").read()
bad = 0
for entry in sys.argv[5:]:
    x, y, r, g, b = map(int, entry.split())
    at = ((oy + y) * width + ox + x) * 3
    got = tuple(data[at:at + 3])
    if got != (r, g, b):
        bad += 1
        print(f"  pixel {x},{y}: expected {(r, g, b)}, screen shows {got}")
sys.exit(1 if bad else 0)
PY
}

# check_resized RGB_FILE: the probe's picture in an 800 x 400 client area: 640 x 400 from x = 80.
check_resized() {
  python3 - "$1" <<'PY'
import sys
data = open(sys.argv[1], "rb").read()
expect = [(40, 200, (0, 0, 255)), (79, 0, (0, 0, 255)), (720, 399, (0, 0, 255)), (80, 0, (255, 0, 0)),
          (399, 399, (255, 0, 0)), (400, 0, (0, 255, 0)), (719, 399, (0, 255, 0)), (82, 2, (255, 255, 255))]
bad = 0
for x, y, colour in expect:
    at = (y * 800 + x) * 3
    got = tuple(data[at:at + 3])
    if got != colour:
        bad += 1
        print(f"  pixel {x},{y}: expected {colour}, screen shows {got}")
sys.exit(1 if bad else 0)
PY
}

# drive_probe_window LOG PID: every check of a running probe whose report goes to LOG, from
# its first picture to its exit after the close request. Needs DISPLAY, xdotool, xwd, convert.
# Without a window manager the X window of the probe is exactly its client area.
drive_probe_window() {
  local log="$1" pid="$2" window size status
  local shots; shots="$(mktemp -d)"
  check "window opens and shows its picture" wait_for "$log" "READY Korvel Window Probe" 10
  check "client area is 640 x 480" wait_for "$log" "SIZE 640 480" 1
  window="$(xdotool search --sync --name '^Korvel Window Probe$' | head -1)"

  # Screenshot: without a window manager the X window is exactly the client area.
  xwd -id "$window" -silent > "$shots/shot.xwd"
  convert "$shots/shot.xwd" -depth 8 "rgb:$shots/shot.rgb"
  size="$(convert "$shots/shot.xwd" -format '%w %h' info:)"
  [ -n "${KORVEL_WINDOW_SHOT:-}" ] && convert "$shots/shot.xwd" "$KORVEL_WINDOW_SHOT"
  check "screenshot is the 640 x 480 client area" test "$size" = "640 480"
  check "picture scaled by 2 between 40-pixel bars of the clear colour" check_picture "$shots/shot.rgb" 640 0 0

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

  # Focus moving away while a key is held: the key reads as up, though it was never released.
  mark "$log"
  xdotool keydown a
  check "key held before the focus moves" wait_for "$log" "INPUT .* keys=41"
  mark "$log"
  xdotool windowfocus --sync "$(xwininfo -root | awk '/Window id:/ {print $4}')"
  check "focus loss releases the held key" wait_for "$log" "INPUT .* keys="
  xdotool keyup a
  xdotool windowfocus --sync "$window"

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

  # Resizing through the layer (F2 in the probe): 800 x 400 puts the picture, scaled by 2,
  # between 80-pixel bars at the sides.
  mark "$log"
  xdotool key F2
  check "window resized to 800 x 400" wait_for "$log" "SIZE 800 400"
  sleep 0.3
  xwd -id "$window" -silent > "$shots/resized.xwd"
  convert "$shots/resized.xwd" -depth 8 "rgb:$shots/resized.rgb"
  size="$(convert "$shots/resized.xwd" -format '%w %h' info:)"
  check "screenshot after resizing is 800 x 400" test "$size" = "800 400"
  check "picture between side bars after resizing" check_resized "$shots/resized.rgb"
  mark "$log"
  xdotool mousemove --window "$window" 10 200
  check "pointer over a side bar clamps to the left edge" wait_for "$log" "INPUT 0 100 0 0 0 keys="

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
  rm -rf "$shots"
}
