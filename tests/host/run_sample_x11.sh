#!/usr/bin/env bash
# Plays the sample game in a real window under Xvfb: Space moves the story on, P takes a
# screenshot, a click on the green button chooses to walk back. Checks what the game printed.
#   run_sample_x11.sh QUILLFEN_EXE SOURCE_DIR WORK_DIR
set -uo pipefail
exe="$1" source="$2" work="$3"
for tool in xvfb-run xdotool; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is missing (tools/install-deps.sh installs it)"; exit 77; }
done
if [ -z "${KORVEL_IN_XVFB:-}" ]; then
  KORVEL_IN_XVFB=1 exec xvfb-run -a -s "-screen 0 1024x768x24" "$0" "$@"
fi
rm -rf "$work" && mkdir -p "$work/bin" "$work/Resources" || exit 1
cp "$exe" "$work/bin/" && cp -r "$source/Resources/scripts" "$work/Resources/" || exit 1
log="$work/out.txt"
SDL_AUDIODRIVER=dummy "$work/bin/$(basename "$exe")" >"$log" 2>"$work/err.txt" &
game=$!
wait_for() {  # text, seconds
  for _ in $(seq 1 $(( $2 * 20 ))); do grep -q "$1" "$log" && return 0; sleep 0.05; done
  echo "FAIL: no '$1' within $2 s"; cat "$log" "$work/err.txt"; kill "$game" 2>/dev/null; exit 1
}
wait_for "next line" 10
window=""
for _ in $(seq 1 100); do
  window="$(xdotool search --name '^Quillfen Testing$' 2>/dev/null | head -1)"
  [ -n "$window" ] && break
  sleep 0.05
done
[ -n "$window" ] || { echo "FAIL: the window did not appear"; kill "$game"; exit 1; }
xdotool windowfocus --sync "$window" 2>/dev/null
# The game samples the keys and buttons once a frame, so each press is held for a while, as a
# player's would be.
for _ in 1 2 3; do
  xdotool keydown --window "$window" space; sleep 0.15; xdotool keyup --window "$window" space; sleep 0.15
done
wait_for "Choose:" 3  # well before the lines would have moved on by themselves
# P saves a screenshot of the window: the 960x544 drawing area as a PNG file.
xdotool keydown --window "$window" p; sleep 0.15; xdotool keyup --window "$window" p
wait_for "Screenshot saved" 3
shot="$work/bin/screenshot.png"
size="$(python3 -c 'import struct,sys; d=open(sys.argv[1],"rb").read(24); print(*struct.unpack(">II", d[16:24])) if d[:8]==b"\x89PNG\r\n\x1a\n" else print("not a PNG")' "$shot" 2>&1)"
[ "$size" = "960 544" ] || { echo "FAIL: screenshot $shot: $size"; exit 1; }
# The green button covers logical (280..440, 220..256); the 960x544 window shows the 480x272
# picture at twice its size.
xdotool mousemove --window "$window" 720 476 mousedown 1; sleep 0.15; xdotool mouseup 1
wait_for "restored choice" 10
wait "$game"
status=$?
grep -q "You walk back down to the harbour." "$log" || { echo "FAIL: the click did not choose"; cat "$log"; exit 1; }
[ "$status" -eq 0 ] || { echo "FAIL: exit status $status"; exit 1; }
echo "PASS: story moved on by keys, screenshot taken, choice made by a click"
