#!/usr/bin/env bash
# Regenerates the committed sample media from ffmpeg's test sources:
#   demo.tqf     640x352 H.264 (libx264, main profile, no B-frames), 10 s at
#                25 fps, a key frame every 50 frames (2 s), G.726 audio of a
#                1 kHz tone
#   jpeg422.tqf  320x240 Motion JPEG with 4:2:2 pictures, 2 s at 25 fps
# Needs the ffmpeg tool and a built tqfplay (default build/tqfplay; set
# TQFPLAY to use another). The intermediate files go to a temporary folder.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
tqfplay="${TQFPLAY:-$here/../build/tqfplay}"
[ -x "$tqfplay" ] || { echo "make_samples.sh: no tqfplay at $tqfplay (build it first)" >&2; exit 1; }
work="$(mktemp -d "${TMPDIR:-/tmp}/tqf-samples.XXXXXX")"
trap 'rm -rf "$work"' EXIT

ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }

# Bit-exact output for a given ffmpeg/x264 build: one thread, fixed rate.
ff -f lavfi -i "testsrc2=size=640x352:rate=25:duration=10" \
   -f lavfi -i "sine=frequency=1000:sample_rate=8000:duration=10" \
   -c:v libx264 -profile:v main -bf 0 -g 50 -keyint_min 50 -sc_threshold 0 \
   -b:v 600k -maxrate 600k -bufsize 1200k -pix_fmt yuv420p -threads 1 \
   -c:a aac -b:a 32k -shortest "$work/demo.mp4"
"$tqfplay" import "$work/demo.mp4" "$here/demo.tqf" --audio

ff -f lavfi -i "testsrc2=size=320x240:rate=25:duration=2" \
   -c:v mjpeg -pix_fmt yuvj422p -q:v 6 "$work/jpeg422.avi"
"$tqfplay" import "$work/jpeg422.avi" "$here/jpeg422.tqf"

"$tqfplay" info "$here/demo.tqf"
"$tqfplay" info "$here/jpeg422.tqf"
