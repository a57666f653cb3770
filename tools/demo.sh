#!/usr/bin/env bash
# make demo: the library at work on the bundled sample, through tqfplay.
# Usage: tools/demo.sh [BUILD_FOLDER] [OUT_FOLDER]
set -euo pipefail

build=${1:-build}
out=${2:-out}
tool="$build/tqfplay"
sample=samples/demo.tqf

step() { printf '\n== %s\n' "$*"; }

mkdir -p "$out"
rm -rf "$out/stills"

step "what the sample holds: tqfplay info $sample"
"$tool" info "$sample"

step "play it to $out/demo.y4m, with a still every second"
"$tool" play -y "$sample" --y4m "$out/demo.y4m" --png "$out/stills" --every 25

step "a contact sheet of the stills: $out/contact.png"
ffmpeg -hide_banner -loglevel error -nostdin -y -pattern_type glob -i "$out/stills/*.png" \
  -vf "scale=320:-1,tile=5x2:padding=4:margin=4" -frames:v 1 "$out/contact.png"

step "stream it as a live source in random chunks, recording to $out/recorded.tqf"
"$tool" stream -y "$sample" --random-chunks --seed "$RANDOM" --record "$out/recorded.tqf"

step "what the recording holds: tqfplay info $out/recorded.tqf"
"$tool" info "$out/recorded.tqf"

step "export to $out/demo.mp4 (H.264 as it is, audio to AAC)"
"$tool" export -y "$sample" "$out/demo.mp4"

step "the audio to $out/demo.wav"
"$tool" audio -y "$sample" "$out/demo.wav"

step "when did something happen: the activity timeline, $out/activity.png"
TQFPLAY_LIBRARY="$build/libTQFPlay.so.1" /usr/bin/python3 examples/python/activity.py "$sample" --out "$out/activity.png"

step "made in $out/"
for f in demo.y4m contact.png recorded.tqf demo.mp4 demo.wav activity.png; do
  printf '  %-14s %10s bytes\n' "$f" "$(stat -c %s "$out/$f")"
done
printf '  %-14s %10s files\n' "stills/" "$(ls "$out/stills" | wc -l)"
cat <<TEXT

Try:  ffplay $out/demo.y4m     ffplay $out/demo.mp4     ffplay $out/demo.wav
      $tool view $sample   (or: make view)
TEXT
