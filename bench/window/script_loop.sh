#!/usr/bin/env bash
# A game's frame loop as a script writes it, on a real window (SDL under Xvfb): Metal.updateInput
# and Metal.renderImage of an unchanged 960x544 image, for two seconds, then the same with an
# image that changes every frame (one pixel-row blit). Prints frames per second; never fails on
# timing.
#   bench/window/script_loop.sh [BUILD_DIR]     (default build/release)
set -uo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="${1:-$root/build/release}"
[ -x "$build/bin/Quillfen" ] || { echo "script loop bench: build $build first (cmake --build --preset release)"; exit 0; }
command -v xvfb-run >/dev/null || { echo "script loop bench: xvfb-run is missing (tools/install-deps.sh installs it)"; exit 0; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/bin" "$work/Resources/scripts"
cp "$build/bin/Quillfen" "$work/bin/"
cat > "$work/Resources/scripts/visual-novel.ks" <<'SCRIPT'
Metal.spawnWindow(960, 544, "script loop bench")
frame = Mirel.createImage(960, 544, 30, 60, 90, 255)
stripe = Mirel.createImage(960, 1, 255, 255, 255, 255)
function measure(changing)
  local frames = 0
  local start = Korvel.getGlobalTime()
  local elapsed = 0
  while elapsed < 2000
    Metal.updateInput()
    if changing
      Mirel.blitImage(frame, stripe, 0, frames % 544, false, 1, 0)
    end
    Metal.renderImage(frame)
    frames = frames + 1
    elapsed = Korvel.getGlobalTime() - start
  end
  return frames * 1000 / elapsed
end
print(format("script loop, unchanged 960x544 image: %.0f frames/s", measure(false)))
print(format("script loop, changing 960x544 image: %.0f frames/s", measure(true)))
SCRIPT
SDL_AUDIODRIVER=dummy xvfb-run -a -s "-screen 0 1024x768x24" "$work/bin/Quillfen" 2>&1 | grep "script loop" || echo "script loop bench: the run failed"
exit 0
