#!/usr/bin/env bash
# Checks that no test makes: scripts/lint.sh
# Prints one line a finding, file and line first, and exits with 1 if there is any.
#   includes    the directions between the rooms of the tree, by scripts/lint/includes.txt
#   links       relative links in Markdown
#   format      clang-format, by .clang-format
#   shell       shellcheck
source "$(dirname "$0")/common.sh"

failed=0
# Runs one check under its name.
check() {
  say "lint: $1"
  "${@:2}" || { failed=1; say "lint: $1 has findings"; }
}

# shellcheck disable=SC2317  # called by its name
check_format() {
  find . -path ./build -prune -o \( -name '*.h' -o -name '*.cpp' \) -print0 | sort -z |
    xargs -0 clang-format-14 --dry-run --Werror
}
# shellcheck disable=SC2317  # called by its name
check_shell() { shellcheck scripts/*.sh .ci/run packaging/postinst packaging/prerm packaging/postrm; }

check includes python3 scripts/lint/includes.py
check links python3 scripts/lint/links.py
check format check_format
check shell check_shell
exit "$failed"
