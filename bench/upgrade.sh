#!/usr/bin/env bash
# Upgrade overhead and memory: full upgrades against a virtual unit under Xvfb,
# Install clicked as a person would. The time from the click to "Done" (B6 entered), less the
# flow's fixed pauses, against the same dfu-util runs issued by hand (bench/hand-runs.sh) right
# before each upgrade, so that both see the same load; the CPU time of the program's own threads
# from the click to "Done", which load hardly changes; the peak resident memory from /usr/bin/time.
# Usage: bench/upgrade.sh [BUILD_DIR] [RUNS] [TIMING]; TIMING is the unit's, fast (the default)
# or real (a download then takes 70 s); prints one line per run and the medians.
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
runs=${2:-5}
timing=${3:-fast}
source "$(dirname "$0")/common.sh"
# Off the bus for less than four scan pauses and clearly more than three, so that every run finds
# the unit again on its fourth scan instead of some on the fifth.
absent_ms=1750
# The worker's pause before each scan while no unit is seen, as start-up sets it. Its pause while
# a unit is attached ends as soon as the flow hands it a command, so it is no fixed pause.
no_device_poll_ms=500

# shellcheck disable=SC2207
virtual=($(virtual_command))
unit="$work_dir/unit"

hand_ms() { sed -n "s/^$1 \([0-9.]*\) .*/\1/p" "$work_dir/hand.txt"; }

start_xvfb

# Prints the phases of stamped log $1 in milliseconds and the flow's share in them; each marker is
# looked for after the one before it, since "readingInfo" also marks the first read-out.
phases() {
  python3 - "$1" "$no_device_poll_ms" \
    "$(hand_ms download_FW)" "$(hand_ms list_none)" "$(hand_ms list)" "$(hand_ms upload_OTP)" \
    "$(hand_ms upload_FW_info)" "$(hand_ms upload_FW)" <<'EOF'
import sys
markers = ["Install clicked", '"-D"', "SM_A: /sig_FwDownloaded", "SM_A: /sig_readingInfo",
           "SM_A: /sig_DevConn", "SM_A: /sig_FwUploading", "SM_B: entered B6"]
stamps, i = [], 0
for line in open(sys.argv[1], errors="replace"):
    if i < len(markers) and markers[i] in line:
        stamps.append(float(line.split(" ", 1)[0]))
        i += 1
if i < len(markers):
    sys.exit(f"bench: marker {markers[i]!r} missing in {sys.argv[1]}")
no_device_poll = float(sys.argv[2])
download, list_none, list_found, otp, info, upload = (float(x) for x in sys.argv[3:9])
click, dl_start, dl_end, read_start, devconn, up_start, b6 = stamps
total = b6 - click
# Fixed pauses: one no-device pause before each scan while the unit is away. Rounded: the scans
# themselves take a few milliseconds, and a pause may end a little before its deadline.
absence = read_start - dl_end
scans = round(absence / no_device_poll)
pauses = scans * no_device_poll
hand = download + (scans - 1) * list_none + list_found + otp + info + upload
work = total - pauses
print(f"{total:.1f} {pauses:.1f} {work:.1f} {hand:.1f} {(work / hand - 1) * 100:.0f} "
      f"{dl_end - dl_start:.1f} {absence - scans * no_device_poll:.1f} {scans} "
      f"{devconn - read_start:.1f} {up_start - devconn:.1f} {b6 - up_start:.1f} "
      f"{dl_start - click:.1f} {total / hand:.3f}")
EOF
}

