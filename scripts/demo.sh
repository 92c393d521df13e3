#!/usr/bin/env bash
# The main job: a short recording on the synthetic platform, driven through
# orvane-rpc exactly as a host drives it (list, init, prepare, start, stop),
# then the bundle's path, its files and its "orvane.json".
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh >/dev/null
dir="${ORVANE_BUILD_DIR:-build}"
seconds="${ORVANE_DEMO_SECONDS:-3}"
export ORVANE_PLATFORM=synthetic ORVANE_OS_LOG=error
python3 - "$dir/orvane-rpc" "$seconds" <<'PY'
import json, os, subprocess, sys, time
rpc = subprocess.Popen([sys.argv[1]], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
seconds = float(sys.argv[2])
next_id = 0
def call(message, show=True):
    global next_id
    next_id += 1
    message = {"hvrpc": 1, "id": str(next_id), **message}
    line = json.dumps(message)
    if show: print("host  ->", line)
    rpc.stdin.write(line + "\n"); rpc.stdin.flush()
    while True:
        answer = json.loads(rpc.stdout.readline())
        if answer.get("id") == message["id"]: break
        print("rpc   <- (callback)", json.dumps(answer))
    if show: print("rpc   <-", json.dumps(answer)[:400])
    return answer
for action in ["getDisplays", "getMicrophones", "getCameras"]:
    params = {"params": {"includeDeskView": False}} if action == "getCameras" else {}
    call({"procedure": "perform", "type": "Recorder", "action": action, **params})
# The synthetic world's display and microphone, each recorded to a file;
# ORVANE_DEMO_ITEMS replaces the items with a JSON array of the host's own.
items = [{"type": "display", "display": 1, "filename": "screen.mov"},
         {"type": "microphone", "microphone": "synthetic-microphone", "filename": "microphone.m4a"}]
if os.environ.get("ORVANE_DEMO_ITEMS"):
    items = json.loads(os.environ["ORVANE_DEMO_ITEMS"])
call({"procedure": "init", "type": "Recorder", "target": "recorder-1",
      "params": {"schema": {"items": items}, "onAbortInstance": "on-abort-1"}})
call({"procedure": "perform", "target": "recorder-1", "action": "prepare"})
call({"procedure": "perform", "target": "recorder-1", "action": "start"})
time.sleep(seconds)
answer = call({"procedure": "perform", "target": "recorder-1", "action": "stop"})
call({"procedure": "release", "target": "recorder-1"})
rpc.kill(); rpc.wait()
result = answer.get("result")
if not result:
    sys.exit("the recording failed: " + json.dumps(answer))
bundle = result["url"]
print()
print("bundle:", bundle)
for name in sorted(os.listdir(bundle)):
    print("  ", name, os.path.getsize(os.path.join(bundle, name)), "bytes")
print("orvane.json:")
print(open(os.path.join(bundle, "orvane.json")).read())
for entry in json.load(open(os.path.join(bundle, "orvane.json")))["files"]:
    probe = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height,sample_rate,channels:format=duration",
                            "-of", "compact", os.path.join(bundle, entry["filename"])], capture_output=True, text=True)
    print(entry["filename"] + ":", probe.stdout.strip().replace("\n", "; "))
PY
