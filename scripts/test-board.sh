#!/usr/bin/env bash
# The recorder's packages for the unit's processor on an emulated i.MX6 board, with Debian's kernel and its drivers, in a time of
# its own, in which nothing is late:
#   scripts/test-board.sh [--no-cost] [--no-event] [--images DIR] [--build DIR] [--cache DIR] [--programs DIR]
# What the recorder costs there, the kernel's share included, with hardware elements that cost nothing; then an event of six
# sources from device nodes, whose files are checked here.
#   --images DIR  where the board's card and kernel are kept, by default build/board; made the first time
#   --build DIR   what was built for armhf: packages in DIR/package, the hardware elements in DIR/lib/free. Without it
#                 build/armhf is built, by scripts/test-arm.sh --pack
#   --cache DIR   where that keeps its chroot, see there
#   --programs DIR  this machine's own tavi-verify; without it build/release is built
# Needs root, for the chroots. Takes some ten minutes on a machine that is not busy, besides building. Ends with 0 when nothing is
# wrong, and with 77, after one line, where the board cannot be made.
source "$(dirname "$0")/common.sh"

images=build/board
build=
programs=
arguments=() cache=()
while [ $# -gt 0 ]; do
  case $1 in
    --no-cost | --no-event) arguments+=("$1") ;;
    --images) images=${2:?--images takes a directory}; shift ;;
    --build) build=${2:?--build takes a directory}; shift ;;
    --programs) programs=${2:?--programs takes a directory}; shift ;;
    --cache) cache=(--cache "${2:?--cache takes a directory}"); shift ;;
    *)
      say "unknown option $1: --no-cost, --no-event, --images DIR, --build DIR, --cache DIR and --programs DIR are right"
      exit 2
      ;;
  esac
  shift
done
skip() { say "skipped: $*"; exit 77; }

[ "$(id -u)" -eq 0 ] || skip "root is needed, for chroot"
[ "$(dpkg --print-architecture)" = amd64 ] || skip "the board's system is made with amd64's emulator, this machine is not"
scripts/setup.sh --board || skip "the packages of scripts/setup.sh --board cannot be had"
if [ -z "$build" ]; then
  build=build/armhf
  scripts/test-arm.sh armhf --pack "${cache[@]}" || { say "the packages cannot be built"; exit 1; }
fi
free=$build/lib/free/libgsttavifree.so
packages=("$build"/package/{libtavi0,tavi-recorder,tavi-tools}_*_armhf.deb)
for file in "${packages[@]}" "$free"; do [ -e "$file" ] || { say "--build: there is no $file"; exit 2; }; done
if [ -z "$programs" ] && [[ " ${arguments[*]} " != *' --no-event '* ]]; then
  programs=build/release/bin
  scripts/build.sh --target tavi-verify || { say "tavi-verify cannot be built"; exit 1; }
fi
mkdir -p "$images"
images=$(realpath "$images")
# One at a time: they share the images.
exec 9> "$images/lock"
flock -n 9 || { say "another run uses $images"; exit 2; }
scripts/board/image.sh "$images" "${packages[@]}" "$free" || skip "the board's card cannot be made, see above"
directory=$(mktemp -d "${TMPDIR:-/var/tmp}/tavi-board-XXXXXX")
g++ -std=c++20 -O2 -shared -fPIC bench/Cost/ModeCount.cpp -o "$directory/counter.so"
qemu-system-arm --version | head -n 1
status=0
python3 -B scripts/board/test.py --images "$images" --programs "${programs:-none}" --directory "$directory" "${arguments[@]}" || status=$?
if [ "$status" -eq 0 ]; then rm -rf "$directory"; else say "what was found is in $directory"; fi
exit "$status"
