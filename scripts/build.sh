#!/usr/bin/env bash
# Configures and builds everything into build/ (or $ORVANE_BUILD_DIR).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
dir="${ORVANE_BUILD_DIR:-build}"
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -- -k 0
