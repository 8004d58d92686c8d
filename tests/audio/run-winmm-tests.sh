#!/usr/bin/env bash
# Runs the WinMM audio backend's test program under wine64, on ALSA's file device (what the
# device plays lands byte for byte in a file) and once with no device at all.
# Usage: tests/audio/run-winmm-tests.sh WINMM_OUTPUT_TEST_EXE [WORK_DIR]
# Needs wine64 and xvfb-run; runs itself inside xvfb-run when no display is set up for it.
set -euo pipefail
exe=$(realpath "$1")
work=$(realpath -m "${2:-$(dirname "$exe")/winmm-work}")
if [ -z "${KORVEL_WINE_SESSION:-}" ]; then
  export KORVEL_WINE_SESSION=1
  exec xvfb-run -a -s "-screen 0 1024x768x24" "$0" "$exe" "$work"
fi
if file "$exe" | grep -q 'PE32 '; then
  echo "SKIP: $exe is a 32-bit program, which wine64 cannot run here"; exit 0
fi
export WINEPREFIX="${WINEPREFIX:-$HOME/.wine-ci}" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
wine=/usr/lib/wine/wine64
mkdir -p "$WINEPREFIX" "$work"
/usr/lib/wine/wineserver -k 2>/dev/null || true
/usr/lib/wine/wineserver -p
$wine wineboot -i >/dev/null 2>&1 </dev/null
trap '/usr/lib/wine/wineserver -k' EXIT

failures=0
check() {  # check MODE LOG: the program's own verdict, and its marker (an exe that did not run prints none)
  local mode=$1 log=$2
  if tr -d '\r' < "$log" | grep -q "^PASS $mode"; then
    tr -d '\r' < "$log" | grep "^PASS $mode"
  else
    echo "FAIL $mode:"; tr -d '\r' < "$log" | grep -v '^ALSA' | tail -5; failures=$((failures + 1))
  fi
}

for mode in play offset loop stop handles; do
  rm -f "$work/$mode.raw"
  printf '</usr/share/alsa/alsa.conf>\npcm.!default { type file slave.pcm "null" file "%s" format "raw" }\n' \
    "$work/$mode.raw" > "$work/asound-$mode.conf"
  ALSA_CONFIG_PATH="$work/asound-$mode.conf" $wine "$exe" "$mode" "Z:$work/$mode.raw" > "$work/$mode.log" 2>&1 || true
  check "$mode" "$work/$mode.log"
done
# MP3 through the system's codec: a one-second tone that lame encodes, stereo and mono.
if command -v sox >/dev/null && command -v lame >/dev/null; then
  sox -n -r 44100 -c 2 -b 16 "$work/tone.wav" synth 1 sine 440 vol 0.25
  for channels in 2 1; do
    lame --quiet -m $([ $channels = 2 ] && echo s || echo m) -b 128 "$work/tone.wav" "$work/tone-$channels.mp3"
    printf '</usr/share/alsa/alsa.conf>\npcm.!default { type file slave.pcm "null" file "%s" format "raw" }\n' \
      "$work/mp3.raw" > "$work/asound-mp3.conf"
    ALSA_CONFIG_PATH="$work/asound-mp3.conf" $wine "$exe" mp3 "Z:$work/tone-$channels.mp3" $channels > "$work/mp3-$channels.log" 2>&1 || true
    check mp3 "$work/mp3-$channels.log"
  done
else
  echo "SKIP mp3: sox and lame make the test files (tools/install-deps.sh installs them)"
fi
# No device: wine's default configuration here has no sound card.
printf '</usr/share/alsa/alsa.conf>\npcm.!default { type hw card 99 }\n' > "$work/asound-none.conf"
ALSA_CONFIG_PATH="$work/asound-none.conf" $wine "$exe" nodevice > "$work/nodevice.log" 2>&1 || true
check nodevice "$work/nodevice.log"

if [ "$failures" -ne 0 ]; then echo "$failures WinMM check(s) failed"; exit 1; fi
echo "all WinMM checks passed"
