#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
dir="${ORVANE_BUILD_DIR:-build}"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 300

# The Node client's tests, against the orvane-rpc just built; the runner's
# summary closes the output.
export ORVANE_RPC_PATH="$(cd "$dir" && pwd)/orvane-rpc"
cd clients/node
npm ci --no-audit --no-fund --prefer-offline --loglevel=error
npm test --silent
