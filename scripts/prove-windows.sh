#!/usr/bin/env bash
# Asks a simulated car's recorder for events of random start and length, alone and in bursts, with cameras that keep their
# rate and cameras that do not, and compares what was asked for with what the files show:
#   scripts/prove-windows.sh [--events 300] [--shares 0.5 1 ...] [--seed 1] [--keep]
# Prints a table, and exits 1 where a goal is missed. Some ten seconds an event.
source "$(dirname "$0")/common.sh"

scripts/build.sh
exec python3 -B scripts/prove/windows.py "$@"
