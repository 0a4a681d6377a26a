#!/bin/bash
# The board's first process: mounts, drivers, then the job, which finds on /data what to do and leaves there what it found.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 TZ=UTC
mount -t tmpfs run /run
mount -t tmpfs tmp /tmp
mkdir -p /dev/pts /dev/shm /run/tavi
mount -t devpts devpts /dev/pts
mount -t tmpfs shm /dev/shm
mount -t tmpfs -o size=300m ramdisk /mnt/ramdisk
ln -sf /proc/self/fd /dev/fd

modprobe imx2_wdt
modprobe i2c-imx
modprobe i2c-dev
modprobe snd-aloop pcm_substreams=1 index=0
modprobe vivid n_devs=2 node_types=0x1,0x1 num_inputs=1,1 input_types=0x0,0x0 vid_cap_nr=0,1 no_error_inj=1 multiplanar=1,1
# The other end of the receiver's wire, and one that nobody listens to.
stty -F /dev/ttymxc2 9600 raw -echo
stty -F /dev/ttymxc3 9600 raw -echo

PYTHONDONTWRITEBYTECODE=1 python3 /usr/lib/board/job.py
sync
umount /data
echo b > /proc/sysrq-trigger
sleep 60
