#!/usr/bin/env bash
# How long the supply must bridge a power failure on a slow disk and a loaded machine, without and with copying ahead:
#   scripts/bench-holdup.sh [--rate 10] [--ahead 8] [--load 2] [--rounds 1] [--at "300 3000 14000"] [--program FILE]
# The disk is a file in memory behind a loop device with ext4, which the kernel (cgroup v1, blkio) holds to --rate million
# bytes a second; --load processes take the processors meanwhile. Root, four minutes. Leaves nothing mounted.
source "$(dirname "$0")/common.sh"

rate=10 ahead=8 load=2 rounds=1 at="300 3000 14000" program=
while [ $# -gt 0 ]; do
  case $1 in
    --rate | --ahead | --load | --rounds | --at | --program) declare "${1#--}=${2:?$1 takes a value}" ;;
    *) say "unknown option $1: --rate, --ahead, --load, --rounds, --at and --program are right"; exit 2 ;;
  esac
  shift 2
done
throttle=/sys/fs/cgroup/blkio/blkio.throttle.write_bps_device
[ -w "$throttle" ] || { say "$throttle cannot be written: this takes root and cgroup v1"; exit 1; }
if [ -z "$program" ]; then
  scripts/build.sh -DTAVI_BUILD_BENCH=ON
  program=build/release/bin/tavi-bench-acquisition
fi

image=$(mktemp /dev/shm/tavi-holdup-XXXXXX)
dir=$(mktemp -d)
loop='' number='' hogs=()
clean() {
  [ ${#hogs[@]} -eq 0 ] || kill "${hogs[@]}" 2> /dev/null || true
  [ -z "$number" ] || echo "$number 0" > "$throttle"
  ! mountpoint -q "$dir" || umount "$dir"
  [ -z "$loop" ] || losetup -d "$loop"
  rm -rf "$image" "$dir"
}
trap clean EXIT
truncate -s 256M "$image"
mkfs.ext4 -q -F "$image"
loop=$(losetup -f --show "$image")
mount "$loop" "$dir"
number=$(cat "/sys/block/${loop#/dev/}/dev")
echo "$number $((rate * 1000000))" > "$throttle"
for ((i = 0; i < load; ++i)); do
  (while :; do :; done) &
  hogs+=("$!")
done

say "a disk of $rate MB/s, $load busy processes"
for ((round = 0; round < rounds; ++round)); do
  for mbps in 0 "$ahead"; do
    # shellcheck disable=SC2086  # a list
    "$program" holdup-disk "$dir" "$mbps" $at
  done
done
