#!/usr/bin/env bash
# Builds a preset, by default the release build: scripts/build.sh [--preset release|debug|asan|tsan]
# The programs are in build/<preset>/bin afterwards.
source "$(dirname "$0")/common.sh"

preset=release
if [ "${1:-}" = --preset ]; then
  preset=${2:?--preset takes release, debug, asan or tsan}
  shift 2
fi
scripts/setup.sh
say "building build/$preset"
{
  cmake --preset "$preset" "$@"
  cmake --build --preset "$preset" --parallel "$jobs"
} >&2
