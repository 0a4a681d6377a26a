#!/usr/bin/env bash
# A simulated drive with one event: sets up, builds and runs the recorder. Its own arguments go to the recorder, where
# they win over the ones below: scripts/run.sh --duration 30 --count 2
# With --web [DIR] a service instead, with the console for the browser, until Ctrl-C; in DIR it finds its events again.
source "$(dirname "$0")/common.sh"

# Ends what it has started, the console first.
end() {
  trap - EXIT INT TERM
  for process in "${web:-}" "${recorder:-}"; do
    [ -z "$process" ] || kill "$process" 2>/dev/null || true
    [ -z "$process" ] || wait "$process" || true
  done
  [ -z "${temporary:-}" ] || rm -rf "$temporary"
}

run_web() {
  local dir=${1:-}
  [ -n "$dir" ] || { temporary=$(mktemp -d -t tavi-web.XXXXXX); dir=$temporary; }
  scripts/build.sh --target tavi-recorder --target tavi-web
  mkdir -p "$dir"
  trap end EXIT
  trap 'exit 0' INT TERM
  build/release/bin/tavi-recorder run --simulate --output "$dir" --control "$dir/control/socket" &
  recorder=$!
  say "the console, until Ctrl-C; its address:"
  build/release/bin/tavi-web --port "${TAVI_WEB_PORT:-8080}" --control "$dir/control/socket" &
  web=$!
  # Whichever ends by itself ends both.
  wait -n "$recorder" "$web"
}

if [ "${1:-}" = --web ]; then
  [ $# -le 2 ] || { say "--web takes one directory at most"; exit 2; }
  run_web "${2:-}"
  exit
fi
case " $* " in *" --stream"*) scripts/setup.sh --stream ;; esac
# Without what only other programs need.
scripts/build.sh --target tavi-recorder -DTAVI_BUILD_FLEET=OFF
exec build/release/bin/tavi-recorder --simulate --preview --collect-after 12 --start -10 --duration 15 --output build/events "$@"
