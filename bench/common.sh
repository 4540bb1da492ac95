# Helpers shared by the bench scripts; sourced, never run. Needs: $build_dir set by the caller.

bench_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
tools_dir="$bench_dir/../tools"
# The build folder as the results table shows it: relative to the source tree when inside it.
shown_build_dir=$(realpath --relative-to="$bench_dir/.." "$build_dir")
title="Lumaxis Firmware Upgrade Tool"
program="$build_dir/app/lumaxis-upgrade"
virtual_program="$build_dir/app/lumaxis-upgrade-virtual"
unit_tool="$build_dir/tools/virtual-unit/lumaxis-virtual-unit"
virtual_lib_dir="$build_dir/tools/virtual-unit/lib"

# Every run gets its own TMPDIR, so that a program ended by a signal leaves nothing in /tmp.
work_dir=$(mktemp -d "${TMPDIR:-/tmp}/lumaxis-bench.XXXXXX")
bench_cleanups=()
bench_cleanup() {
  local c
  for c in "${bench_cleanups[@]}"; do eval "$c" || true; done
  rm -rf "$work_dir"
}
trap bench_cleanup EXIT

# Prints the median of the numbers on standard input, with $1 decimals (1 unless given).
median() {
  python3 -c 'import statistics, sys; v = [float(x) for x in sys.stdin.read().split()]; print(f"{statistics.median(v):.{sys.argv[1]}f}" if v else "n/a")' "${1:-1}"
}

# Prints "N runs, min .. max" for the numbers on standard input, with $1 decimals (1 unless given).
spread() {
  python3 -c 'import sys; v = [float(x) for x in sys.stdin.read().split()]; d = int(sys.argv[1]); print(f"{len(v)} runs, {min(v):.{d}f} .. {max(v):.{d}f}" if v else "no runs")' "${1:-1}"
}

note_load() {
  echo "load average: $(cut -d' ' -f1-3 /proc/loadavg), $(nproc) cores"
}

# Appends a row to the results table $BENCH_TABLE when it is set: figure, median, goal,
# "N runs, min .. max", command. The load column is the 1-minute load average right now.
table_row() {
  [ -n "${BENCH_TABLE:-}" ] || return 0
  printf '| %s | %s | %s | %s | %s | `%s` |\n' "$1" "$2" "$3" "$4" \
    "$(cut -d' ' -f1 /proc/loadavg)" "$5" >>"$BENCH_TABLE"
}

# Lays out folder $1 as the program's temporary directory with the virtual unit's libusb: dfu-util,
# libusb-1.0.so.0 and firmware.bin.
virtual_tool_bundle() {
  mkdir -p "$1"
  cp "$build_dir/generated/dfu-util" "$1/dfu-util"
  cp "$virtual_lib_dir/libusb-1.0.so.0" "$1/libusb-1.0.so.0"
  cp "$build_dir/generated/firmware.bin" "$1/firmware.bin"
}

# The program that talks to the virtual unit: the variant that embeds its library, or else the
# normal program with the library on LD_LIBRARY_PATH, which the dynamic loader searches before
# the embedded dfu-util's RUNPATH.
virtual_command() {
  if [ -x "$virtual_program" ]; then
    echo "$virtual_program"
  else
    echo "env LD_LIBRARY_PATH=$virtual_lib_dir $program"
  fi
}

# Time in milliseconds of the first line of stamped log $1 that holds $2; empty when none does.
stamp_of() {
  grep -F -m1 -- "$2" "$1" | cut -d' ' -f1
}

# Waits until stamped log $1 holds a line with $2, for at most $3 seconds, while process $4 runs.
wait_for_line() {
  local deadline=$((SECONDS + $3))
  until grep -qsF -- "$2" "$1"; do
    if [ $SECONDS -ge "$deadline" ] || ! kill -0 "$4" 2>/dev/null; then
      echo "bench: no line \"$2\" in $1" >&2
      return 1
    fi
    sleep 0.05
  done
}

# Starts Xvfb on a free display and exports DISPLAY; it is stopped when the script ends.
start_xvfb() {
  local n=99
  while [ -e "/tmp/.X11-unix/X$n" ] || [ -e "/tmp/.X$n-lock" ]; do n=$((n + 1)); done
  export DISPLAY=":$n"
  Xvfb "$DISPLAY" -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
  local pid=$!
  bench_cleanups+=("kill $pid 2>/dev/null")
  for _ in $(seq 50); do
    xdpyinfo >/dev/null 2>&1 && return 0
    sleep 0.1
  done
  echo "bench: Xvfb did not start" >&2
  return 1
}

# Calls one_run $1 times, appending each run's line to file $2 and printing it as "run N: ...".
repeat_runs() {
  local i
  : >"$2"
  for i in $(seq "$1"); do
    # In this shell, not a pipeline's, so that a failing run stops the script and its clean-up.
    one_run >"$work_dir/run.txt"
    tee -a "$2" <"$work_dir/run.txt" | sed "s/^/run $i: /"
  done
}
