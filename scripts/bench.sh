#!/usr/bin/env bash
# Takes the measurements of docs/benchmarks.md and prints them as one table, each against its peer and its goal.
#   scripts/bench.sh                about twenty minutes on an idle machine
#   scripts/bench.sh --quick        three minutes: fewer repetitions
#   scripts/bench.sh --first-event  measures the fresh machine, too (scripts/first-event.sh); otherwise its last figure
#                                   is shown
# What the programs print stays in build/bench.
source "$(dirname "$0")/common.sh"

repetitions=9 rounds=8 events=200 holdups=5 directories=5 sensors=60 fresh=
while [ $# -gt 0 ]; do
  case $1 in
    --quick) repetitions=1 rounds=2 events=1 holdups=1 directories=3 sensors= ;;
    --first-event) fresh=yes ;;
    *) say "unknown option $1: --quick and --first-event are right"; exit 2 ;;
  esac
  shift
done
scripts/setup.sh --test
scripts/build.sh -DTAVI_BUILD_BENCH=ON
out=build/bench
bin=build/release/bin
rm -rf "$out"
mkdir -p "$out"

say "ring, muxer, receiver's text"
"$bin/tavi-bench" --benchmark_repetitions="$repetitions" --benchmark_enable_random_interleaving=true \
  --benchmark_out="$out/programs.json" --benchmark_out_format=json > "$out/programs.txt"
say "processor time of acquisition"
"$bin/tavi-bench-acquisition" cpu 8 "$rounds" > "$out/cpu.txt"
# It has processors to spare, and so has the recorder that fills its rings meanwhile.
say "memory; from an event's end to its directory"
"$bin/tavi-bench-acquisition" memory "$events" > "$out/memory.txt" &
memory=$!
scripts/bench-events.sh --count "$directories" --after "$memory" > "$out/events.txt"
wait "$memory"
say "time that the supply must bridge"
"$bin/tavi-bench-acquisition" holdup "$holdups" > "$out/holdup.txt"
if [ -n "$sensors" ]; then
  say "sound and sensors"
  "$bin/tavi-bench-acquisition" sensors "$sensors" > "$out/sensors.txt"
fi
[ -z "$fresh" ] || scripts/first-event.sh >&2
python3 bench/table.py "$out" build/first-event.txt
