#!/usr/bin/env bash
# Prints line coverage per source folder from a build made with
# -DTQF_COVERAGE=ON after its tests have run: tools/coverage.sh BUILD_FOLDER
set -euo pipefail
build=${1:-build-coverage}
root=$(cd "$(dirname "$0")/.." && pwd)
summary=$(mktemp)
log=$(mktemp)
trap 'rm -f "$summary" "$log"' EXIT
# Counters bumped by several threads at once can read negative in gcov's
# branch lines; the line counts used here are not affected.
if ! gcovr --root "$root" --object-directory "$root/$build" --json-summary "$summary" \
    --filter "$root/(codelib|container|codecs|player|plugins|tools)/" \
    --gcov-ignore-parse-errors "$root/$build" >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
python3 - "$summary" <<'PY'
import json, sys
folders = ["codelib", "container", "codecs", "player", "plugins", "tools"]
totals = {f: [0, 0] for f in folders}
for entry in json.load(open(sys.argv[1]))["files"]:
    top = entry["filename"].split("/")[0]
    if top in totals:
        totals[top][0] += entry["line_covered"]
        totals[top][1] += entry["line_total"]
print(f"{'folder':<10} {'lines':>7} {'covered':>8} {'cover':>7}")
for folder, (covered, total) in totals.items():
    if total:
        print(f"{folder:<10} {total:>7} {covered:>8} {100.0 * covered / total:>6.1f}%")
PY
