#!/usr/bin/env bash
# Builds a preset, by default the release build: programs, library, plug-ins and the simulated car.
#   scripts/build.sh [--preset release|debug|asan|tsan] [--target TARGET]... [options of cmake]
# The programs are in build/<preset>/bin afterwards.
source "$(dirname "$0")/common.sh"

preset=release
targets=()
while [ $# -gt 0 ]; do
  case $1 in
    --preset) preset=${2:?--preset takes release, debug, asan or tsan} ;;
    --target) targets+=(--target "${2:?--target takes a name}") ;;
    *) break ;;
  esac
  shift 2
done
case " $* " in *' -DTAVI_BUILD_FLEET=OFF '*) scripts/setup.sh --build ;; *) scripts/setup.sh --build --fleet ;; esac
# What only running needs comes while the compiler works.
scripts/setup.sh &
rest=$!
trap 'wait "$rest"' EXIT
say "building build/$preset"
{
  cmake --preset "$preset" "$@"
  cmake --build --preset "$preset" --parallel "$jobs" "${targets[@]}"
} >&2
wait "$rest"
