#!/usr/bin/env bash
# Ten live viewers at a simulated car's recorder over HTTP, three of them stalled, and events meanwhile: what the recorder's
# counters, the events and the viewers' pictures say of lost frames, and how soon pictures come:
#   scripts/prove-live.sh [--seconds 60] [--viewers 10] [--stalled 3] [--programs build/release/bin] [--width 640] [--height 360]
# A first run without viewers tells what the machine itself loses. Prints a table, and exits 1 where a goal is missed.
source "$(dirname "$0")/common.sh"

case "$*" in *--programs*) ;; *) scripts/build.sh --target all ;; esac
exec python3 -B scripts/prove/live.py "$@"
