#!/usr/bin/env bash
# Builds the program and its tests under a sanitizer in a tree of its own and runs the suite there.
# Usage: tools/sanitizers/test.sh address|thread BUILD_DIR [JOBS] [ctest arguments...]
#   address: AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer, any report fails
#   thread:  ThreadSanitizer
# ThreadSanitizer reports from inside Qt, not from our code, are silenced in tsan.supp beside
# this script, with the reason.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
mode=${1:?address or thread}
build=${2:?build directory}
jobs=${3:-$(nproc)}
shift $(( $# < 3 ? $# : 3 ))

case $mode in
address) flags="-fsanitize=address,undefined -fno-sanitize-recover=undefined" ;;
thread) flags="-fsanitize=thread" ;;
*) echo "$0: unknown mode $mode" >&2; exit 2 ;;
esac
flags="$flags -fno-omit-frame-pointer -g"

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
# Executables only: the one shared library, the virtual unit's libusb, must stay plain.
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="$flags" -DCMAKE_SHARED_LINKER_FLAGS=""

# Every child the tests start (the program, the fakes) inherits these, and so do the host tools
# the build runs; a report ends the process with status 66, so a test or the build notices.
common="exitcode=66:print_stacktrace=1"
export ASAN_OPTIONS="$common:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="$common:halt_on_error=1"
# die_after_fork=0: QProcess forks from threaded programs and only execs in the child.
export TSAN_OPTIONS="$common:halt_on_error=1:second_deadlock_stack=1:die_after_fork=0:suppressions=$here/tsan.supp:print_suppressions=0"
cmake --build "$build" -j "$jobs"

# The package test would wrap sanitized binaries in a .deb; it is about packaging, not memory. The
# desktop tests run the program on an X server, where a system library trips the sanitizer before
# any code of ours runs (tests/app/CMakeLists.txt); the same program runs offscreen everywhere else.
cd "$build"
ctest --output-on-failure -j "$jobs" -LE "slow|packaging|desktop" "$@"
