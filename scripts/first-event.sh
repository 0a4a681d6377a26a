#!/usr/bin/env bash
# How long a fresh machine takes from a checkout to its first event, packages included: scripts/first-event.sh
# The fresh machine is that of fresh-machine.sh. Needs root. The result stays in build/first-event.txt.
source "$(dirname "$0")/common.sh"
source scripts/fresh-machine.sh

mkdir -p build
start=$(date +%s)
# The time in front of each line that a script says.
stamp() { while IFS= read -r line; do case $line in '== '*) printf '%4d s %s\n' $(($(date +%s) - start)) "$line" ;; esac; done; }
in_fresh_machine /root/tavi/scripts/run.sh 2> >(tee "$PWD/build/first-event.log" | stamp >&2)
took=$(($(date +%s) - start))
printf '%d s on %s, %s\n' "$took" "$(date +%F)" "$(git rev-parse --short HEAD)" | tee build/first-event.txt
