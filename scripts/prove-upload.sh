#!/usr/bin/env bash
# Sends events to rclone's own servers and kills tavi-upload, its rclone and the server at random instants; counts what is lost,
# doubled, or says that it is whole and is not:
#   scripts/prove-upload.sh [--events 200] [--kills 100] [--server webdav|sftp] [--seed N] [--programs DIR]
# 200 events and 100 kills take some ten minutes. Without --programs the release build is made and used.
source "$(dirname "$0")/common.sh"

programs=
arguments=()
while [ $# -gt 0 ]; do
  case $1 in
    --events | --kills | --seed | --server) arguments+=("$1" "${2:?$1 takes a value}") ;;
    --programs) programs=${2:?--programs takes a directory} ;;
    *) say "unknown option $1: --events N, --kills N, --server KIND, --seed N and --programs DIR are right"; exit 2 ;;
  esac
  shift 2
done
if [ -z "$programs" ]; then
  scripts/build.sh
  programs=build/release/bin
fi
exec python3 -B scripts/prove/uploads.py --programs "$programs" "${arguments[@]}"
