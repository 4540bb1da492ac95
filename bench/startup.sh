#!/usr/bin/env bash
# Start-up time: from exec to "Starting sm_A" (window shown, worker started), offscreen, real-device
# mode with no unit. Usage: bench/startup.sh [BUILD_DIR] [RUNS]; prints one line per run and the median.
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
runs=${2:-20}
source "$(dirname "$0")/common.sh"

export QT_QPA_PLATFORM=offscreen
# Markers along the start-up order, first to last; the last one is the figure.
markers=("Will use real device" "Desired (embedded)" "Starting sm_A")

one_run() {
  local log="$work_dir/startup.log" tmp="$work_dir/tmp"
  rm -rf "$tmp" && mkdir -p "$tmp"
  TMPDIR="$tmp" python3 "$bench_dir/stamp-lines.py" --out "$log" --until "Starting sm_A" \
    --cpu-file "$work_dir/cpu.txt" --timeout 20 -- "$program" -l
  local m out=""
  for m in "${markers[@]}"; do out+="$(stamp_of "$log" "$m") "; done
  echo "$out$(cat "$work_dir/cpu.txt")"
}

echo "# start-up: $program -l, offscreen, no unit; $(note_load)"
one_run >/dev/null # warm the page cache
: >"$work_dir/startup.txt"
for i in $(seq "$runs"); do
  one_run | tee -a "$work_dir/startup.txt" | sed "s/^/run $i: /"
done
echo "# columns (ms from exec): ${markers[*]/#/| } | CPU time up to the last (program and self-test)"
for c in "${!markers[@]}"; do
  printf '%s: median %s ms (%s)\n' "${markers[$c]}" \
    "$(cut -d' ' -f$((c + 1)) "$work_dir/startup.txt" | median)" \
    "$(cut -d' ' -f$((c + 1)) "$work_dir/startup.txt" | spread)"
done
cpu=$((${#markers[@]} + 1))
printf 'CPU time: median %s ms (%s)\n' "$(cut -d' ' -f$cpu "$work_dir/startup.txt" | median)" \
  "$(cut -d' ' -f$cpu "$work_dir/startup.txt" | spread)"
table_row "Start-up, exec to \"Starting sm_A\"" \
  "$(cut -d' ' -f$((cpu - 1)) "$work_dir/startup.txt" | median) ms" "< 300 ms" \
  "$(cut -d' ' -f$((cpu - 1)) "$work_dir/startup.txt" | spread)" \
  "bench/startup.sh $shown_build_dir $runs"
table_row "Start-up, CPU time to \"Starting sm_A\"" \
  "$(cut -d' ' -f$cpu "$work_dir/startup.txt" | median) ms" "" \
  "$(cut -d' ' -f$cpu "$work_dir/startup.txt" | spread)" "bench/startup.sh $shown_build_dir $runs"
