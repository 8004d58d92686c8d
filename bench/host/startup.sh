#!/usr/bin/env bash
# Quillfen's start-up to the first line of the game's main script against lua5.4 -e '': the
# median of 20 runs of each, and their ratio (build/release/bench/startup_bench does the work).
#   bench/host/startup.sh [BUILD_DIR]     (default build/release)
set -uo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="${1:-$root/build/release}"
[ -x "$build/bench/startup_bench" ] && [ -x "$build/bin/Quillfen" ] ||
  { echo "startup bench: build $build first (cmake --build --preset release)"; exit 0; }
command -v lua5.4 >/dev/null || { echo "startup bench: lua5.4 is missing (tools/install-deps.sh installs it)"; exit 0; }
"$build/bench/startup_bench" "$build/bin/Quillfen" 20
exit 0
