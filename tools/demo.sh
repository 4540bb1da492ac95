#!/usr/bin/env bash
# Runs the program from the build tree in simulator mode.
set -euo pipefail
build_dir=${1:-build}
exec "$build_dir/app/lumaxis-upgrade" -s
