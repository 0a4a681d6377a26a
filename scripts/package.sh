#!/usr/bin/env bash
# Builds the Debian packages of the changelog's version, and has lintian look at them: scripts/package.sh [--unit]
#   --unit  for the unit itself: the machine is really restarted, the page cache really given back
# Prints their paths. Any finding of lintian's is an error.
source "$(dirname "$0")/common.sh"

arch=$(dpkg --print-architecture)
while [ $# -gt 0 ]; do
  case $1 in
    --unit) export TAVI_UNIT=ON ;;
    *) say "unknown option $1: --unit is right"; exit 2 ;;
  esac
  shift
done
scripts/setup.sh --build --fleet --package
export BUILD_DIR=build/deb-$arch PACKAGE_DIR=build/package-$arch DEB_BUILD_OPTIONS="parallel=$jobs"
say "building in $BUILD_DIR"
# What an earlier run has left but the compiled tree.
rm -rf "$PACKAGE_DIR" debian/{.debhelper,debhelper-build-stamp,files,tmp,libtavi0,libtavi-dev,tavi-mqtt,tavi-recorder,tavi-tools,tavi-upload,tavi-web}
debian/rules build >&2
say "packing"
debian/rules binary >&2
version=$(dpkg-parsechangelog -S Version)
packages=("$PWD/$PACKAGE_DIR"/*_"$version"_"$arch".deb)
[ ${#packages[@]} -ge "$(grep -c ^Package: debian/control)" ]
say "lintian, ${#packages[@]} packages"
lintian --fail-on error,warning --tag-display-limit 0 "${packages[@]}" >&2
say "lintian has found no error and no warning"
ls "${packages[@]}"
