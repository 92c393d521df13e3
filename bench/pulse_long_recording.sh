#!/usr/bin/env bash
# The long runs of the sound-server microphone on a private daemon, at full
# length (the suite runs them for 8 s): a record stream of a pipe-fed source
# whose stamps must stay within 2 ms of the frame-count line and never ahead
# of arrival, and a recording over the protocol that must write no
# backpressure line and stop within 100 ms. Prints each run's figures.
#   bench/pulse_long_recording.sh [seconds] [build dir]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
build="${2:-build}"
ORVANE_PULSE_LONG_SECONDS="$seconds" "$build/orvane-tests" \
    --gtest_filter='PulseRecordStream.APipeSourceStaysOnTheFrameCountLineAndNeverAhead:PulseMicrophoneLongRecording.*'
