#!/usr/bin/env bash
# Installs the Debian packages that are needed to build and run: scripts/setup.sh [--build] [--fleet] [--stream] [--package] [--test] [--guest] [--board]
#   --build   only what building needs
#   --fleet   what building the programs beside the recorder needs besides
#   --stream  what live streams, cameras that encode by themselves and encoders other than x264 need besides
#   --package what packing needs besides
#   --guest   what the emulated machine of test-guest.sh needs besides; its kernel and its packages are not installed here
#   --board   what the emulated board of test-board.sh needs besides; its kernel and its packages are not installed here
#   --test    what tests, measurements, fuzzing and lint need besides
# Does nothing where all are there.
source "$(dirname "$0")/common.sh"

packages=(
  g++ cmake ninja-build pkg-config
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  libavformat-dev libavcodec-dev libavutil-dev libyuv-dev libturbojpeg0-dev
  libasound2-dev libsystemd-dev libssl-dev
  libspdlog-dev libfmt-dev nlohmann-json3-dev uuid-dev libcli11-dev
)
fleet=(libgstrtspserver-1.0-dev libmicrohttpd-dev libarchive-dev libmosquitto-dev)
run=(gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly gstreamer1.0-alsa)
stream=(gstreamer1.0-plugins-bad)
pack=(dpkg-dev debhelper lintian systemd)
test=(
  gstreamer1.0-tools libgtest-dev libgmock-dev libumockdev-dev umockdev libbenchmark-dev libboost-dev ffmpeg
  gpsd gpsd-clients clang libclang-rt-14-dev clang-format-14 clang-tidy-14 shellcheck chromium chromium-driver python3 libxml2-utils
  rclone
  libcjson1 libdlt2 libwrap0 openssl
)
guest=(qemu-system-x86 debootstrap busybox-static cpio kmod e2fsprogs gcc-12 make xz-utils python3 ffmpeg)
board=(g++ qemu-system-arm device-tree-compiler fdisk cpio kmod e2fsprogs python3 ffmpeg)
schema=
axe=
mcap=
broker=
duckdb=
case "$*" in --build | '--build --fleet') ;; *) packages+=("${run[@]}") ;; esac
for option in "$@"; do
  case $option in
    --build) ;;
    --fleet) packages+=("${fleet[@]}") ;;
    --stream) packages+=("${stream[@]}") ;;
    --package) packages+=("${pack[@]}") ;;
    --guest) packages+=("${guest[@]}") ;;
    --board) packages+=("${board[@]}") ;;
    --test)
      packages+=("${fleet[@]}" "${stream[@]}" "${pack[@]}" "${test[@]}")
      schema=build/schemas/gpx11.xsd
      axe=build/axe/axe.min.js
      mcap=build/mcap/node_modules
      broker=build/mosquitto/usr/sbin/mosquitto
      duckdb=build/duckdb/node_modules/@duckdb/node-api
      ;;
    *) say "unknown option $option: --build, --fleet, --stream, --package, --test, --guest and --board are right"; exit 2 ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
done
if [ ${#missing[@]} -ne 0 ]; then
  say "installing ${missing[*]}"
  root=()
  [ "$(id -u)" -eq 0 ] || root=(sudo)
  {
    "${root[@]}" apt-get update
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
  } >&2
fi

# GPX's own schema, for a test that skips without it. Debian has it within a package that nothing else of is wanted.
if [ -n "$schema" ] && [ ! -e "$schema" ]; then
  mkdir -p build/schemas
  (
    cd build/schemas
    timeout 60 apt-get download -o Acquire::Retries=0 -o Acquire::http::Timeout=20 -o APT::Sandbox::User=root pytrainer &&
      dpkg-deb --fsys-tarfile pytrainer_*.deb | tar -xO ./usr/share/pytrainer/schemas/Topografix_gpx11.xsd > gpx11.new &&
      mv gpx11.new gpx11.xsd
  ) > /dev/null 2>&1 || say "no $schema: its test will be skipped"
  rm -f build/schemas/pytrainer_*.deb build/schemas/gpx11.new
fi

# What the pages' test looks at them with; it skips that without it. Only where there is npm: Debian has no package of it.
if [ -n "$axe" ] && [ ! -e "$axe" ]; then
  mkdir -p build/axe
  (
    cd build/axe
    timeout 60 npm pack --silent axe-core@4.11.0 && tar -xzOf axe-core-4.11.0.tgz package/axe.min.js > axe.new && mv axe.new axe.min.js
  ) > /dev/null 2>&1 || say "no $axe: its test will be skipped"
  rm -f build/axe/axe-core-*.tgz build/axe/axe.new
fi

# What the export's test reads MCAP with; it skips that without it.
if [ -n "$mcap" ] && [ ! -e "$mcap" ]; then
  # Aside, so that half of it never passes for all.
  mkdir -p build/mcap.new
  if timeout 120 npm install --prefix build/mcap.new --silent --no-save --no-audit --no-fund --ignore-scripts \
    @mcap/core@2.2.2 @foxglove/schemas@2.1.0 protobufjs@7.5.4 > /dev/null 2>&1; then
    mv build/mcap.new build/mcap
  else
    say "no $mcap: its test will be skipped"
  fi
  rm -rf build/mcap.new
fi

# The broker of MQTT's tests, unpacked and not installed: the package starts a service that no machine needs for a test.
if [ -n "$broker" ] && [ ! -e "$broker" ] && ! command -v mosquitto > /dev/null; then
  mkdir -p build/mosquitto
  (
    cd build/mosquitto
    timeout 60 apt-get download -o Acquire::Retries=0 -o Acquire::http::Timeout=20 -o APT::Sandbox::User=root mosquitto &&
      dpkg-deb --fsys-tarfile mosquitto_*.deb | tar -x ./usr/bin/mosquitto_passwd ./usr/sbin/mosquitto
  ) > /dev/null 2>&1 || say "no $broker: its tests will be skipped"
  rm -f build/mosquitto/mosquitto_*.deb
fi

# What a test asks SQL of events with. Its parts are packages of the registry; nothing runs at the installation.
if [ -n "$duckdb" ] && [ ! -e "$duckdb" ]; then
  mkdir -p build/duckdb
  (
    cd build/duckdb
    echo '{"private": true}' > package.json
    timeout 120 npm install --silent --ignore-scripts --no-audit --no-fund @duckdb/node-api@1.5.6-r.1
  ) > /dev/null 2>&1 || say "no $duckdb: its test will be skipped"
fi
