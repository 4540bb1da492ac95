#!/usr/bin/env bash
# Runs each fuzz target for SECONDS, one after another on one core, and sums up what they did.
# Usage: fuzz/run.sh BUILD_DIR SECONDS [TARGET...]   (targets: listing progress otpinfo fwinfo settings)
# The corpus each run grows is kept in BUILD_DIR/fuzz-work/TARGET/corpus for the next run; inputs
# that crash land beside it as crash-*, leak-*, timeout-* files.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
seconds=$2
shift 2
targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
    targets=(listing progress otpinfo fwinfo settings)
fi

work=$build/fuzz-work
seeds=$work/seeds
rm -rf "$seeds"
mkdir -p "$seeds/settings"
"$here/make-seeds.sh" "$build/tools/imagetool/lumaxis-imagetool" "$seeds" || exit 1
cp "$here/../resources/settings_GUI.json" "$seeds/settings/"

failed=0
summary=()
for t in "${targets[@]}"; do
    exe=$build/fuzz/fuzz_$t
    if [ ! -x "$exe" ]; then
        echo "fuzz/run.sh: no target $exe" >&2
        exit 2
    fi
    mkdir -p "$work/$t/corpus" "$seeds/$t"
    inputs=("$work/$t/corpus" "$seeds/$t")
    if [ -d "$here/corpus/$t" ]; then
        inputs+=("$here/corpus/$t")
    fi
    options=(-max_total_time="$seconds" -timeout=10 -print_final_stats=1
             -artifact_prefix="$work/$t/")
    if [ -f "$here/$t.dict" ]; then
        options+=(-dict="$here/$t.dict")
    fi
    log=$work/$t/last-run.log
    echo "== fuzz_$t for ${seconds}s"
    "$exe" "${options[@]}" "${inputs[@]}" >"$log" 2>&1
    status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    corpus=$(find "$work/$t/corpus" -type f | wc -l)
    if [ "$status" -ne 0 ]; then
        failed=1
        grep -E "^(==[0-9]+==ERROR|SUMMARY|broken rule|fatal)|runtime error" "$log" | head -5
        summary+=("fuzz_$t: FAILED (exit $status) after ${runs:-?} executions; see $log")
    else
        summary+=("fuzz_$t: ${runs:-?} executions, no crash, corpus $corpus inputs")
    fi
done

printf '%s\n' "${summary[@]}"
exit "$failed"
