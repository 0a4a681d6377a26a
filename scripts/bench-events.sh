#!/usr/bin/env bash
# How long an event of 30 s takes from its end to its complete directory on another disk, and its report, each against a
# peer: scripts/bench-events.sh [--count 5] [--disk DIR] [--after PID]
# The working directory is on /dev/shm, the events are in a new directory in DIR, by default /var/tmp. The first event
# waits for the end of process PID.
source "$(dirname "$0")/common.sh"

count=5
disk=/var/tmp
after=
while [ $# -gt 0 ]; do
  case $1 in
    --count) count=${2:?--count takes a number} ;;
    --disk) disk=${2:?--disk takes a directory} ;;
    --after) after=${2:?--after takes the number of a process} ;;
    *) say "unknown option $1: --count N, --disk DIR and --after PID are right"; exit 2 ;;
  esac
  shift 2
done
[ -n "$after" ] || scripts/build.sh
ram=$(mktemp -d /dev/shm/tavi-bench-XXXXXX)
dir=$(mktemp -d "$disk/tavi-bench-XXXXXX")
printf '{"storage":{"eventsDir":"%s/events/","workDir":"%s/work/","backupDir":"%s/pf/","restoreDir":"%s/pr/"}}\n' \
  "$dir" "$ram" "$dir" "$dir" > "$ram/settings.json"
build/release/bin/tavi-recorder run --simulate --config "$ram/settings.json" --control "$ram/ctl/socket" \
  > "$ram/log" 2>&1 &
recorder=$!
trap 'kill "$recorder" 2>/dev/null || true; wait "$recorder" || true; rm -rf "$ram" "$dir"' EXIT
ctl() { build/release/bin/tavi-ctl --json --control "$ram/ctl/socket" "$@"; }
until ctl status 2>/dev/null | grep -q '"state":"recording"'; do sleep 1; done
say "waiting until the rings are full"
sleep 32
while [ -n "$after" ] && kill -0 "$after" 2> /dev/null; do sleep 0.2; done
for ((event = 1; event <= count; ++event)); do ctl event --before 30 --duration 30 --preview --wait > /dev/null; done
ctl stop > /dev/null
wait "$recorder" || true

median() { sort -n | awk '{v[NR] = $1} END {printf "median %d ms, longest %d ms", v[int((NR + 1) / 2)], v[NR]}'; }
now() { date +%s%N; }
# Milliseconds that a command takes.
took() {
  local start
  start=$(now)
  "$@" > /dev/null
  echo $((($(now) - start) / 1000000))
}
copy_and_hash() {
  cp -r "$1" "$dir/copy"
  sync -f "$dir/copy"
  sha256sum "$dir/copy"/*
}
completes=$(grep -o 'complete within [0-9]* ms' "$ram/log" | awk '{print $3}')
copies='' reports='' peers='' bytes=0
for event in "$dir"/events/2*; do
  bytes=$(du -sb "$event" | cut -f1)
  cp -r "$event" "$ram/event"
  copies+="$(took copy_and_hash "$ram/event") "
  reports+="$(took build/release/bin/tavi-report "$event" --output "$ram/report.html") "
  peers+="$(took sh -c "cat '$event'/*.mp4 '$event'/*.mp3 | base64 -w0 > '$ram/report.peer'") "
  rm -rf "$dir/copy" "$ram/event" "$ram/report.html" "$ram/report.peer"
done
lines() { tr ' ' '\n' | grep .; }
printf 'events of 30 s, %d bytes, from /dev/shm to %s\n' "$bytes" "$disk"
printf 'complete directory:       %s\n' "$(echo "$completes" | median)"
printf 'cp, sync and sha256sum:   %s\n' "$(echo "$copies" | lines | median)"
printf 'tavi-report:              %s\n' "$(echo "$reports" | lines | median)"
printf 'base64 of the same files: %s\n' "$(echo "$peers" | lines | median)"
