#!/usr/bin/env bash
# The recorder's packages in an emulated machine, with the kernel's own drivers, a disk that forgets what was not flushed, and a
# time of its own, in which nothing is late:
#   scripts/test-guest.sh [--cuts N] [--minutes N] [--faults short|all|none] [--no-event] [--young] [--seed N]
#                         [--images DIR] [--packages DIR]
# An event of six sources, whose files are checked here; faults of devices; power cuts at random instants, each followed by another
# start. By default one event, three faults, three cuts; --cuts 200 --faults all is the long form, and --minutes ends the cuts
# when so many are over; with --young each cut comes within five seconds of a request. Two runs beside each other have images of
# their own. A start takes an idle processor about a minute, a busy one several. The machine's image is made the first time
# (build/guest; needs root, for debootstrap). Whoever has the packages gives their directory, or they are built. Ends with 0 when
# nothing is wrong, and with 77, after one line, where the machine cannot be made.
source "$(dirname "$0")/common.sh"

images=build/guest
given=
arguments=()
while [ $# -gt 0 ]; do
  case $1 in
    --cuts | --minutes | --faults | --seed) arguments+=("$1" "${2:?$1 takes a value}"); shift ;;
    --no-event | --young) arguments+=("$1") ;;
    --images) images=${2:?--images takes a directory}; shift ;;
    --packages) given=${2:?--packages takes a directory}; shift ;;
    *)
      say "unknown option $1: --cuts N, --minutes N, --faults short|all|none, --no-event, --young, --seed N, --images DIR and --packages DIR are right"
      exit 2
      ;;
  esac
  shift
done
skip() { say "skipped: $*"; exit 77; }

[ "$(id -u)" -eq 0 ] || skip "root is needed, for debootstrap and chroot"
[ "$(dpkg --print-architecture)" = amd64 ] || skip "the guest's kernel is amd64's, this machine is not"
scripts/setup.sh --guest || skip "the packages of scripts/setup.sh --guest cannot be had"
[ -n "$given" ] || given=$(dirname "$(scripts/package.sh | tail -n 1)")
packages=("$given"/{libtavi0,tavi-recorder,tavi-tools}_*_amd64.deb)
for package in "${packages[@]}"; do [ -e "$package" ] || { say "--packages: there is no $package"; exit 2; }; done
mkdir -p "$images"
images=$(realpath "$images")
# One at a time: they share the images.
exec 9> "$images/lock"
flock -n 9 || { say "another run uses $images"; exit 2; }
scripts/guest/image.sh "$images" "${packages[@]}" || skip "the guest's image cannot be made, see above"
directory=$(mktemp -d "${TMPDIR:-/var/tmp}/tavi-guest-XXXXXX")
# What checks the files here is what made them there.
for package in "${packages[@]}"; do dpkg-deb -x "$package" "$directory/package"; done
qemu-system-x86_64 --version | head -n 1
status=0
LD_LIBRARY_PATH=$directory/package/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH) python3 -B scripts/guest/test.py \
  --images "$images" --programs "$directory/package/usr/bin" --directory "$directory" "${arguments[@]}" || status=$?
if [ "$status" -eq 0 ]; then rm -rf "$directory"; else say "what was found is in $directory"; fi
exit "$status"
