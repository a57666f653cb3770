#!/bin/sh
# view_keys.sh TQFPLAY FILE.tqf: drives `tqfplay view` with xdotool under xvfb-run and
# checks each key in the window's title and on the screen. Prints a line per check
# passed; exits 1 with the reason at the first failure. Each wait is bounded.
set -eu
tool=$1 file=$2 name=$(basename "$2") pid= win=

fail() { echo "FAIL: $*"; kill "$pid" 2>/dev/null || true; exit 1; }
# The screen's checksum: a screenshot, grey, as raw bytes.
shot() { ffmpeg -v error -nostdin -f x11grab -i "$DISPLAY" -frames:v 1 -pix_fmt gray -f rawvideo - | md5sum; }
title() { xdotool getwindowname "$win" 2>/dev/null || true; }
# Evaluates $2 until it succeeds; fails, naming $1, after 30 s.
until_true() {
  end=$(($(date +%s) + 30))
  until eval "$2"; do
    [ "$(date +%s)" -lt "$end" ] || fail "no $1 after 30 s (title '$(title)')"
    sleep 0.05
  done
}
wait_title() { until_true "title matching '$1'" "title | grep -Eq -- '$1'"; }
moves() { a=$(shot); until_true "$1" '[ "$(shot)" != "$a" ]'; }
# A frame already on its way when the pause lands may still be drawn, so the
# screen must come to rest: two screenshots half a second apart that agree.
still() { a=$(shot); until_true "$1" 'sleep 0.5; b=$(shot); [ "$b" = "$a" ] || { a=$b; false; }'; }
key() { xdotool key --clearmodifiers "$1"; }
# The viewer runs under a watchdog: `timeout` ends it (and the wait for it) after 120 s.
start() {
  timeout 120 "$tool" view "$@" &
  pid=$!
  until_true window 'win=$(xdotool search --name "$name" | head -n 1); [ -n "$win" ]'
  timeout 30 xdotool windowfocus --sync "$win" || fail "the window never took the focus"
}
# Key $1 must end the viewer with exit code 0.
quits() { key "$1"; wait "$pid" || fail "$1: exit code $?"; }

start "$file"
wait_title "00:0[1-8] / 00:10$"
moves "moving picture while playing"
key space
wait_title "\(paused\)$"
still "still picture while paused"
echo "space pauses a file"
key space
wait_title "[0-9]$"
moves "moving picture after resuming"
echo "space resumes"
key Right
wait_title "00:(09|10) / 00:10 \(end\)$"
echo "right seeks 10 s, and the end shows the last position"
quits q
echo "q quits"

# Steps: the picture a step forward and back returns to is the paused one.
frame() { title | sed -n 's/.* frame \([0-9]*\) (paused)$/\1/p'; }
start "$file"
wait_title "00:0[1-7] / 00:10$"
key space
wait_title "frame [0-9]+ \(paused\)$"
still "still picture before stepping"
paused=$(shot) n=$(frame)
key period
wait_title "frame $((n + 1)) \(paused\)$"
until_true "a new picture after ." '[ "$(shot)" != "$paused" ]'
key comma
wait_title "frame $n \(paused\)$"
until_true "the paused picture after , again" '[ "$(shot)" = "$paused" ]'
echo ". and , step a paused file by one frame"
# 8x shows key frames alone: the run ends on the last key frame, 8 s in,
# where the file player ends at 10 s.
key bracketright; key bracketright; key bracketright
wait_title " 8x frame $n \(paused\)$"
key Left
wait_title "00:00 / 00:10 8x frame 0 \(paused\)$"
key space
wait_title "00:08 / 00:10 8x \(end\)$"
echo "] speeds up to 8x, which shows key frames to the last"
# 4x plays the whole file again in 2.5 s, where 1x takes 10 s.
key bracketleft
wait_title " 4x \(end\)$"
began=$(date +%s)
key space
wait_title "00:(09|10) / 00:10 4x \(end\)$"
[ $(($(date +%s) - began)) -le 7 ] || fail "4x took $(($(date +%s) - began)) s for 10 s"
echo "[ slows down to 4x, which plays every frame 4 times as fast"
quits q

start --stream "$file"
wait_title "live 00:0[1-7]$"
key space
wait_title "\(paused\)$"
before=$(title)
still "still picture while a live stream is paused"
until_true "live position running on while paused" '[ "$(title)" != "$before" ]'
echo "space freezes a live stream, which runs on"
key space
wait_title "live 00:[0-9]{2}$"
quits Escape
echo "Escape quits"
