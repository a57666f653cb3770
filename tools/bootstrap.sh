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
