#!/usr/bin/env bash
# Fetches Debian 11's dfu-util 0.9 into a folder without installing it: a private apt
# configuration (its own source list, lists and cache; Debian's archive keys) downloads the
# package, dpkg-deb unpacks it. Prints the binary's path.
# Usage: tools/dfu-util-0.9.sh DEST
set -euo pipefail
dest=$(realpath -m "$1")
tool=$dest/usr/bin/dfu-util
if [ -x "$tool" ] && "$tool" -V 2>/dev/null | head -1 | grep -qx 'dfu-util 0.9'; then
  echo "$tool"
  exit 0
fi

# The Debian mirror this machine's apt uses, else Debian's own.
mirror=${DEBIAN_MIRROR:-$(cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
  /etc/apt/sources.list.d/*.sources 2>/dev/null | grep -v '^[[:space:]]*#' |
  grep -oE '(https?|file)://[^ ]*/debian/?( |$)' | head -1 | tr -d ' ' || true)}
mirror=${mirror:-http://deb.debian.org/debian}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg

apt=$dest/apt
mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial" "$dest"
echo "deb [signed-by=$keyring] $mirror bullseye main" > "$apt/sources.list"
options=(-q -o "Dir::Etc::SourceList=$apt/sources.list" -o Dir::Etc::SourceParts=/dev/null
  -o "Dir::State::Lists=$apt/lists" -o "Dir::Cache=$apt/cache" -o Dir::State::status=/dev/null
  -o "Dir::Etc::trusted=$keyring" -o Dir::Etc::TrustedParts=/dev/null -o Debug::NoLocking=true
  -o APT::Sandbox::User="$(id -un)")
apt-get "${options[@]}" update >&2
(cd "$dest" && apt-get "${options[@]}" download dfu-util >&2)
deb=$(ls "$dest"/dfu-util_0.9-*.deb)
dpkg-deb -x "$deb" "$dest"
rm -rf "$apt"
"$tool" -V | head -1 | grep -qx 'dfu-util 0.9'
echo "$tool"
