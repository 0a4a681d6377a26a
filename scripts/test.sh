#!/usr/bin/env bash
# Builds and runs all tests: scripts/test.sh [--preset debug|release|asan|tsan] [ctest options]
source "$(dirname "$0")/common.sh"

preset=debug flags=()
if [ "${1:-}" = --preset ]; then
  preset=${2:?--preset takes debug, release, asan or tsan}
  shift 2
fi
scripts/setup.sh --test
# Nobody looks into a program on a machine that only tests, and nothing changes there: what a debugger would need is a quarter of
# the build, and reading the same headers for each file half of the rest.
[ -z "${CI:-}" ] || flags=(-DCMAKE_CXX_FLAGS_DEBUG=-g0 -DTAVI_UNITY=ON)
scripts/build.sh --preset "$preset" -DTAVI_WERROR=ON -DTAVI_BUILD_TESTS=ON "${flags[@]}"
say "testing build/$preset"
# Most tests wait for what comes at its own pace: one more than there are processors keeps these busy.
exec ctest --test-dir "build/$preset" --output-on-failure --parallel $((jobs + 1)) "$@"
