#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
#
# With ORVANE_SANITIZERS=1, before the suite itself a clang build with
# AddressSanitizer and UndefinedBehaviorSanitizer (build-san/, or
# $ORVANE_SAN_BUILD_DIR) runs the suite less its slowest process-level tests,
# and the request decoder's libFuzzer target runs for $ORVANE_FUZZ_SECONDS
# (60) from the corpus in fuzz/corpus/. That stage is opt-in until it has
# passed once in full on this machine kind.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
dir="${ORVANE_BUILD_DIR:-build}"
failed=0

if [ "${ORVANE_SANITIZERS:-0}" = 1 ]; then
  san="${ORVANE_SAN_BUILD_DIR:-build-san}"
  # The kill test and the recordings of many seconds each are the slow ones;
  # the plain build runs them, the sanitizers see the same code through the
  # shorter tests.
  san_exclude='^(OutputModes/KillTest|MicrophoneRecording|SegmentedOutputEndToEnd|RecordingEnd|SlowHost)\.'
  export ASAN_OPTIONS="detect_leaks=0:abort_on_error=1:detect_stack_use_after_return=0"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  if cmake -S . -B "$san" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
       -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
       -DORVANE_SANITIZE=address,undefined -DORVANE_BUILD_FUZZ=ON -DORVANE_BUILD_BENCH=OFF >/dev/null &&
     cmake --build "$san" -- -k 0; then
    echo "== fuzzing the request decoder for ${ORVANE_FUZZ_SECONDS:-60} s"
    work="$(mktemp -d)"
    if ! "$san/request_decoder_fuzz" "$work" fuzz/corpus/request_decoder \
         -max_total_time="${ORVANE_FUZZ_SECONDS:-60}" -max_len=65536 -timeout=10 \
         -artifact_prefix="$san/" -print_final_stats=1 2>"$san/fuzz.log"; then
      tail -n 60 "$san/fuzz.log"
      echo "fuzz: FAILED (the crashing input is in $san/)"
      failed=1
    else
      grep -E '^stat::number_of_executed_units|^Done' "$san/fuzz.log" || true
      echo "fuzz: passed"
    fi
    rm -rf "$work"
    echo "== the suite under AddressSanitizer and UndefinedBehaviorSanitizer (without $san_exclude)"
    if ! ctest --test-dir "$san" --output-on-failure -j "$(nproc)" --timeout 600 -E "$san_exclude"; then
      echo "sanitizers: FAILED"
      failed=1
    fi
  else
    echo "sanitizers: the clang build failed"
    failed=1
  fi
  echo "== the suite"
fi

ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 300 || failed=1

# The Node client's tests, against the orvane-rpc just built; the runner's
# summary closes the output.
export ORVANE_RPC_PATH="$(cd "$dir" && pwd)/orvane-rpc"
(cd clients/node && npm ci --no-audit --no-fund --prefer-offline --loglevel=error && npm test --silent) || failed=1
exit "$failed"
