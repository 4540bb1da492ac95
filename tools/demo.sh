#!/usr/bin/env bash
# Runs lumaxis-upgrade-virtual in real-device mode: the real dfu-util against a freshly made
# virtual unit (tools/virtual-unit) of the right product with an older firmware, in realistic
# timing. With a display the user clicks through the upgrade; without one the script runs it
# under Xvfb, clicks Install as a person would, saves a screenshot of each state and of each phase
# of the progress bar, and ends by itself.
set -euo pipefail

build_dir=$(cd "${1:-build}" && pwd)
program="$build_dir/app/lumaxis-upgrade-virtual"
unit_tool="$build_dir/tools/virtual-unit/lumaxis-virtual-unit"
title="Lumaxis Firmware Upgrade Tool"

export LUMAXIS_VIRTUAL_UNIT="$build_dir/demo-unit"
"$unit_tool" create --type 3 --revision 2.2.0 --timing real >/dev/null

if [ -n "${DISPLAY:-}" ] || [ -n "${WAYLAND_DISPLAY:-}" ]; then
  echo "Starting the upgrade tool against a virtual unit ($LUMAXIS_VIRTUAL_UNIT);" \
       "click Install, close the window to quit."
  exec "$program" -S
fi

out_dir="$build_dir/demo"
rm -rf "$out_dir"
mkdir -p "$out_dir"
log="$out_dir/log.txt"

display_number=99
while [ -e "/tmp/.X11-unix/X$display_number" ] || [ -e "/tmp/.X$display_number-lock" ]; do
  display_number=$((display_number + 1))
done
export DISPLAY=":$display_number"
Xvfb "$DISPLAY" -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
xvfb_pid=$!
program_pid=""
cleanup() {
  [ -n "$program_pid" ] && kill "$program_pid" 2>/dev/null || true
  kill "$xvfb_pid" 2>/dev/null || true
}
trap cleanup EXIT
for _ in $(seq 50); do
  xdpyinfo >/dev/null 2>&1 && break
  sleep 0.1
done

echo "No display found: running the demo under Xvfb ($DISPLAY); the log goes to $log"
# The cable comes later, as in the steps the window shows, so the first shot has no unit.
"$unit_tool" unplug >/dev/null
"$program" -S -l >"$out_dir/stdout.txt" 2>"$log" &
program_pid=$!

# Waits until the log shows a line holding $1, for at most $2 seconds.
wait_for() {
  local deadline=$((SECONDS + $2))
  until grep -q -- "$1" "$log"; do
    if [ $SECONDS -ge $deadline ] || ! kill -0 "$program_pid" 2>/dev/null; then
      echo "The demo did not reach: $1 (see $log)" >&2
      exit 1
    fi
    sleep 0.2
  done
}

shot() {
  import -window root "$out_dir/$1.png"
  echo "  $out_dir/$1.png"
}

echo "Screenshots:"
wait_for "SM_B: entered B1" 30
window=$(xdotool search --sync --name "$title" | head -n 1)
sleep 1.5
shot 1-no-unit
"$unit_tool" plug >/dev/null
wait_for "SM_B: entered B2" 30
sleep 0.5
shot 2-upgrade-offered

eval "$(xdotool getwindowgeometry --shell "$window")"
# The install button sits at (207, 417), 250 by 40, at scale 1.
xdotool mousemove "$((X + 207 + 125))" "$((Y + 417 + 20))" click 1
# One shot a phase of the bar, each as soon as the program reports it.
wait_for "progress_erasing" 10
sleep 3
shot 3-erasing
wait_for "Progress: [5-9][0-9] % progress_writing" 90
shot 4-writing
wait_for "progress_restarting" 90
shot 5-restarting
wait_for "progress_verifying" 60
shot 6-verifying
wait_for "SM_B: entered B6" 60
sleep 1
shot 7-done

/usr/bin/python3 "$(dirname "$0")/close-window.py" "$window"
wait "$program_pid" && status=0 || status=$?
program_pid=""
image="$build_dir/generated/firmware.bin"
if cmp -s -n "$(stat -c %s "$image")" "$image" "$LUMAXIS_VIRTUAL_UNIT/flash.bin"; then
  echo "The program ended with status $status; the unit's flash now holds the embedded image."
else
  echo "The program ended with status $status, but the unit's flash differs from the image." >&2
  status=1
fi
exit "$status"
