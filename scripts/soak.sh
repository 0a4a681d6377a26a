#!/usr/bin/env bash
# Events in a row through the running service in the simulated car, and what the process holds meanwhile:
# scripts/soak.sh [--events 200]
source "$(dirname "$0")/common.sh"

events=200
[ "${1:-}" = --events ] && events=${2:?--events takes a number}
scripts/build.sh
dir=$(mktemp -d /tmp/tavi-soak-XXXXXX)
socket=$dir/ctl/socket
printf '{"events":{"withPreview":false},"storage":{"maxEvents":50}}\n' > "$dir/settings.json"
build/release/bin/tavi-recorder run --simulate --config "$dir/settings.json" --output "$dir" --control "$socket" \
  > "$dir/log" 2>&1 &
recorder=$!
trap 'kill "$recorder" 2>/dev/null || true; wait "$recorder" || true; rm -rf "$dir"' EXIT
ctl() { build/release/bin/tavi-ctl --json --control "$socket" "$@"; }
until ctl status 2>/dev/null | grep -q '"state":"recording"'; do sleep 1; done
say "waiting until the rings are full"
sleep 35
report() {
  local memory threads descriptors
  memory=$(awk '/VmRSS/ {printf "%.1f", $2 / 1000}' "/proc/$recorder/status")
  threads=$(ls "/proc/$recorder/task" | wc -l)
  descriptors=$(ls "/proc/$recorder/fd" | wc -l)
  printf 'after event %4d: %s MB resident, %d threads, %d descriptors, %d working files, %d events kept\n' \
    "$1" "$memory" "$threads" "$descriptors" "$(find "$dir/work" -type f | wc -l)" "$(ls "$dir/events" | wc -l)"
}
report 0
for ((event = 1; event <= events; ++event)); do
  preview=()
  ((event % 20 == 1)) && preview=(--preview)
  ctl event --before 5 --duration 1 --wait "${preview[@]}" > /dev/null
  if ((event == 1 || event % 20 == 0)); then report "$event"; fi
done
printf 'complete within: '
grep -o 'complete within [0-9]* ms' "$dir/log" | awk '{print $3}' | sort -n |
  awk '{v[NR] = $1} END {printf "median %d ms, longest %d ms of %d events\n", v[int((NR + 1) / 2)], v[NR], NR}'
grep -c ERROR "$dir/log" || true
