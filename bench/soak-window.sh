#!/usr/bin/env bash
# A long day at a service bench: the window under Xvfb with a virtual unit unplugged and plugged
# again every 2 s, and every tenth cycle a fresh unit with the older firmware that is upgraded by a
# click. Resident memory, open files and threads after the first minute and at the end must stay
# flat. Without the log window, as users run it (it keeps every line; LOG_WINDOW=1 adds -l).
# Usage: bench/soak-window.sh [BUILD_DIR] [MINUTES]; 30 minutes unless given. Not part of
# `make bench`.
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
minutes=${2:-30}
source "$(dirname "$0")/common.sh"
# shellcheck disable=SC2207
virtual=($(virtual_command))
export LUMAXIS_VIRTUAL_UNIT="$work_dir/unit"
log="$work_dir/soak.log"

fresh_unit() { "$unit_tool" create --type 3 --revision 2.2.0 --timing fast --absent-ms 300 >/dev/null; }
seen() { grep -cF -- "$1" "$log" || true; }
# Waits up to $2 seconds until stamped log line $1 has been seen more than $3 times.
wait_count() {
  local deadline=$((SECONDS + $2))
  until [ "$(seen "$1")" -gt "$3" ]; do
    [ $SECONDS -lt "$deadline" ] || return 1
    sleep 0.05
  done
}
# Resident KiB, open file descriptors, threads of process $1.
usage_of() {
  echo "$(awk '/^VmRSS/ {print $2}' "/proc/$1/status") $(find "/proc/$1/fd" -mindepth 1 | wc -l)" \
    "$(find "/proc/$1/task" -mindepth 1 -maxdepth 1 | wc -l)"
}

start_xvfb
fresh_unit
mkdir -p "$work_dir/tmp"
TMPDIR="$work_dir/tmp" python3 "$bench_dir/stamp-lines.py" --out "$log" --pid-file "$work_dir/pid" \
  --timeout $((minutes * 60 + 600)) -- "${virtual[@]}" ${LOG_WINDOW:+-l} &
wrapper=$!
wait_for_line "$log" "SM_B: entered B2" 30 "$wrapper"
pid=$(cat "$work_dir/pid")
bench_cleanups+=("kill $pid 2>/dev/null")
window=$(xdotool search --sync --name "$title" | head -n 1)
eval "$(xdotool getwindowgeometry --shell "$window")"

echo "# soak: ${virtual[*]} ${LOG_WINDOW:+-l}, Xvfb, $minutes min, a cycle every 2 s, an upgrade every tenth; $(note_load)"
cycle=0 upgrades=0 failed=0 first="" last=""
end=$((SECONDS + minutes * 60))
while [ $SECONDS -lt $end ]; do
  cycle=$((cycle + 1))
  started=$SECONDS
  offered=$(seen "SM_B: entered B2")
  read_out=$(seen "SM_A: /sig_DevConn")
  "$unit_tool" unplug >/dev/null
  sleep 1
  if [ $((cycle % 10)) -eq 0 ]; then
    fresh_unit
    done_before=$(seen "SM_B: entered B6")
    if wait_count "SM_B: entered B2" 20 "$offered"; then
      # The install button sits at (207, 417), 250 by 40, at scale 1.
      xdotool mousemove "$((X + 207 + 125))" "$((Y + 417 + 20))" click 1
    fi
    upgrades=$((upgrades + 1))
    wait_count "SM_B: entered B6" 60 "$done_before" || failed=$((failed + 1))
  else
    "$unit_tool" plug >/dev/null
    # Taken with the unit read (its revision is the carried one after an upgrade), the worker
    # between scans. The first after a minute: Qt's thread pool lets its idle threads go after
    # 30 s, and start-up's scaling made some.
    if wait_count "SM_A: /sig_DevConn" 2 "$read_out"; then
      sleep 0.2
      last=$(usage_of "$pid")
      [ -n "$first" ] || [ $cycle -lt 30 ] || first=$last
    fi
  fi
  sleep $((started + 2 > SECONDS ? started + 2 - SECONDS : 0))
done
/usr/bin/python3 "$tools_dir/close-window.py" "$window"
wait "$wrapper" || true
echo "cycles $cycle, upgrades $upgrades, failed $failed"
echo "start (after a minute): RSS ${first%% *} KiB, files and threads ${first#* }"
echo "end: RSS ${last%% *} KiB, files and threads ${last#* }"
table_row "Soak, window${LOG_WINDOW:+ with -l}: RSS KiB / open files / threads, start -> end ($cycle cycles, $upgrades upgrades, $failed failed)" \
  "${first// / \/ } -> ${last// / \/ }" "flat" "1 run, $minutes min" \
  "bench/soak-window.sh $shown_build_dir $minutes"
