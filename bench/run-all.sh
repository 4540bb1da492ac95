#!/usr/bin/env bash
# Runs every benchmark against an existing build and writes the results table (Markdown) to
# BUILD_DIR/bench-results.md, then prints it. Usage: bench/run-all.sh [BUILD_DIR]; the run counts
# and the idle time per run come from BENCH_STARTUP_RUNS (20), BENCH_IDLE_RUNS (3),
# BENCH_IDLE_SECONDS (20), BENCH_UPGRADE_RUNS (5, fast timing) and BENCH_REAL_UPGRADE_RUNS (1, the
# unit in real timing, about 2.5 minutes each with its hand runs) and BENCH_PROGRESS_RUNS (1, real
# timing, about 80 s each).
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
bench_dir=$(cd "$(dirname "$0")" && pwd)
table="$build_dir/bench-results.md"

{
  echo "Taken $(date -u '+%Y-%m-%d %H:%M UTC') on $(nproc) cores of" \
    "$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)," \
    "$(awk '/MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo)," \
    "$(. /etc/os-release && echo "$PRETTY_NAME"), Linux $(uname -r);" \
    "load average at the start $(cut -d' ' -f1-3 /proc/loadavg)."
  echo
  echo "| Figure | Median | Goal | Runs, min .. max | Load | Command |"
  echo "|---|---|---|---|---|---|"
} >"$table"
export BENCH_TABLE="$table"

bash "$bench_dir/startup.sh" "$build_dir" "${BENCH_STARTUP_RUNS:-20}"
bash "$bench_dir/idle.sh" "$build_dir" "${BENCH_IDLE_RUNS:-3}" "${BENCH_IDLE_SECONDS:-20}"
bash "$bench_dir/upgrade.sh" "$build_dir" "${BENCH_UPGRADE_RUNS:-5}" fast
bash "$bench_dir/upgrade.sh" "$build_dir" "${BENCH_REAL_UPGRADE_RUNS:-1}" real
bash "$bench_dir/progress.sh" "$build_dir" "${BENCH_PROGRESS_RUNS:-1}"

echo
cat "$table"
