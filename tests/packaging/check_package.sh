#!/usr/bin/env bash
# Builds the Debian package, checks what it holds, installs it with dpkg into an empty root folder
# and runs the installed program offscreen through a whole upgrade of the installed simulator.
# Usage: check_package.sh BUILD_DIR CLICK_HELPER (click_install.cpp, built as a shared module)
set -euo pipefail

build_dir=$1
click_helper=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/lumaxis-package.XXXXXX")
pid=""
cleanup() {
    if [[ -n $pid ]]; then
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    exit 1
}

if ! (cd "$build_dir" && cpack -G DEB -B "$work/out") >"$work/cpack.log" 2>&1; then
    cat "$work/cpack.log" >&2
    fail "cpack could not build the package"
fi
debs=("$work"/out/lumaxis-upgrade_*.deb)
deb=${debs[0]}
[[ -f $deb ]] || fail "cpack wrote no lumaxis-upgrade_*.deb"

dpkg-deb -c "$deb" | awk '{ sub(/^\./, "", $6); print $6 }' >"$work/contents"
doc=/usr/share/doc/lumaxis-upgrade
sim=/usr/share/lumaxis-upgrade/simulator
expected=(
    /usr/bin/lumaxis-upgrade /usr/bin/lumaxis-upgrade-cli
    /usr/share/man/man1/lumaxis-upgrade-cli.1.gz
    /usr/share/bash-completion/completions/lumaxis-upgrade-cli
    $sim/dfu-util_simulator.sh $sim/configs/default.conf $sim/images/firmware.bin
    /lib/udev/rules.d/70-lumaxis-upgrade.rules
    /usr/share/applications/lumaxis-upgrade.desktop
    /usr/share/metainfo/com.lumaxis.UpgradeTool.metainfo.xml
    /usr/share/icons/hicolor/scalable/apps/lumaxis-upgrade.svg
    /usr/share/man/man1/lumaxis-upgrade.1.gz
    $doc/copyright $doc/changelog.gz $doc/LumaxisSans-LICENSE.txt
    $doc/dfu-util-copyright $doc/libusb-copyright
)
for size in 16 32 48 64 128 256; do
    expected+=("/usr/share/icons/hicolor/${size}x${size}/apps/lumaxis-upgrade.png")
done
for file in "${expected[@]}"; do
    grep -qxF "$file" "$work/contents" || fail "the package lacks $file"
done

# The Qt libraries come from dpkg-shlibdeps; the rest are needs it cannot see.
dpkg-deb -f "$deb" Depends | tr ',' '\n' | awk '{ print $1 }' >"$work/depends"
for package in libqt6core6 libqt6gui6 libqt6widgets6 libqt6statemachine6 libudev1 qt6-qpa-plugins \
    qt6-translations-l10n fonts-noto-cjk; do
    grep -qxF "$package" "$work/depends" || fail "Depends lacks $package: $(dpkg-deb -f "$deb" Depends)"
done

lintian --fail-on error,warning "$deb" >"$work/lintian.log" 2>&1 || {
    cat "$work/lintian.log" >&2
    fail "lintian reports errors or warnings"
}

# An empty root with an empty dpkg database: dependencies are the host's, hence --force-depends.
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
if [[ $(id -u) -eq 0 ]]; then
    dpkg --root="$root" --force-depends -i "$deb" >"$work/dpkg.log" 2>&1 ||
        { cat "$work/dpkg.log" >&2; fail "dpkg could not install the package"; }
    dpkg --root="$root" -s lumaxis-upgrade | grep -qx "Status: install ok installed" ||
        fail "dpkg does not list the package as installed"
else
    dpkg -x "$deb" "$root" # dpkg --root needs root to own the files
fi
desktop-file-validate "$root/usr/share/applications/lumaxis-upgrade.desktop" ||
    fail "the installed desktop entry does not validate"

# The installed program must find the installed simulator, and the state folder must be the
# user's, chosen alike by the script run by hand and by the program: the runtime folder here.
program=$root/usr/bin/lumaxis-upgrade
runtime=$work/runtime
state=$runtime/lumaxis-upgrade/simulator-state
mkdir -m 700 "$work/tmp" "$runtime"
user_env=(env -u LUMAXIS_SIMULATOR_DIR -u LUMAXIS_SIMULATOR_STATE QT_QPA_PLATFORM=offscreen
    TMPDIR="$work/tmp" XDG_RUNTIME_DIR="$runtime" HOME="$work" LUMAXIS_SIMULATOR_FAST=1)
"${user_env[@]}" "$root$sim/dfu-util_simulator.sh" --dfu-util-command setup_prepared_config \
    default >"$work/setup.log" 2>&1 || { cat "$work/setup.log" >&2; fail "the installed script failed"; }
[[ $(cat "$state/scenario") == default ]] || fail "the script did not set up $state"

# The helper clicks Install when offered and closes the window at "Done".
"${user_env[@]}" LD_PRELOAD="$click_helper" "$program" -s -l >"$work/stdout" 2>"$work/stderr" &
pid=$!
show_log_and_fail() {
    cat "$work/stderr" >&2
    fail "$@"
}
for _ in $(seq 600); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
done
kill -0 "$pid" 2>/dev/null && show_log_and_fail "the installed program did not end within 60 s"
wait "$pid" && status=0 || status=$?
pid=""
((status == 0)) || show_log_and_fail "the installed program ended with status $status"
grep -qF "\"$root$sim/dfu-util_simulator.sh\"" "$work/stderr" ||
    show_log_and_fail "the installed program did not run the installed simulator"
grep -q "^click_install: clicked Install" "$work/stderr" || show_log_and_fail "no Install offered"
grep -q '^click_install: bar "Done' "$work/stderr" || show_log_and_fail "the upgrade did not reach Done"
grep -Eq '^Info: Will use simulator.* \(/\S+\.cpp:[1-9][0-9]*, .+\)$' "$work/stderr" ||
    show_log_and_fail "the installed program's log lines do not say where they come from"
image=$root$sim/images/firmware.bin
cmp -s -n "$(stat -c %s "$image")" "$image" "$state/flash.bin" ||
    fail "the simulated unit in $state does not hold the installed image"
[[ -z $(ls -A "$work/tmp") ]] || fail "the program left $(ls -A "$work/tmp") in its temporary folder"
(cd "$root" && find ".$sim" -type f | cut -c2- | sort) >"$work/simulator-files"
grep "^$sim/.*[^/]$" "$work/contents" | sort | diff - "$work/simulator-files" >&2 ||
    fail "files appeared beside the installed simulator"
# The installed companion finds the installed simulator too: the unit upgraded above is current.
"${user_env[@]}" "$root/usr/bin/lumaxis-upgrade-cli" --simulator upgrade >"$work/cli.out" 2>"$work/cli.err" ||
    { cat "$work/cli.err" >&2; fail "the installed companion ended with status $?"; }
grep -q "already-current" "$work/cli.out" || fail "the installed companion said: $(cat "$work/cli.out")"
echo "Package $(basename "$deb"): $(wc -l <"$work/contents") entries, installed, upgraded to Done"
