#!/usr/bin/env bash
# Builds the Debian package, checks what it holds, installs it with dpkg into an empty root folder
# and starts the installed program offscreen in simulator mode until it has read the unit.
# Usage: check_package.sh BUILD_DIR
set -euo pipefail

build_dir=$1
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
expected=(
    /usr/bin/lumaxis-upgrade
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
for package in libqt6core6 libqt6gui6 libqt6widgets6 libqt6statemachine6 libudev1 qt6-qpa-plugins; do
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

program=$root/usr/bin/lumaxis-upgrade
mkdir "$work/tmp"
QT_QPA_PLATFORM=offscreen TMPDIR=$work/tmp LUMAXIS_SIMULATOR_FAST=1 \
    LUMAXIS_SIMULATOR_STATE=$work/state "$program" -s >"$work/stdout" 2>"$work/stderr" &
pid=$!
for _ in $(seq 300); do
    grep -q "Device connected with" "$work/stderr" && break
    if ! kill -0 "$pid" 2>/dev/null; then
        cat "$work/stderr" >&2
        fail "the installed program ended during start-up"
    fi
    sleep 0.1
done
grep -q "Device connected with" "$work/stderr" || {
    cat "$work/stderr" >&2
    fail "the installed program did not read the simulated unit within 30 s"
}
kill -TERM "$pid"
wait "$pid" || true
pid=""
echo "Package $(basename "$deb"): $(wc -l <"$work/contents") entries, installed and started"
