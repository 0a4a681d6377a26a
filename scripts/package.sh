#!/usr/bin/env bash
# Builds the Debian package: scripts/package.sh. Prints its path.
source "$(dirname "$0")/common.sh"

scripts/setup.sh --package
# Where Debian has its libraries, and GStreamer its plug-ins.
scripts/build.sh -DCMAKE_INSTALL_PREFIX=/usr
say "packing"
(cd build/release && cpack --config CPackConfig.cmake >&2)
ls "$PWD"/build/release/package/*.deb
