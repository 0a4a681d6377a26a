#!/bin/busybox sh
# shellcheck shell=dash
# First program of the board's initial RAM disk: the card's first partition read only, the second
# for data; then start.sh.
busybox=/bin/busybox
$busybox mkdir -p /proc /sys /dev /root
$busybox mount -t proc proc /proc
$busybox mount -t sysfs sys /sys
$busybox mount -t devtmpfs dev /dev
while read -r module; do $busybox insmod "/modules/$module"; done < /modules/order
until [ -b /dev/mmcblk3p2 ]; do $busybox sleep 0.1; done
$busybox mount -t ext4 -o ro /dev/mmcblk3p1 /root
$busybox mount -t ext4 /dev/mmcblk3p2 /root/data
for place in proc sys dev; do $busybox mount --move /$place /root/$place; done
exec $busybox switch_root /root /usr/lib/board/start.sh
