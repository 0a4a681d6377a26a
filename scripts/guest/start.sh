#!/bin/bash
# The guest's first process: mounts, drivers, then the agent until it ends, which mounts the disk under test on /data.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 TZ=UTC
mount -t tmpfs run /run
mkdir -p /dev/pts /dev/shm /mnt/ramdisk /data /run/tavi
mount -t devpts devpts /dev/pts
mount -t tmpfs shm /dev/shm
mount -t tmpfs -o size=400m ramdisk /mnt/ramdisk
ln -sf /proc/self/fd /dev/fd

# Two drivers of one source, so that one camera can be unbound alone: vivid is /dev/video0, vivib /dev/video1.
camera="n_devs=1 node_types=0x1 num_inputs=1 input_types=0x0 no_error_inj=0 multiplanar=1"
# shellcheck disable=SC2086  # the options are words
modprobe vivid $camera vid_cap_nr=0
# shellcheck disable=SC2086
modprobe vivib $camera vid_cap_nr=1
modprobe i2c-dev
modprobe accelerometer
modprobe snd-aloop pcm_substreams=1 index=0
modprobe ftdi_sio
modprobe xhci_pci
modprobe virtio_console
until ls /dev/vport*p4 > /dev/null 2>&1; do sleep 0.05; done

python3 /usr/lib/guest/agent.py
sync
umount /data
echo o > /proc/sysrq-trigger
sleep 60
