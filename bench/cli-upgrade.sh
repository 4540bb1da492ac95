#!/usr/bin/env bash
# The companion's `upgrade` against the same dfu-util runs issued by hand: write, wait for the
# unit to return (a listing every 100 ms, as the companion polls), read back, on a virtual unit
# made afresh before each; the two alternate so that both see the same load.
# Usage: bench/cli-upgrade.sh [BUILD_DIR] [RUNS] [TIMING]; TIMING is the unit's, real (the
# default: a download takes 70 s) or fast; prints one line per run and the medians.
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
runs=${2:-3}
timing=${3:-real}
source "$(dirname "$0")/common.sh"
cli="$build_dir/cli/lumaxis-upgrade-cli-virtual"
[ -x "$cli" ] || { echo "bench: build the target lumaxis-upgrade-cli-virtual first" >&2; exit 1; }

export LUMAXIS_VIRTUAL_UNIT="$work_dir/unit"
serial=3473375A3334
tool="$work_dir/tool"
virtual_tool_bundle "$tool"
size=$(stat -c %s "$tool/firmware.bin")
whole=$(((size + 2047) / 2048 * 2048))
dfu="$tool/dfu-util"

fresh_unit() { "$unit_tool" create --type 3 --revision 2.2.0 --timing "$timing" >/dev/null; }
now_ms() { date +%s%3N; }

by_hand() {
  "$dfu" -d ,0483:df11 -a 0 -s 0x08000000:leave -D "$tool/firmware.bin" >/dev/null 2>&1
  until "$dfu" -d 0483 -l 2>/dev/null | grep -q "serial=\"$serial\""; do sleep 0.1; done
  rm -f "$tool/back.bin"
  "$dfu" -d ,0483:df11 -a 0 -s "0x08000000:$whole" -U "$tool/back.bin" >/dev/null
  cmp -s -n "$size" "$tool/firmware.bin" "$tool/back.bin" || { echo "bench: hand read-back differs" >&2; exit 1; }
}

companion() {
  TMPDIR="$work_dir" "$cli" upgrade >"$work_dir/cli.out" 2>"$work_dir/cli.err" ||
    { cat "$work_dir/cli.err" >&2; exit 1; }
  grep -q "2.2.0 -> 2.3.0  done" "$work_dir/cli.out"
}

echo "# lumaxis-upgrade-cli upgrade against dfu-util by hand, $timing timing; $(note_load)"
: >"$work_dir/hand" && : >"$work_dir/cli" && : >"$work_dir/ratio"
for run in $(seq "$runs"); do
  fresh_unit
  start=$(now_ms); by_hand; hand=$(($(now_ms) - start))
  fresh_unit
  start=$(now_ms); companion; took=$(($(now_ms) - start))
  ratio=$(python3 -c "print(f'{$took / $hand:.3f}')")
  echo "run $run: by hand $hand ms, companion $took ms, ratio $ratio"
  echo "$hand" >>"$work_dir/hand"; echo "$took" >>"$work_dir/cli"; echo "$ratio" >>"$work_dir/ratio"
done
echo "median: by hand $(median 0 <"$work_dir/hand") ms, companion $(median 0 <"$work_dir/cli") ms, ratio $(median 3 <"$work_dir/ratio") ($(spread 3 <"$work_dir/ratio"))"
table_row "companion upgrade / by hand ($timing)" "$(median 3 <"$work_dir/ratio")" "≤ 1.03" \
  "$(spread 3 <"$work_dir/ratio")" "bench/cli-upgrade.sh $shown_build_dir $runs $timing"
