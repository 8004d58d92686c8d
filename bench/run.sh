#!/usr/bin/env bash
# Times the engine's KorvelScript and Lua-dialect runners against lua5.4 on the shared
# benchmark programs (each run's output is checked first) and prints per-program ratios and
# the geometric mean. Timing never fails: this reports.
#   bench/run.sh [--runs N] [--only "fib loop"]
set -uo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/.." && pwd)"
runner="$root/../shared/bench/run-engine.sh"
[ -x "$runner" ] || { echo "bench: $runner not found (shared/ sits beside the repository)"; exit 0; }
bash "$root/tools/install-deps.sh"
cmake --preset release >/dev/null && cmake --build --preset release --target korvel >/dev/null || exit 1
args=(--ks "$root/build/release/tools/korvel")
[ -x "$root/build/release/lua/korvel-lua" ] && args+=(--lua "$root/build/release/lua/korvel-lua")
"$runner" "${args[@]}" "$@"
exit 0
