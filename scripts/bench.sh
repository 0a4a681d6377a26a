#!/usr/bin/env bash
# Takes the measurements of docs/benchmarks.md: about twenty minutes on an idle machine.
source "$(dirname "$0")/common.sh"

scripts/build.sh
build/release/bin/tavi-bench --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true "$@"
build/release/bin/tavi-bench-acquisition cpu 16 8
build/release/bin/tavi-bench-acquisition memory 200
build/release/bin/tavi-bench-acquisition sensors 60
build/release/bin/tavi-bench-acquisition holdup 5
scripts/bench-events.sh
