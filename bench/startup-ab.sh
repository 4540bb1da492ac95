#!/usr/bin/env bash
# Start-up of two or more builds of the program, run in turn so that all see the same load: the
# median time from exec to "Starting sm_A" and CPU time of each, as bench/startup.sh takes them.
# Usage: bench/startup-ab.sh RUNS PROGRAM PROGRAM...; each PROGRAM an app/lumaxis-upgrade file.
set -euo pipefail
runs=$1
shift
build_dir=$(dirname "$0")/.. # common.sh wants one; the programs are given
source "$(dirname "$0")/common.sh"
export QT_QPA_PLATFORM=offscreen

echo "# start-up, $runs runs of each in turn: $*; $(note_load)"
for _ in $(seq "$runs"); do
  for k in $(seq $#); do
    rm -rf "$work_dir/tmp" && mkdir -p "$work_dir/tmp"
    TMPDIR="$work_dir/tmp" python3 "$bench_dir/stamp-lines.py" --out "$work_dir/log" \
      --until "Starting sm_A" --cpu-file "$work_dir/cpu" --timeout 20 -- "${!k}" -l
    echo "$(stamp_of "$work_dir/log" "Starting sm_A") $(cat "$work_dir/cpu")" >>"$work_dir/$k.txt"
  done
done
for k in $(seq $#); do
  echo "${!k}: median $(cut -d' ' -f1 "$work_dir/$k.txt" | median) ms ($(cut -d' ' -f1 \
    "$work_dir/$k.txt" | spread)), CPU $(cut -d' ' -f2 "$work_dir/$k.txt" | median) ms"
done
