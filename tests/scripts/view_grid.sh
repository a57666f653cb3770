#!/bin/sh
# view_grid.sh TQFPLAY OUT FILE1 FILE2 CAMERA1 CAMERA2: under xvfb-run, serves the two
# camera files with `tqfplay serve` and shows all four in a `tqfplay view` grid (the
# files first), then takes screenshots of its window into OUT: grid.png with every tile
# showing, enlarged.png after key 2, restored.png after Escape; q quits and the viewer
# writes OUT/snapshot.png. Prints a line per step passed; exits 1 with the reason at
# the first failure. The server is down when the viewer starts, and later stops and
# starts again on its port: the cameras' tiles must connect by themselves each time.
# Each wait is bounded.
set -eu
tool=$1 out=$2 file1=$3 file2=$4 pid= server= win=

fail() { echo "FAIL: $*"; kill "$pid" "$server" 2>/dev/null || true; exit 1; }
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
# The window's pixels as a PNG at $1.
grab() {
  eval "$(xdotool getwindowgeometry --shell "$win")"
  ffmpeg -v error -nostdin -y -f x11grab -draw_mouse 0 -video_size "${WIDTH}x$HEIGHT" -i "$DISPLAY+$X,$Y" \
    -frames:v 1 "$1"
}
sum() { grab "$out/sum.png" && md5sum < "$out/sum.png"; }
# The window at rest: two screenshots half a second apart that agree.
still() { a=$(sum); until_true "$1" 'sleep 0.5; b=$(sum); [ "$b" = "$a" ] || { a=$b; false; }'; }

# Both servers and viewers run under watchdogs: `timeout` ends them after 120 s.
timeout 120 "$tool" serve "$5" "$6" --port 0 --bind 127.0.0.1 2>"$out/serve.log" &
server=$!
until_true "second channel" 'grep -q "channel 2 " "$out/serve.log"'
port=$(sed -n 's|.*on tcp://127.0.0.1:\([0-9]*\)/1$|\1|p' "$out/serve.log")
[ -n "$port" ] || fail "no port in: $(cat "$out/serve.log")"
serve() {
  timeout 120 "$tool" serve "$5" "$6" --port "$port" --bind 127.0.0.1 2>>"$out/serve.log" &
  server=$!
}
kill "$server"
wait "$server" || true

TQFPLAY_VIEW_SNAPSHOT=$out/snapshot.png timeout 120 "$tool" view "$file1" "$file2" \
  "tcp://127.0.0.1:$port/1" "tcp://127.0.0.1:$port/2" 2>"$out/view.log" &
pid=$!
until_true window 'win=$(xdotool search --name "4 sources" | head -n 1); [ -n "$win" ]'
timeout 30 xdotool windowfocus --sync "$win" || fail "the window never took the focus"
wait_title "4 sources, 2 showing$"
serve "$@"
wait_title "4 sources, 4 showing$"
echo "cameras down at the start show once the server is up"
grab "$out/grid.png"
echo "four tiles show pictures"
xdotool key --clearmodifiers 2
wait_title "^$file2 - "
still "enlarged tile at rest"
grab "$out/enlarged.png"
echo "key 2 enlarges the second tile"
xdotool key --clearmodifiers Escape
wait_title "4 sources, 4 showing$"
grab "$out/restored.png"
echo "Escape restores the grid"
kill "$server"
wait_title "4 sources, 2 showing$"
echo "the cameras' tiles lose their pictures when the server stops"
serve "$@"
wait_title "4 sources, 4 showing$"
echo "and show them again when it is back"
xdotool key --clearmodifiers q
wait "$pid" || fail "q: exit code $?"
kill "$server"
echo "q quits"
