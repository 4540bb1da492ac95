#!/usr/bin/env bash
# The dfu-util runs of one upgrade, issued by hand with hyperfine against a virtual unit: the same
# tool file and the same arguments the program uses, from a folder laid out as the program's
# temporary directory. Usage: bench/hand-runs.sh [BUILD_DIR] [RUNS] [RESULT_FILE] [TIMING];
# RESULT_FILE receives one "name median_ms (spread)" line per run kind; TIMING is the unit's,
# fast (the default) or real.
set -euo pipefail
build_dir=$(cd "${1:-build}" && pwd)
runs=${2:-20}
source "$(dirname "$0")/common.sh"
result_file=${3:-$work_dir/hand-runs.txt}
timing=${4:-fast}
# Warm-up runs only where there are several: a real-timing download takes 70 s.
warmup=$((runs > 2 ? 2 : 0))

tool="$work_dir/tool"
virtual_tool_bundle "$tool"
size=$(stat -c %s "$tool/firmware.bin")
# The program reads back whole 2048-byte blocks.
read_back=$(((size + 2047) / 2048 * 2048))
export LUMAXIS_VIRTUAL_UNIT="$work_dir/unit"
"$unit_tool" create --type 3 --revision 2.2.0 --timing "$timing" >/dev/null

dfu="$tool/dfu-util"
echo "# dfu-util by hand: $dfu with the virtual unit, $timing timing; $(note_load)"
: >"$result_file"
# name, prepare command (run before each timed run, not timed), command
bench() {
  local name="$1" prepare="$2"
  shift 2
  hyperfine -N --style basic --warmup "$warmup" --runs "$runs" --prepare "$prepare" \
    --export-json "$work_dir/$name.json" -- "$*" >"$work_dir/$name.out" 2>&1 ||
    { cat "$work_dir/$name.out" >&2; return 1; }
  python3 - "$work_dir/$name.json" "$name" <<'EOF' | tee -a "$result_file"
import json, sys
r = json.load(open(sys.argv[1]))["results"][0]
print(f"{sys.argv[2]} {r['median'] * 1000:.1f} (min {r['min'] * 1000:.1f}, max {r['max'] * 1000:.1f}, {len(r['times'])} runs)")
EOF
}
# The listings while the unit is away and the one that finds it again, the identity read-out, the
# download (leave makes the unit go away: "plug" brings it back untimed) and the verification's
# read-back.
bench list_none "$unit_tool unplug" "$dfu" -d 0483 -l
bench list "$unit_tool plug" "$dfu" -d 0483 -l
bench upload_OTP "rm -f $tool/uploaded_OTP.bin" \
  "$dfu" -d ,0483:df11 -a 2 -s 0x1FFF7800:512 -U "$tool/uploaded_OTP.bin"
bench upload_FW_info "rm -f $tool/uploaded_FW_info.bin" \
  "$dfu" -d ,0483:df11 -a 0 -s 0x08000000:2048 -U "$tool/uploaded_FW_info.bin"
bench download_FW "$unit_tool plug" \
  "$dfu" -d ,0483:df11 -a 0 -s 0x08000000:leave -D "$tool/firmware.bin"
"$unit_tool" plug # back from the last leave at once
bench upload_FW "rm -f $tool/uploaded_FW.bin" \
  "$dfu" -d ,0483:df11 -a 0 -s "0x08000000:$read_back" -U "$tool/uploaded_FW.bin"
