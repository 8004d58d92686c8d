#!/usr/bin/env bash
# Installs what is needed, builds the release build, and runs the newest sample: the text
# adventure (type "quit" or end the input to leave).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target korvel
exec build/release/tools/korvel examples/adventure.ks
