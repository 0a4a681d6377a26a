#!/usr/bin/env bash
# How much the recorder's service, and those beside it, could do that they need not: scripts/check-unit.sh. Prints what systemd-analyze holds against
# it and its figure from 0 to 10; more than 2.0, or a line that systemd does not understand, is an error. Needs no running
# systemd.
source "$(dirname "$0")/common.sh"

highest=20  # tenths
command -v systemd-analyze > /dev/null || { say "systemd-analyze is missing: install systemd"; exit 77; }
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
# What the units name is there in a tree of their own, so that nothing of this machine plays a part.
units=$tree/usr/lib/systemd/system
mkdir -p "$units/tavi-recorder.service.d" "$tree"/usr/{bin,lib/sysusers.d} "$tree/etc" "$tree/bin"
cp packaging/tavi-recorder.service packaging/unit/tavi-* "$units"
cp packaging/unit/10-unit.conf "$units/tavi-recorder.service.d"
for program in usr/bin/tavi-recorder bin/sh bin/kill bin/systemctl; do install -m 755 /dev/null "$tree/$program"; done
# Of other packages, which the units only order themselves by.
understood=$(systemd-analyze verify --root="$tree" --man=no --recursive-errors=no "$units/tavi-recorder.service" 2>&1 || true)
if [ -n "$understood" ]; then
  echo "$understood"
  exit 1
fi
systemd-sysusers --root="$tree" "$PWD/packaging/sysusers.conf" 2> /dev/null
user=$(grep '^tavi:' "$tree/etc/passwd") || { echo "sysusers.conf makes no user tavi"; exit 1; }
echo "user: $user"
echo "groups: $(grep -E '[:,]tavi(,|$)|^tavi:' "$tree/etc/group" | cut -d: -f1 | sort | paste -sd' ')"
systemd-analyze security --offline=true --no-pager --threshold="$highest" packaging/tavi-recorder.service |
  grep -Ev '^ *✓|^ *NAME|^$' | sed -E 's/ {2,}/  /g'

# A program beside it, with a user of its own: check_beside NAME
check_beside() {
  cp "packaging/$1.service" "$units"
  install -m 755 /dev/null "$tree/usr/bin/$1"
  systemd-sysusers --root="$tree" "$PWD/packaging/$1.sysusers" 2> /dev/null
  grep -q "^$1:" "$tree/etc/passwd" || { echo "there is no user $1"; exit 1; }
  understood=$(systemd-analyze verify --root="$tree" --man=no --recursive-errors=no "$units/$1.service" 2>&1 || true)
  [ -z "$understood" ] || { echo "$understood"; exit 1; }
  systemd-analyze security --offline=true --no-pager --threshold="$highest" "packaging/$1.service" | tail -1
}
check_beside tavi-upload
check_beside tavi-mqtt
check_beside tavi-web
