#!/usr/bin/env bash
# Times korvel-lua against lua5.4 on the shared benchmark programs (outputs are checked first).
# Build the release preset before running:
#   cmake --preset release && cmake --build build/release --target korvel-lua
# Extra arguments go to run-engine.sh (for example --runs 10 or --only "fib loop").
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
repo="$(cd "$here/../.." && pwd)"
runner="$here/../../../shared/bench/run-engine.sh"
engine="$repo/build/release/lua/korvel-lua"
if [ ! -x "$engine" ]; then
  echo "bench/lua/run.sh: $engine is missing; build the release preset first" >&2
  exit 2
fi
exec "$runner" --lua "$engine" "$@"
