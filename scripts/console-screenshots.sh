#!/usr/bin/env bash
# Makes docs/screenshots/console-*.png from a real run with the simulated car: scripts/console-screenshots.sh
source "$(dirname "$0")/common.sh"

scripts/setup.sh --build
home=$(mktemp -d -t tavi-web.XXXXXX)
end() {
  [ -z "${run:-}" ] || kill "$run" 2>/dev/null || true
  [ -z "${run:-}" ] || wait "$run" || true
  rm -rf "$home"
}
trap end EXIT
port=${TAVI_WEB_PORT:-8098}
TAVI_WEB_PORT=$port scripts/run.sh --web "$home/car" >"$home/log" 2>&1 &
run=$!
say "waiting for the console"
until grep -q "^http://" "$home/log"; do
  kill -0 "$run" || { cat "$home/log" >&2; exit 1; }
  sleep 1
done
python3 -B scripts/console_screenshots.py "http://127.0.0.1:$port" "$home"
# Eight bits a pixel: a third of the size, and nobody sees it.
for picture in "$home"/console-*.png; do
  ffmpeg -y -v error -i "$picture" -vf "split[a][b];[a]palettegen=max_colors=192[p];[b][p]paletteuse=dither=none" \
    "docs/screenshots/$(basename "$picture")"
done
ls -l docs/screenshots/console-*.png
