#!/usr/bin/env bash
# Kills the service with SIGKILL at random instants over whole event lives and counts what is lost, doubled or left over:
#   scripts/prove-kills.sh [--rounds 1000] [--seed N] [--programs DIR]
# A round takes some twelve seconds. Without --programs the release build is made and used.
source "$(dirname "$0")/common.sh"

programs=
arguments=()
while [ $# -gt 0 ]; do
  case $1 in
    --rounds | --seed) arguments+=("$1" "${2:?$1 takes a number}") ;;
    --programs) programs=${2:?--programs takes a directory} ;;
    *) say "unknown option $1: --rounds N, --seed N and --programs DIR are right"; exit 2 ;;
  esac
  shift 2
done
if [ -z "$programs" ]; then
  scripts/build.sh
  programs=build/release/bin
fi
exec python3 -B scripts/prove/kills.py --programs "$programs" "${arguments[@]}"
