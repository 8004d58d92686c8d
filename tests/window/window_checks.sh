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
