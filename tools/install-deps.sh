#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need; does nothing when all
# are already there, so it is safe to run on every `make`.
set -euo pipefail

packages=(
  # build
  cmake make g++ pkg-config
  qt6-base-dev qt6-base-dev-tools qt6-scxml-dev libgl-dev
  libusb-1.0-0-dev
  # generated assets: the embedded tool, the fonts
  dfu-util patchelf python3 python3-fonttools fonts-open-sans
  # Qt's own translations for its dialogs, and the glyphs of the Japanese texts
  qt6-translations-l10n fonts-noto-cjk
  # headless runs and screenshots
  xvfb xauth xdotool x11-apps imagemagick python3-xlib
  # the screen reader's view: a session bus, the accessibility bus and registry, Orca's library
  dbus-daemon at-spi2-core python3-pyatspi
  # desktop integration and the Debian package
  librsvg2-bin desktop-file-utils appstream dpkg-dev fakeroot lintian
)
if [ "$#" -gt 0 ]; then
  packages+=("$@")
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
