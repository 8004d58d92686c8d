#!/usr/bin/env bash
# Start-up time of Quillfen, from process start to the first line of the game's main script,
# against lua5.4 -e '' in the same run: the median of 20 runs of each, and their ratio.
# Reports only; never fails on timing.
#   bench/host/startup.sh [BUILD_DIR]     (default build/release)
set -uo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="${1:-$root/build/release}"
runs=20
[ -x "$build/bin/Quillfen" ] || { echo "startup bench: $build/bin/Quillfen is not built"; exit 0; }
command -v hyperfine >/dev/null || { echo "startup bench: hyperfine is missing (tools/install-deps.sh installs it)"; exit 0; }
command -v lua5.4 >/dev/null || { echo "startup bench: lua5.4 is missing"; exit 0; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/bin" "$work/Resources/scripts"
cp "$build/bin/Quillfen" "$work/bin/"
# The main script ends as soon as it has printed its first line.
printf 'print("first line")\n' > "$work/Resources/scripts/visual-novel.ks"
[ "$("$work/bin/Quillfen")" = "first line" ] || { echo "startup bench: Quillfen did not print the first line"; exit 0; }

hyperfine -N --warmup 3 --runs "$runs" --export-json "$work/times.json" \
  "$work/bin/Quillfen" "lua5.4 -e ''" >/dev/null 2>&1 || { echo "startup bench: hyperfine failed"; exit 0; }
python3 - "$work/times.json" <<'PY'
import json, sys
results = json.load(open(sys.argv[1]))["results"]
quillfen, lua = (r["median"] for r in results)
print(f"Quillfen start-up to first line: median {quillfen * 1000:.2f} ms of {len(results[0]['times'])} runs")
print(f"lua5.4 -e '':                     median {lua * 1000:.2f} ms of {len(results[1]['times'])} runs")
print(f"start-up ratio vs lua5.4: {quillfen / lua:.2f}")
PY
exit 0
