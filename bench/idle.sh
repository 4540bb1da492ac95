#!/usr/bin/env bash
# Idle cost: CPU time of the program and its dfu-util children per minute, offscreen, (1) real-device
# mode with no unit, (2) the virtual bus with its unit unplugged, (3) a virtual unit that stays
# attached (older firmware: upgrade offered, nobody clicks).
# Usage: bench/idle.sh [BUILD_DIR] [RUNS] [SECONDS]; prints one line per run and the medians.
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
runs=${2:-3}
seconds=${3:-60}
source "$(dirname "$0")/common.sh"

export QT_QPA_PLATFORM=offscreen
ticks_per_second=$(getconf CLK_TCK)

# utime stime cutime cstime of process $1 in clock ticks; cutime and cstime hold the children
# that have ended and been waited for, which QProcess does for every dfu-util run.
cpu_ticks() {
  local fields
  read -r -a fields <<<"$(sed 's/^.*) //' "/proc/$1/stat")"
  echo "${fields[11]} ${fields[12]} ${fields[13]} ${fields[14]}"
}

# Runs "$@" for the settle time and $seconds more; prints its own and its children's CPU
# in percent of one core over those $seconds.
measure() {
  local ready="$1"
  shift
  local log="$work_dir/idle.log" tmp="$work_dir/tmp" pidfile="$work_dir/pid"
  rm -rf "$log" "$tmp" "$pidfile" && mkdir -p "$tmp"
  TMPDIR="$tmp" python3 "$bench_dir/stamp-lines.py" --out "$log" --pid-file "$pidfile" \
    --timeout $((seconds + 60)) -- "$@" -l &
  local wrapper=$!
  until [ -s "$pidfile" ]; do sleep 0.05; done
  local pid
  pid=$(cat "$pidfile")
  wait_for_line "$log" "$ready" 30 "$pid"
  sleep 5 # the first cycles read the unit; idling starts after
  local a b
  a=($(cpu_ticks "$pid"))
  sleep "$seconds"
  b=($(cpu_ticks "$pid"))
  kill "$pid"
  wait "$wrapper" || true
  python3 - "$ticks_per_second" "$seconds" "${a[@]}" "${b[@]}" <<'EOF'
import sys
hz, seconds = float(sys.argv[1]), float(sys.argv[2])
a, b = [int(x) for x in sys.argv[3:7]], [int(x) for x in sys.argv[7:11]]
own = (b[0] + b[1] - a[0] - a[1]) / hz / seconds * 100
children = (b[2] + b[3] - a[2] - a[3]) / hz / seconds * 100
print(f"{own + children:.2f} {own:.2f} {children:.2f}")
EOF
}

# A share of one core is also the CPU time per minute: 1 % is 600 ms.
report() {
  local name="$1" file="$2" total
  total=$(cut -d' ' -f1 "$file" | median 2)
  printf '%s: median %s %% of one core (program %s %%, dfu-util %s %%; total %s)\n' "$name" \
    "$total" "$(cut -d' ' -f2 "$file" | median 2)" \
    "$(cut -d' ' -f3 "$file" | median 2)" "$(cut -d' ' -f1 "$file" | spread 2)"
  table_row "Idle, $name" "$total % ($(python3 -c "print(round($total * 600))") ms CPU/min)" \
    "< 1 %" "$(cut -d' ' -f1 "$file" | spread 2), ${seconds} s each" \
    "bench/idle.sh $shown_build_dir $runs $seconds"
}

# shellcheck disable=SC2207
virtual=($(virtual_command))
unit="$work_dir/unit"
echo "# idle: ${seconds} s per run after start-up; $(note_load)"
echo "# columns: total % of one core, program %, dfu-util children %"

: >"$work_dir/none.txt"
for i in $(seq "$runs"); do
  measure "Starting sm_A" "$program" | tee -a "$work_dir/none.txt" | sed "s/^/no unit, run $i: /"
done

: >"$work_dir/unplugged.txt"
for i in $(seq "$runs"); do
  "$unit_tool" --dir "$unit" create --type 3 --revision 2.2.0 --unplugged >/dev/null
  LUMAXIS_VIRTUAL_UNIT="$unit" measure "Starting sm_A" "${virtual[@]}" |
    tee -a "$work_dir/unplugged.txt" | sed "s/^/virtual bus, unit unplugged, run $i: /"
done

: >"$work_dir/attached.txt"
for i in $(seq "$runs"); do
  "$unit_tool" --dir "$unit" create --type 3 --revision 2.2.0 >/dev/null
  LUMAXIS_VIRTUAL_UNIT="$unit" measure "SM_B: entered B2" "${virtual[@]}" |
    tee -a "$work_dir/attached.txt" | sed "s/^/unit attached, run $i: /"
done

echo "# program: $program; virtual: ${virtual[*]}; $(note_load)"
report "no unit (real-device mode)" "$work_dir/none.txt"
report "virtual bus, unit unplugged" "$work_dir/unplugged.txt"
report "unit attached, upgrade offered" "$work_dir/attached.txt"
