#!/usr/bin/env bash
# The companion's long day: upgrades in a row, taking turns between two virtual units (each its
# own serial and flash) in fast timing, each made afresh with the older firmware before its turn.
# Every run must end "done" with exit 0; prints the failures and the time per unit.
# Usage: bench/soak-cli.sh [BUILD_DIR] [UPGRADES]; 200 unless given. Not part of `make bench`.
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
upgrades=${2:-200}
source "$(dirname "$0")/common.sh"
cli="$build_dir/cli/lumaxis-upgrade-cli-virtual"
[ -x "$cli" ] || { echo "bench: build the target lumaxis-upgrade-cli-virtual first" >&2; exit 1; }
serials=(3473375A3334 3473375A3335)

echo "# soak: $upgrades companion upgrades over two units, fast timing; $(note_load)"
failed=0
: >"$work_dir/times"
for i in $(seq "$upgrades"); do
  unit="$work_dir/unit$((i % 2))"
  "$unit_tool" create --dir "$unit" --serial "${serials[$((i % 2))]}" --type 3 --revision 2.2.0 \
    --timing fast --absent-ms 300 >/dev/null
  start=$(date +%s%3N)
  if LUMAXIS_VIRTUAL_UNIT="$unit" TMPDIR="$work_dir" "$cli" upgrade >"$work_dir/out" 2>&1 &&
    grep -q "2.2.0 -> 2.3.0  done" "$work_dir/out"; then
    echo $(($(date +%s%3N) - start)) >>"$work_dir/times"
  else
    failed=$((failed + 1))
    echo "run $i failed:" && cat "$work_dir/out"
  fi
done
leftover=$(find "$work_dir" -maxdepth 1 -name 'upgrade_*' | wc -l)
echo "upgrades $upgrades, failed $failed, working folders left $leftover," \
  "time per unit median $(median 0 <"$work_dir/times") ms ($(spread 0 <"$work_dir/times"))"
table_row "Soak, companion: $upgrades upgrades over two units (fast), failed / time per unit" \
  "$failed / $(median 0 <"$work_dir/times") ms" "0 failed" "$(spread 0 <"$work_dir/times")" \
  "bench/soak-cli.sh $shown_build_dir $upgrades"
