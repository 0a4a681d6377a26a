# shellcheck shell=bash
# What the scripts share. Sourced, not run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Says what is going on, on standard error: standard output belongs to the program that is run in the end.
say() { printf '== %s\n' "$*" >&2; }

# Build jobs: all processors.
# shellcheck disable=SC2034  # used where this is sourced
jobs=$(nproc)
