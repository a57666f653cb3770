#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, and only
# those that are missing. Runs `apt-get update` once before the first install.
set -euo pipefail

# Extra packages may be named on the command line (make fuzz adds clang).
packages=(
  "$@"
  build-essential cmake pkg-config git
  libgtest-dev libgmock-dev libbenchmark-dev
  libavcodec-dev libavformat-dev libavutil-dev libswscale-dev libswresample-dev
  libturbojpeg0-dev libsdl2-dev
  ffmpeg xvfb xdotool
  python3 python3-numpy python3-pytest python3-matplotlib python3-setuptools python3-pip
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
  gstreamer1.0-plugins-base gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  gstreamer1.0-plugins-ugly gstreamer1.0-libav python3-gi gir1.2-gst-rtsp-server-1.0
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "bootstrap: all ${#packages[@]} packages present"
  exit 0
fi

echo "bootstrap: installing ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
else
  SUDO=
fi
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
echo "bootstrap: done"
