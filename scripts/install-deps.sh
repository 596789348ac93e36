#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing Kavely needs, only those that are missing.
# Runs unattended (CI has no standard input); needs root or sudo.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git curl
    libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libcpp-httplib-dev
    libgtest-dev libgmock-dev googletest
    libavcodec-dev libavutil-dev ffmpeg
    libswresample-dev libpulse-dev libpipewire-0.3-dev pulseaudio pulseaudio-utils pipewire pipewire-pulse wireplumber sox espeak-ng dbus
    libsecret-1-dev gnome-keyring dbus-x11 libsecret-tools libglib2.0-bin libxcb1-dev
    qt6-base-dev qt6-declarative-dev qml6-module-qtquick qml6-module-qtquick-controls
    qml6-module-qtquick-layouts qml6-module-qtquick-window qml6-module-qtquick-templates
    qml6-module-qtqml-workerscript libgl-dev xvfb xdotool xauth
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing missing packages: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get -o DPkg::Lock::Timeout=900 update -qq
$sudo apt-get -o DPkg::Lock::Timeout=900 install -y -qq --no-install-recommends "${missing[@]}" </dev/null
