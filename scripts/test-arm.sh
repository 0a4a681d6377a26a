#!/usr/bin/env bash
# Builds the whole tree for another processor and runs it there, emulated: scripts/test-arm.sh [armhf|arm64] [options]
#   armhf, by default the unit's processor; arm64 the same for 64 bits
#   --build          ends after the build
#   --cost           in place of tests, event and package: how many instructions a second the program at work takes, with
#                    hardware elements that cost nothing (armhf only)
#   --pack           in place of tests and event: packages, and those hardware elements, for scripts/test-board.sh; builds no tests
#   --cache DIR      where the chroot is kept, by default $TAVI_ARM_CACHE or ~/.cache/tavi-arm; some 3 GB each. Remove it at
#                    will: it is made anew
#   --tests REGEX    only tests of these names (ctest -R)
# Everything happens in a chroot of Debian 12 with the cross compiler, the other architecture's libraries and the emulator
# (qemu-user); on this machine nothing is installed but debootstrap, and no architecture is added. The kernel is told of the
# emulator for this run alone (Linux 6.7 or newer); older ones need qemu-user-static on this machine. Needs root.
# The last lines sum up; they stay in build/ARCHITECTURE/arm-summary.txt. Exits with 1 if anything in them failed.
source "$(dirname "$0")/common.sh"

architecture=armhf
export TAVI_ARM_TESTS='' TAVI_ARM_STEPS='build test event package'
cache=${TAVI_ARM_CACHE:-$HOME/.cache/tavi-arm}
arguments=("$@")
while [ $# -gt 0 ]; do
  case $1 in
    armhf | arm64) architecture=$1 ;;
    --build) TAVI_ARM_STEPS=build ;;
    --cost) TAVI_ARM_STEPS='build free cost' ;;
    --pack) TAVI_ARM_STEPS='build package free' ;;
    --cache) cache=${2:?--cache takes a directory}; shift ;;
    --tests) TAVI_ARM_TESTS=${2:?--tests takes a regular expression}; shift ;;
    *) say "unknown argument $1: armhf, arm64, --build, --cost, --pack, --cache and --tests are right"; exit 2 ;;
  esac
  shift
done
if [ "$architecture $TAVI_ARM_STEPS" = 'arm64 build free cost' ]; then say "--cost counts on armhf, the unit's processor, only"; exit 2; fi
[ "$(id -u)" -eq 0 ] || { say "needs root, for debootstrap and chroot"; exit 2; }
# Its mounts are nobody else's, and go with it.
[ -n "${TAVI_OWN_MOUNTS:-}" ] || exec env TAVI_OWN_MOUNTS=1 unshare --mount "scripts/${0##*/}" "${arguments[@]}"
command -v debootstrap > /dev/null || apt-get install -y --no-install-recommends debootstrap >&2

case $architecture in
  armhf) triple=arm-linux-gnueabihf emulator=qemu-arm class='\x01' machine='\x28' ;;
  arm64) triple=aarch64-linux-gnu emulator=qemu-aarch64 class='\x02' machine='\xb7' ;;
esac
export TAVI_ARM_ARCHITECTURE=$architecture TAVI_ARM_TRIPLE=$triple
mkdir -p "$cache"
root=$(cd "$cache" && pwd)/$architecture
tree=$PWD
# shellcheck source=scripts/arm/chroot.sh
source scripts/arm/chroot.sh
[ "$(cat "$root/ready" 2> /dev/null)" = "$(list_packages)" ] || make_chroot
mount_chroot
say "$architecture in $root, $(du -sh --one-file-system "$root" 2> /dev/null | cut -f1)"
run_in_chroot bash scripts/arm/inside.sh
