#!/usr/bin/env bash
# Builds and runs the fuzz targets, two at a time: scripts/fuzz.sh [--seconds N] [target...]
source "$(dirname "$0")/common.sh"

seconds=30
if [ "${1:-}" = --seconds ]; then
  seconds=${2:?--seconds takes a number}
  shift 2
fi
known=$(sed -n 's/^tavi_fuzz(\([A-Za-z0-9]*\) .*/\1/p' fuzz/CMakeLists.txt)
mapfile -t targets < <(if [ $# -gt 0 ]; then printf '%s\n' "$@"; else printf '%s\n' "$known"; fi)
for target in "${targets[@]}"; do
  grep -qx "$target" <<<"$known" || { say "no target $target; there are ${known//$'\n'/ }"; exit 2; }
done

out=build/fuzz
real=$out/receivers
mkdir -p "$out/artifacts" "$out/logs"
(
  flock 9  # several runs may share the folder
  cmake --preset fuzz >"$out/logs/configure.txt"
  ninja -C "$out" "${targets[@]}" >&2
  # What receivers really sent, as single lines and as whole epochs: further inputs that are only read.
  logs=${TAVI_NMEA_LOGS:-../shared/data/nmea}
  if [ ! -d "$real" ] && compgen -G "$logs/*.log" >/dev/null; then
    mkdir -p "$real.new"
    cat "$logs"/*.log | split -a 4 -l 1 - "$real.new/line-"
    cat "$logs"/*.log | split -a 4 -l 12 - "$real.new/epoch-"
    mv "$real.new" "$real"
  fi
) 9>"$out/lock"
[ -d "$real" ] || { say "no receivers' logs: seeds only"; mkdir -p "$real"; }

# Runs one target; its last line of output is the verdict.
run() {
  local name=$1 corpus=$out/corpus/$1 log=$out/logs/$1.txt status=0
  mkdir -p "$corpus"
  "$out/bin/$name" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=1024 -print_final_stats=1 -verbosity=1 \
    -artifact_prefix="$out/artifacts/$name-" "$corpus" "fuzz/seeds/$name" "$real" >"$log" 2>&1 || status=$?
  local runs
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  if [ "$status" -eq 0 ] && [ -n "$runs" ]; then
    echo "$name: $runs runs in $seconds s, no finding"
  else
    grep -E 'ERROR|SUMMARY|Test unit written|runtime error' "$log" || tail -n 5 "$log"
    echo "$name: FINDING, see $log and $out/artifacts"
    return 1
  fi
}

failed=0
for target in "${targets[@]}"; do
  if [ "$(jobs -rp | wc -l)" -ge 2 ]; then wait -n || failed=1; fi
  run "$target" &
done
while [ -n "$(jobs -p)" ]; do wait -n || failed=1; done
exit "$failed"
