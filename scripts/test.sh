#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
dir="${ORVANE_BUILD_DIR:-build}"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 300
