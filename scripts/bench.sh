#!/usr/bin/env bash
# Takes the measurements of docs/benchmarks.md: about five minutes on an idle machine.
source "$(dirname "$0")/common.sh"

scripts/build.sh
build/release/bin/tavi-bench --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true "$@"
build/release/bin/tavi-bench-acquisition cpu
build/release/bin/tavi-bench-acquisition memory
