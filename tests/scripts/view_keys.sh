#!/bin/sh
# Drives `tqfplay view` with xdotool on the X server it runs under (xvfb-run)
# and checks what each key does, in the window's title and on the screen.
# Usage: view_keys.sh TQFPLAY FILE.tqf. Prints one line per check passed;
# exits 1 with the reason at the first that fails.
set -eu
tool=$1
file=$2
name=$(basename "$file")

fail() { echo "FAIL: $*"; kill "$pid" 2>/dev/null || true; exit 1; }
# The screen's checksum: a screenshot, grey, as raw bytes.
shot() { ffmpeg -v error -nostdin -f x11grab -i "$DISPLAY" -frames:v 1 -pix_fmt gray -f rawvideo - | md5sum; }
title() { xdotool getwindowname "$win"; }
# Waits up to 20 s for the title to match the extended regular expression $1.
wait_title() {
  tries=0
  until title | grep -Eq -- "$1"; do
    tries=$((tries + 1))
    [ "$tries" -lt 400 ] || fail "the title never matched '$1': '$(title)'"
    sleep 0.05
  done
}
key() { xdotool key --clearmodifiers "$1"; }
start() {
  "$tool" view "$@" &
  pid=$!
  win=$(xdotool search --sync --name "$name" | head -n 1)
  xdotool windowfocus --sync "$win"
}
# Two screenshots half a second apart: "same" or "different".
compare() {
  a=$(shot); sleep 0.5; b=$(shot)
  if [ "$a" = "$b" ]; then echo same; else echo different; fi
}

start "$file"
wait_title "00:0[1-8] / 00:10$"
[ "$(compare)" = different ] || fail "the picture does not move while playing"
key space
wait_title "\(paused\)$"
[ "$(compare)" = same ] || fail "the picture moves while paused"
echo "space pauses a file"
key space
wait_title "[0-9]$"
[ "$(compare)" = different ] || fail "the picture does not move after resuming"
echo "space resumes"
key Right
wait_title "00:(09|10) / 00:10 \(end\)$"
echo "right seeks 10 s, and the end shows the last position"
key Left
wait_title "00:0[0-8] / 00:10$"
echo "left seeks back and plays"
key q
wait "$pid" || fail "q: exit code $?"
echo "q quits"

start --stream "$file"
wait_title "live 00:0[1-7]$"
key space
wait_title "\(paused\)$"
before=$(title)
[ "$(compare)" = same ] || fail "the picture moves while a live stream is paused"
sleep 0.5
[ "$(title)" != "$before" ] || fail "the live stream stopped while paused: '$before'"
echo "space freezes a live stream, which runs on"
key space
wait_title "live 00:[0-9]{2}$"
key Escape
wait "$pid" || fail "Escape: exit code $?"
echo "Escape quits"
