#!/usr/bin/env bash
# Runs the service in the simulated car and tells what the process holds meanwhile:
#   scripts/soak.sh [--events 200]           events in a row
#   scripts/soak.sh --hours 24 [--speed 24]  hours with an event every five minutes; above speed 1 the process's clock runs
#                                            that much faster, and the cameras are slower (one cannot encode faster)
source "$(dirname "$0")/common.sh"

events=200
hours=
speed=1
while [ $# -gt 0 ]; do
  case $1 in
    --events) events=${2:?--events takes a number} ;;
    --hours) hours=${2:?--hours takes a number} ;;
    --speed) speed=${2:?--speed takes a whole number} ;;
    *) say "unknown option $1: --events N, --hours N and --speed N are right"; exit 2 ;;
  esac
  shift 2
done
scripts/build.sh --target all --target FastClock
dir=$(mktemp -d /tmp/tavi-soak-XXXXXX)
socket=$dir/ctl/socket
settings='"storage":{"maxEvents":50}'
if [ "$speed" != 1 ]; then
  settings+=',"pipeline":{"camera0":{"fps":4,"bitrate":64},"camera1":{"fps":6,"bitrate":64},"audio":{"bitrate":32}}'
fi
printf '{%s}\n' "$settings" > "$dir/settings.json"
preload=()
[ "$speed" = 1 ] || preload=(env "LD_PRELOAD=$PWD/build/release/lib/libtavi_fast_clock.so" "TAVI_CLOCK_SPEED=$speed")
"${preload[@]}" build/release/bin/tavi-recorder run --simulate --config "$dir/settings.json" --output "$dir" \
  --control "$socket" > "$dir/log" 2>&1 &
recorder=$!
trap 'kill "$recorder" 2>/dev/null || true; wait "$recorder" || true; rm -rf "$dir"' EXIT
ctl() { build/release/bin/tavi-ctl --json --control "$socket" "$@"; }
# Waits that many seconds of the recorder's clock.
pass() { sleep "$(awk "BEGIN {print $1 / $speed}")"; }
count_events() { find "$dir/events" -mindepth 1 -maxdepth 1 -not -name ".*" | wc -l; }
report() {
  local memory threads descriptors
  memory=$(awk '/VmRSS/ {printf "%.1f", $2 / 1000}' "/proc/$recorder/status")
  threads=$(find "/proc/$recorder/task" -mindepth 1 -maxdepth 1 | wc -l)
  descriptors=$(find "/proc/$recorder/fd" -mindepth 1 | wc -l)
  printf 'after %s: %s MB resident, %d threads, %d descriptors, %d working files, %d events kept\n' \
    "$1" "$memory" "$threads" "$descriptors" "$(find "$dir/work" -type f | wc -l)" "$(count_events)"
}
until ctl status 2>/dev/null | grep -q '"state":"recording"'; do sleep 1; done
say "waiting until the rings are full"
pass 35
report 'event    0'
if [ -z "$hours" ]; then
  for ((event = 1; event <= events; ++event)); do
    preview=(--no-preview)
    ((event % 20 == 1)) && preview=(--preview)
    ctl event --before 5 --duration 1 --wait "${preview[@]}" > /dev/null
    if ((event == 1 || event % 20 == 0)); then report "$(printf 'event %4d' "$event")"; fi
  done
else
  for ((hour = 1; hour <= hours; ++hour)); do
    for ((event = 0; event < 12; ++event)); do
      pass 280
      ctl event --before 15 --duration 20 --wait > /dev/null
      pass 15
    done
    report "$(printf 'hour %3d' "$hour")"
  done
  ctl status
fi
printf 'complete within: '
grep -o 'complete within [0-9]* ms' "$dir/log" | awk -v speed="$speed" '{print $3 / speed}' | sort -n |
  awk '{v[NR] = $1} END {printf "median %d ms, longest %d ms of %d events\n", v[int((NR + 1) / 2)], v[NR], NR}'
printf 'errors: '
grep -c ERROR "$dir/log" || true
printf 'silences: '
grep -c 'has been silent' "$dir/log" || true
