#!/usr/bin/env bash
# Installs what is needed, builds the release build, and runs the engine on the sample game:
# Quillfen with Resources/scripts/visual-novel.ks as its main script.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target Quillfen
exec build/release/bin/Quillfen
