#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build folder for SECONDS each, on a working
# copy of its committed seed corpus. Prints each target's final figures; a
# finding (crash, leak, timeout) ends the run with its report and exit 1.
#   tools/fuzz.sh SECONDS [BUILD]
set -euo pipefail
seconds=${1:?seconds}
build=${2:-build-fuzz}
mkdir -p "$build/artifacts" "$build/logs" "$build/scratch"
export TMPDIR="$PWD/$build/scratch"
for source in fuzz/fuzz_*.cpp; do
  target=$(basename "$source" .cpp)
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  if [ -d "fuzz/corpus/$target" ]; then cp -n fuzz/corpus/"$target"/* "$corpus"/; fi
  log="$build/logs/$target.log"
  if ! "$build/$target" -max_total_time="$seconds" -rss_limit_mb=4096 -timeout=30 \
       -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" \
       "$corpus" > "$log" 2>&1; then
    echo "fuzz: $target found a fault (artifacts in $build/artifacts):"
    tail -n 60 "$log"
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  cover=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -n 1)
  echo "fuzz: $target ${seconds}s: $runs runs, $cover, corpus $(ls "$corpus" | wc -l)"
done
rm -rf "$build/scratch"
