#!/usr/bin/env bash
# Installs the Debian packages that are needed to build, run and test. Does nothing where all are there.
source "$(dirname "$0")/common.sh"

packages=(
  build-essential cmake ninja-build pkg-config
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly
  libavformat-dev libavcodec-dev libavutil-dev libyuv-dev libturbojpeg0-dev
  gstreamer1.0-alsa libasound2-dev
  libsystemd-dev
  libspdlog-dev libfmt-dev nlohmann-json3-dev uuid-dev libcli11-dev
  libgtest-dev libgmock-dev libumockdev-dev umockdev libbenchmark-dev libboost-dev ffmpeg
  clang libclang-rt-14-dev chromium chromium-driver python3
)

missing=()
for package in "${packages[@]}"; do
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

say "installing ${missing[*]}"
root=()
[ "$(id -u)" -eq 0 ] || root=(sudo)
{
  "${root[@]}" apt-get update
  "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
} >&2
