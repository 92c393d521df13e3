#!/usr/bin/env bash
# Configures and builds everything into build/ (or $ORVANE_BUILD_DIR).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
dir="${ORVANE_BUILD_DIR:-build}"
# ccache refuses compiles that use the precompiled header unless told that
# the header's defines and time stamps may be trusted; paths below the tree
# are made relative so that another clone of it hits the same cache.
export CCACHE_SLOPPINESS="${CCACHE_SLOPPINESS:-pch_defines,time_macros,include_file_mtime,include_file_ctime}"
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -- -k 0
