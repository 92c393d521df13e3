#!/usr/bin/env bash
# The main job: a host's exchange with orvane-rpc on the synthetic platform.
# It pings the Echo type, asks for a failure and shows the error response.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh >/dev/null
dir="${ORVANE_BUILD_DIR:-build}"
export ORVANE_PLATFORM=synthetic ORVANE_OS_LOG=error
python3 - "$dir/orvane-rpc" <<'PY'
import json, subprocess, sys
rpc = subprocess.Popen([sys.argv[1]], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
def call(message):
    line = json.dumps(message)
    print("host  ->", line)
    rpc.stdin.write(line + "\n"); rpc.stdin.flush()
    answer = rpc.stdout.readline().strip()
    print("rpc   <-", answer)
    return json.loads(answer)
call({"hvrpc": 1, "id": "1", "procedure": "perform", "type": "Echo", "action": "ping"})
call({"hvrpc": 1, "id": "2", "procedure": "init", "type": "Echo", "target": "echo-1"})
call({"hvrpc": 1, "id": "3", "procedure": "perform", "target": "echo-1", "action": "fail"})
call({"hvrpc": 1, "id": "4", "procedure": "perform", "type": "Recorder", "action": "getDisplays"})
rpc.kill()
PY
