#!/usr/bin/env bash
# Runs the commands of the documentation as somebody who pastes them line by line, and says which fail:
#   scripts/check-readme.sh [--fresh] [--all] [--twice] [--programs DIR] [FILE...]
#   --fresh         on a fresh machine (fresh-machine.sh; needs root): its committed state, built there
#   --all           also what takes long: the tests
#   --twice         the second time with what the first has left
#   --programs DIR  with the programs of DIR, and without what builds them; what lies under /tmp lies in a directory of its own
# Commands are the lines of the blocks that are marked "sh" in each FILE, README.md unless others are given. What needs
# devices that are not there is named and left out.
source "$(dirname "$0")/common.sh"

arguments=("$@")
fresh=
all=
rounds=1
programs=
files=()
while [ $# -gt 0 ]; do
  case $1 in
    --fresh) fresh=1 ;;
    --all) all=1 ;;
    --twice) rounds=2 ;;
    --programs) programs=${2:?--programs takes a directory}; shift ;;
    -*) say "unknown option $1"; exit 2 ;;
    *) files+=("$1") ;;
  esac
  shift
done
[ ${#files[@]} -gt 0 ] || files=(README.md)

if [ -n "$fresh" ]; then
  set -- "${arguments[@]}"
  source scripts/fresh-machine.sh
  inside=()
  for argument in "${arguments[@]}"; do [ "$argument" = --fresh ] || inside+=("$argument"); done
  in_fresh_machine /root/tavi/scripts/check-readme.sh "${inside[@]}"
  exit
fi

# Each command as "FILE:LINE<tab>COMMAND"; lines that go on in the next are one.
list_commands() {
  awk '
    /^```/ { inside = ($0 == "```sh"); next }
    inside && $0 != "" {
      if (command == "") line = FNR
      command = command $0
      if (sub(/\\$/, "", command)) next
      printf "%s:%d\t%s\n", FILENAME, line, command
      command = ""
    }' "$@"
}

# Why a command cannot be run here; nothing when it can.
find_obstacle() {
  local device
  case $1 in
    *scripts/test.sh* | *scripts/bench.sh* | *scripts/soak.sh* | *scripts/fuzz.sh*) [ -n "$all" ] || echo "takes long; --all runs it" ;;
    *scripts/*) [ -z "$programs" ] || echo "builds" ;;
    *"tavi-recorder --output"*) [[ $1 = *--simulate* || -e /dev/video1 ]] || echo "there is no /dev/video1" ;;
  esac
  for device in $(grep -o '/dev/[a-zA-Z0-9]*' <<< "$1" || true); do [ -e "$device" ] || echo "there is no $device"; done
}

own=
if [ -n "$programs" ]; then
  [ -x "$programs/tavi-recorder" ] || { say "--programs: there is no tavi-recorder in $programs"; exit 2; }
  programs=$(realpath "$programs")
  own=$(mktemp -d "${TMPDIR:-/tmp}/tavi-readme-XXXXXX")
fi
finish() {
  local left i
  for ((i = 0; i < 100; ++i)); do
    left=$(jobs -rp)
    [ -n "$left" ] || break
    sleep 0.1
  done
  # shellcheck disable=SC2086  # one word a process
  [ -z "$left" ] || { say "still running at the end, and ended: $left"; kill $left || true; wait || true; }
  [ -z "$own" ] || rm -rf "$own"
}
trap finish EXIT

failed=0
ran=0
left_out=0
set +e
for ((round = 1; round <= rounds; ++round)); do
  while IFS=$'\t' read -r -u 3 place command; do
    obstacle=$(find_obstacle "$command" | head -n 1)
    if [ -n "$obstacle" ]; then
      say "$place: left out ($obstacle): $command"
      ((++left_out))
      continue
    fi
    if [ -n "$programs" ]; then
      command=${command//build\/release\/bin/$programs}
      command=${command//\/tmp\//$own/}
    fi
    say "$place: $command"
    eval "$command"
    status=$?
    ((++ran))
    # tavi-ctl event --wait: saved, and something is missing, which is the machine's load and no mistake of the command.
    if [ "$status" -eq 5 ] && [[ $command = *" event "* ]]; then
      say "$place: not all of the event is there"
    elif [ "$status" -ne 0 ]; then
      say "$place: FAILED with status $status"
      ((++failed))
    fi
  done 3< <(list_commands "${files[@]}")
done
say "$ran commands ran, $failed of them failed, $left_out were left out"
[ "$failed" -eq 0 ]
