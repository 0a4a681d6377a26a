#!/bin/busybox sh
# shellcheck shell=dash
# First program of the guest's initial RAM disk: the root disk and, above it, the recorder's disk, both read only and below a
# RAM disk; then start.sh of the recorder's disk.
busybox=/bin/busybox
$busybox mkdir -p /proc /sys /dev /root /base /recorder /changes
$busybox mount -t proc proc /proc
$busybox mount -t sysfs sys /sys
$busybox mount -t devtmpfs dev /dev
while read -r module; do $busybox insmod "/modules/$module"; done < /modules/order
$busybox mount -t ext4 -o ro /dev/vda /base
$busybox mount -t ext4 -o ro /dev/vdb /recorder
$busybox mount -t tmpfs -o size=256m changes /changes
$busybox mkdir /changes/upper /changes/work
$busybox mount -t overlay -o lowerdir=/recorder:/base,upperdir=/changes/upper,workdir=/changes/work overlay /root
for place in proc sys dev; do $busybox mount --move /$place /root/$place; done
exec $busybox switch_root /root /usr/lib/guest/start.sh
