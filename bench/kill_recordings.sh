#!/usr/bin/env bash
# Kills recordings at random moments, $1 (default 30) times in every output
# mode of a microphone, and prints per mode the seconds lost (median, max).
# The suite runs the same test with 3 kills per mode, none earlier than 0.3 s
# after start; here the earliest kill is $ORVANE_KILL_EARLIEST (default 0.15 s).
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${ORVANE_BUILD_DIR:-build}"
cmake --build "$dir" --target orvane-tests >/dev/null
ORVANE_KILL_EARLIEST="${ORVANE_KILL_EARLIEST:-0.15}" ORVANE_KILL_COUNT="${1:-30}" "$dir/orvane-tests" --gtest_filter='OutputModes/KillTest.*' | grep -E '^\[ kill \]|^\[  (FAILED|SKIPPED|PASSED)|Failure|Skipped|expected|Which is|killed after' || true
