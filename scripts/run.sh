#!/usr/bin/env bash
# A simulated drive with one event: sets up, builds and runs the recorder. Its own arguments go to the recorder, where
# they win over the ones below: scripts/run.sh --duration 30 --count 2
source "$(dirname "$0")/common.sh"

case " $* " in *" --stream"*) scripts/setup.sh --stream ;; esac
# Built once, and without what only other programs need.
scripts/build.sh --target tavi-recorder -DTAVI_BUILD_FLEET=OFF -DTAVI_UNITY=ON
exec build/release/bin/tavi-recorder --simulate --preview --collect-after 12 --start -10 --duration 15 --output build/events "$@"