# CPU time in milliseconds of every thread of process $1 so far, to the microsecond; a thread
# may end between the listing and the read.
thread_cpu_ms() {
  cat /proc/"$1"/task/*/schedstat 2>/dev/null | awk '{ ns += $1 } END { printf "%.3f", ns / 1e6 }'
}

one_run() {
  local log="$work_dir/upgrade.log" tmp="$work_dir/tmp" timefile="$work_dir/time.txt"
  local pidfile="$work_dir/pid"
  rm -rf "$log" "$tmp" "$timefile" "$pidfile" && mkdir -p "$tmp"
  bash "$bench_dir/hand-runs.sh" "$build_dir" "$([ "$timing" = fast ] && echo 10 || echo 1)" \
    "$work_dir/hand.txt" "$timing" >/dev/null
  LUMAXIS_VIRTUAL_UNIT="$unit" "$unit_tool" create --type 3 --revision 2.2.0 --timing "$timing" \
    --absent-ms "$absent_ms" >/dev/null
  LUMAXIS_VIRTUAL_UNIT="$unit" TMPDIR="$tmp" python3 "$bench_dir/stamp-lines.py" --out "$log" \
    --pid-file "$pidfile" --timeout 200 -- /usr/bin/time -v -o "$timefile" "${virtual[@]}" -l &
  local wrapper=$!
  wait_for_line "$log" "SM_B: entered B2" 30 "$wrapper"
  local program_pid cpu_before cpu_after
  program_pid=$(pgrep -P "$(cat "$pidfile")")
  # Should this run fail, the program must not outlive the script: /usr/bin/time would leave it.
  bench_cleanups+=("kill $program_pid 2>/dev/null")
  local window
  window=$(xdotool search --sync --name "$title" | head -n 1)
  local X Y WIDTH HEIGHT SCREEN
  eval "$(xdotool getwindowgeometry --shell "$window")"
  # The install button sits at (207, 417), 250 by 40, at scale 1.
  cpu_before=$(thread_cpu_ms "$program_pid")
  xdotool mousemove "$((X + 207 + 125))" "$((Y + 417 + 20))" click 1
  wait_for_line "$log" "SM_B: entered B6" 150 "$wrapper"
  cpu_after=$(thread_cpu_ms "$program_pid")
  # A close request can go astray (seen once in a few dozen runs); ask again rather than wait for
  # the time-out, since the program needs only its 2 s pause to end.
  for _ in 1 2 3; do
    /usr/bin/python3 "$tools_dir/close-window.py" "$window"
    sleep 4
    kill -0 "$program_pid" 2>/dev/null || break
  done
  wait "$wrapper"
  local rss
  rss=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$timefile")
  echo "$(phases "$log") $((rss / 1024)) $(python3 -c "print(f'{$cpu_after - $cpu_before:.1f}')")"
}

command="bench/upgrade.sh $shown_build_dir $runs $timing"
echo "# upgrade: ${virtual[*]} -l, Xvfb, virtual unit $timing timing, absent ${absent_ms} ms; $(note_load)"
echo "# columns: click to Done, fixed pauses, the rest, the same runs by hand, overhead %;" \
  "download, scans beyond pauses, number of scans, read-out, read-out to read-back," \
  "read-back and compare, click to download (ms); click to Done / by hand;" \
  "peak RSS MiB; CPU time of the program's threads (ms)"
repeat_runs "$runs" "$work_dir/upgrade.txt"
names=(click_to_done fixed_pauses beyond_pauses by_hand overhead_percent download scans_beyond_pauses
  scans read_out read_out_to_read_back read_back click_to_download done_against_hand peak_rss_mib
  program_cpu_ms)
for c in "${!names[@]}"; do
  decimals=1
  [ "${names[$c]}" = done_against_hand ] && decimals=3
  printf '%s: median %s (%s)\n' "${names[$c]}" \
    "$(cut -d' ' -f$((c + 1)) "$work_dir/upgrade.txt" | median $decimals)" \
    "$(cut -d' ' -f$((c + 1)) "$work_dir/upgrade.txt" | spread $decimals)"
done
# label, column, unit, goal, decimals
rows=("Install click to Done|1|ms||1" "fixed pauses in it|2|ms||1" "beyond the pauses|3|ms||1"
  "the same dfu-util runs by hand|4|ms||1" "overhead beyond the pauses|5|%|< 10 %|0"
  "CPU time of the program's own threads|15|ms||1" "peak RSS|14|MiB|< 80 MB|0")
# The whole against the runs by hand means something only where the runs, not the scan pauses,
# make up the time.
[ "$timing" = real ] && rows+=("Install click to Done against the runs by hand|13|times|<= 1.03|3")
for row in "${rows[@]}"; do
  IFS='|' read -r label c unit goal decimals <<<"$row"
  table_row "Upgrade ($timing), $label" \
    "$(cut -d' ' -f"$c" "$work_dir/upgrade.txt" | median "$decimals") $unit" "$goal" \
    "$(cut -d' ' -f"$c" "$work_dir/upgrade.txt" | spread "$decimals")" "$command"
done
