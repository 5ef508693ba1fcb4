#!/usr/bin/env bash
# Sets up, builds and runs the main job: the marlix console with its default scenario.
# Extra arguments go to marlix (for example: shell, run FILE, -c 'cmd; cmd').
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target marlix all_modules
exec build/default/tools/marlix/marlix "$@"
