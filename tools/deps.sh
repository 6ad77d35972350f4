#!/usr/bin/env bash
# Installs the Debian 12 packages that Velmora needs, and only those that are missing.
#   deps.sh studio   what building and running the studio needs
#   deps.sh test     that, plus what the tests start as real peers
set -euo pipefail

studio_packages=(
  cmake g++ make pkg-config
  qt6-base-dev qt6-base-dev-tools libgl-dev libxcb1-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-x
  gstreamer1.0-pulseaudio glib-networking
  libsecret-1-dev
  fonts-dejavu-core
  xvfb xauth
)
test_packages=(
  ffmpeg
  nginx-light libnginx-mod-rtmp libnginx-mod-stream openssl
  pulseaudio pulseaudio-utils
  gnome-keyring libsecret-tools dbus
  espeak-ng sox
  qt6-websockets-dev python3-websockets
  fonts-liberation fonts-urw-base35
)

wanted=("${studio_packages[@]}")
if [ "${1:-studio}" = test ]; then
  wanted+=("${test_packages[@]}")
fi

missing=()
for package in "${wanted[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "Installing missing packages: ${missing[*]}"
"${as_root[@]}" apt-get update -q
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
