#!/usr/bin/env bash
# Progress bar against the truth: a real-timing upgrade of the virtual unit under Xvfb, Install
# clicked as a person would. Every 250 ms it reads the bar (the program's last "Progress:" log
# line) beside the unit's own count of flash erased, bytes written and bytes read, and reports the
# largest gap in percentage points, whether the bar ever went back, and whether it showed 100 %
# before "Done". The unit's counts become a fraction with the same phase shares the program uses;
# its restart, which no count measures, is taken as even in time from the download's end to the
# read-back's first block. Usage: bench/progress.sh [BUILD_DIR] [RUNS]
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
runs=${2:-1}
source "$(dirname "$0")/common.sh"

# shellcheck disable=SC2207
virtual=($(virtual_command))
unit="$work_dir/unit"
start_xvfb

one_run() {
  local log="$work_dir/progress.log" samples="$work_dir/samples.txt" pidfile="$work_dir/pid"
  rm -f "$log" "$samples" "$pidfile" "$unit/progress"
  LUMAXIS_VIRTUAL_UNIT="$unit" "$unit_tool" create --type 3 --revision 2.2.0 --timing real \
    >/dev/null
  LUMAXIS_VIRTUAL_UNIT="$unit" TMPDIR="$work_dir" python3 "$bench_dir/stamp-lines.py" \
    --out "$log" --pid-file "$pidfile" --timeout 240 -- "${virtual[@]}" -l &
  local wrapper=$!
  wait_for_line "$log" "SM_B: entered B2" 30 "$wrapper"
  local program_pid window X Y WIDTH HEIGHT SCREEN
  program_pid=$(cat "$pidfile")
  bench_cleanups+=("kill $program_pid 2>/dev/null")
  window=$(xdotool search --sync --name "$title" | head -n 1)
  eval "$(xdotool getwindowgeometry --shell "$window")"
  # The sampler runs until "Done" (B6); the install button sits at (207, 417), 250 by 40.
  python3 "$bench_dir/progress-sample.py" "$log" "$unit/progress" >"$samples" &
  local sampler=$!
  xdotool mousemove "$((X + 207 + 125))" "$((Y + 417 + 20))" click 1
  wait "$sampler"
  /usr/bin/python3 "$tools_dir/close-window.py" "$window" || true
  wait "$wrapper" || true
  python3 "$bench_dir/progress-sample.py" --gap "$samples"
}

command="bench/progress.sh $shown_build_dir $runs"
echo "# progress: ${virtual[*]} -l, Xvfb, virtual unit real timing; $(note_load)"
echo "# columns: largest gap (points), samples, bar went back (0/1), 100 % before Done (0/1)," \
  "click to Done (s); erase, write, restart, read-back as the unit saw them (s, to 0.25 s);" \
  "the phase of the largest gap"
repeat_runs "$runs" "$work_dir/progress.txt"
table_row "Progress bar: largest gap to the unit's own count" \
  "$(cut -d' ' -f1 "$work_dir/progress.txt" | median 1) points" "<= 5 points" \
  "$(cut -d' ' -f1 "$work_dir/progress.txt" | spread 1)" "$command"
table_row "Progress bar: went back / 100 % before Done" \
  "$(awk '{ b += $3; e += $4 } END { print b " / " e }' "$work_dir/progress.txt")" \
  "0 / 0" "$runs runs" "$command"
