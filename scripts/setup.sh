#!/usr/bin/env bash
# Installs every Debian package that building, running and testing Orvane needs.
# Idempotent: packages already present are skipped, and the package lists are
# refreshed at most once per run, only when something is missing.
set -euo pipefail

packages=(
  # build
  build-essential cmake ninja-build pkg-config ccache
  # libraries
  nlohmann-json3-dev libcli11-dev libfmt-dev
  # the recording's sleep inhibitor (logind over the system bus)
  libsystemd-dev
  # media encoding and containers; ffprobe/ffmpeg check the files in tests
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev ffmpeg
  # microphones on linux; the tests run a private sound server
  libpulse-dev pulseaudio pulseaudio-utils
  # input events and the cursor on X11; the backend tests run a private X server
  libxcb1-dev libxcb-record0-dev libxcb-xfixes0-dev libxcb-xkb-dev libxcb-xtest0-dev libxkbcommon-dev
  libxkbcommon-x11-dev xvfb openbox xdotool xterm x11-xserver-utils dmz-cursor-theme
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev python3
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
