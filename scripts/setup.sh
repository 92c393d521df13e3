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
  # pixel conversion for the video encoders
  libyuv-dev
  # microphones on linux; the tests run a private sound server
  libpulse-dev pulseaudio pulseaudio-utils
  # screens on linux (X11 through xcb) and their scaling; the tests run a private Xvfb with openbox
  libxcb1-dev libxcb-shm0-dev libxcb-damage0-dev libxcb-xfixes0-dev libxcb-randr0-dev libxcb-composite0-dev
  libxcb-render0-dev libxcb-res0-dev libyuv-dev
  xvfb openbox xdotool x11-apps x11-xserver-utils
  # input events and the cursor on X11; the backend tests start an xterm under a cursor theme
  libxcb-record0-dev libxcb-xkb-dev libxcb-xtest0-dev libxkbcommon-dev libxkbcommon-x11-dev
  xterm dmz-cursor-theme
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev python3
  # the Node client's playback test plays recordings in a real browser
  chromium
  # sanitizer builds and the libFuzzer target
  clang libclang-rt-14-dev
  # camera preview pictures and MJPEG cameras
  libturbojpeg0-dev
  # echo cancellation and its delay estimate
  libwebrtc-audio-processing-dev libfftw3-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done

# Node.js and npm for clients/node: Debian's, unless a node is on the PATH
# already (NodeSource's nodejs bundles npm and conflicts with Debian's npm).
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
