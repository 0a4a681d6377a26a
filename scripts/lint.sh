#!/usr/bin/env bash
# Checks that no test makes: scripts/lint.sh [--all] [--build DIR] [includes|links|format|shell|tidy...]
# Prints findings with file and line, and exits with 1 if there is any. By default all of:
#   includes    the directions between the rooms of the tree, by scripts/lint/includes.txt
#   links       relative links in Markdown
#   format      clang-format, by .clang-format
#   shell       shellcheck
#   tidy        clang-tidy, by .clang-tidy, with the flags of a build tree (build/debug)
# clang-tidy takes some seconds a file. It is not asked again about what it found clean (build/lint/ knows), begins with what
# git says was changed last, and begins no further file after half a minute: on a fresh clone that covers the last commits, in a
# working tree everything after a few runs. --all covers the whole tree however long it takes, before a release or after a
# change of .clang-tidy.
source "$(dirname "$0")/common.sh"

all=()
build=build/debug
checks=()
while [ $# -gt 0 ]; do
  case $1 in
    --all) all=(--all) ;;
    --build) build=${2:?--build takes a build tree}; shift ;;
    includes | links | format | shell | tidy) checks+=("$1") ;;
    *) say "unknown argument $1"; exit 2 ;;
  esac
  shift
done
[ ${#checks[@]} -gt 0 ] || checks=(includes links format shell tidy)

check() {
  case $1 in
    includes | links) python3 "scripts/lint/$1.py" ;;
    format) find . -path ./build -prune -o \( -name '*.h' -o -name '*.cpp' \) -print0 | sort -z |
      xargs -0 clang-format-14 --dry-run --Werror ;;
    shell) shellcheck scripts/*.sh scripts/arm/*.sh scripts/guest/*.sh scripts/board/*.sh .ci/run debian/*.prerm ;;
    tidy) python3 scripts/lint/tidy.py "${all[@]}" "$build" ;;
  esac
}

failed=0
for name in "${checks[@]}"; do
  say "lint: $name"
  check "$name" || { failed=1; say "lint: $name has findings"; }
done
exit "$failed"
