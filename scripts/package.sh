#!/usr/bin/env bash
# Builds the Debian package: scripts/package.sh. Prints its path.
source "$(dirname "$0")/common.sh"

scripts/build.sh
say "packing"
(cd build/release && cpack --config CPackConfig.cmake >&2)
ls "$PWD"/build/release/package/*.deb
