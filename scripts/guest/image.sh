#!/usr/bin/env bash
# Makes what the guest starts from, in the directory of its first argument, from the packages that are the others (called by
# scripts/test-guest.sh): vmlinux and initrd.gz, root.img (Debian with what the packages depend on, kept as long as that and
# this directory stay the same), recorder.img (the packages, and the guest's own scripts).
source "$(dirname "$0")/../common.sh"

cache=$(realpath -m "$1")
shift
recorder=("$@")
here=scripts/guest
# python3 runs the guest's agent, alsa-utils plays into the sound card, v4l-utils lets a camera stand still.
packages=(kmod python3 alsa-utils v4l-utils iproute2 gstreamer1.0-tools)
mkdir -p "$cache"

# What apt-get knows of this machine's mirrors, without a hook or a limit of the sandbox's user.
fetch() { apt-get -o APT::Sandbox::User=root -q download "$@" >&2; }

fetch_kernel() {
  rm -rf "$cache/kernel"
  mkdir -p "$cache/kernel"
  (
    cd "$cache/kernel"
    fetch "linux-image-$release" "linux-headers-$release" "linux-headers-${release%-amd64}-common" "$kbuild" "$compiler"
    for file in *.deb; do dpkg-deb -x "$file" .; done
    rm ./*.deb
  )
  depmod -b "$cache/kernel" "$release"
}

# The accelerometer's driver, against the kernel's headers where they were unpacked.
build_accelerometer() {
  local headers=$cache/kernel/usr/src
  mkdir -p "$cache/module"
  cp $here/accelerometer.c "$cache/module/"
  echo 'obj-m := accelerometer.o' > "$cache/module/Makefile"
  sed -i "s|^include .*|include $headers/linux-headers-${release%-amd64}-common/Makefile|" "$headers/linux-headers-$release/Makefile"
  make -s -C "$headers/linux-headers-$release" M="$cache/module" CC=gcc-12 modules > "$cache/module/log" 2>&1 ||
    { cat "$cache/module/log" >&2; return 1; }
  strip --strip-debug "$cache/module/accelerometer.ko"
}

# The files of modules and of what they need, in the order of their loading.
modules() {
  local name
  for name in "$@"; do modprobe -d "$cache/kernel" -S "$release" --show-depends "$name"; done |
    sed -n 's/^insmod \([^ ]*\).*/\1/p' | awk '!seen[$0]++'
}

make_root() {
  local root=$cache/root part mirror
  mirror=$(sed -n 's/^URIs: //p; s/^deb \(\[[^]]*\] \)*\([^ ]*\) .*/\2/p' /etc/apt/sources.list /etc/apt/sources.list.d/debian.sources \
    2> /dev/null | head -n 1 || true)
  rm -rf --one-file-system "$root"
  debootstrap --variant=minbase --include=ca-certificates bookworm "$root" "${mirror:-http://deb.debian.org/debian}" >&2
  for part in sources.list sources.list.d/debian.sources apt.conf.d; do
    [ ! -e "/etc/apt/$part" ] || { rm -rf "$root/etc/apt/$part"; cp -a "/etc/apt/$part" "$root/etc/apt/$part"; }
  done
  grep -lE 'Post-Invoke' -r "$root/etc/apt/apt.conf.d" | xargs -r rm
  cp -L /etc/resolv.conf "$root/etc/"
  echo force-unsafe-io > "$root/etc/dpkg/dpkg.cfg.d/image"
  chroot "$root" apt-get -q update >&2
  # shellcheck disable=SC2086  # the dependencies are words
  DEBIAN_FRONTEND=noninteractive chroot "$root" apt-get -q install -y --no-install-recommends "${packages[@]}" $depends >&2
  chroot "$root" apt-get clean
  # Or the recorder's first start in the guest looks at every plug-in.
  chroot "$root" env GST_REGISTRY=/var/cache/registry.bin gst-inspect-1.0 > /dev/null
}

add_modules() {
  local file target=$cache/root/lib/modules/$release vivid
  mkdir -p "$target/kernel"
  modules virtio_pci virtio_blk ext4 overlay virtio_console vivid i2c-dev snd-aloop ftdi_sio xhci_pci |
    while read -r file; do cp "$file" "$target/kernel/"; done
  # The second camera is the same driver by another name, so that it can be unbound alone; the signature is not its own.
  vivid=$target/kernel/vivid.ko
  LC_ALL=C sed 's/vivid/vivib/g' "$vivid" > "${vivid%/*}/vivib.ko"
  strip --strip-debug "${vivid%/*}/vivib.ko"
  cp "$cache/module/accelerometer.ko" "$target/kernel/"
  cp "$cache/kernel/lib/modules/$release"/modules.{builtin,builtin.modinfo,order} "$target/"
  depmod -b "$cache/root" "$release"
}

make_initrd() {
  local initrd=$cache/initrd file
  rm -rf "$initrd"
  mkdir -p "$initrd/bin" "$initrd/modules"
  cp /bin/busybox "$initrd/bin/"
  cp $here/init.sh "$initrd/init"
  modules virtio_pci virtio_blk ext4 overlay | while read -r file; do
    cp "$file" "$initrd/modules/"
    basename "$file"
  done > "$initrd/modules.order"
  mv "$initrd/modules.order" "$initrd/modules/order"
  (cd "$initrd" && find . | cpio -o -H newc --quiet | gzip -1) > "$cache/initrd.gz"
  rm -rf "$initrd"
}

# An ext4 image of a directory, with so many megabytes to spare: target, directory, megabytes.
make_image() {
  rm -f "$1.new"
  truncate -s "$(($(du -sm "$2" | cut -f 1) * 12 / 10 + $3))M" "$1.new"
  mke2fs -q -t ext4 -F -m 0 -O ^has_journal -d "$2" "$1.new"
  mv "$1.new" "$1"
}

release=$(apt-cache depends linux-image-amd64 | sed -n 's/.*Depends: linux-image-//p' | head -n 1)
headers=$(apt-cache depends "linux-headers-$release")
kbuild=$(sed -n 's/.*Depends: \(linux-kbuild-.*\)/\1/p' <<< "$headers")
compiler=$(sed -n 's/.*Depends: \(linux-compiler-.*\)/\1/p' <<< "$headers")
# Of others', the first of each choice; what the package manager runs at an installation is not run here.
depends=$(for deb in "${recorder[@]}"; do dpkg-deb -f "$deb" Depends; done | sed 's/([^)]*)//g; s/|[^,]*//g; s/,/\n/g' | tr -d ' ' |
  grep -vE '^(libtavi0|tavi-.*|systemd.*|)$' | sort -u | tr '\n' ' ')
key=$(cat <(echo "$release ${packages[*]} $depends") $here/image.sh $here/init.sh $here/accelerometer.c | sha256sum | cut -d ' ' -f 1)
if [ "$(cat "$cache/key" 2> /dev/null)" != "$key" ]; then
  say "making the guest's image in $cache, once: kernel $release, some 300 MB of packages"
  rm -f "$cache/key"
  fetch_kernel
  build_accelerometer
  make_root
  add_modules
  make_image "$cache/root.img" "$cache/root" 64
  make_initrd
  python3 $here/vmlinux.py "$cache/kernel/boot/vmlinuz-$release" "$cache/vmlinux"
  rm -rf --one-file-system "$cache/root" "$cache/kernel" "$cache/module"
  echo "$release" > "$cache/release"
  echo "$key" > "$cache/key"
fi

# The machine's kept state knows these images; test.py boots it anew where there is none.
key=$(sha256sum "$cache/key" "${recorder[@]}" $here/start.sh $here/{agent.py,feeds.py,fewmodes.c,machine.py} | cut -d ' ' -f 1 | sha256sum)
if [ "$(cat "$cache/recorder.key" 2> /dev/null)" != "$key" ]; then
  rm -f "$cache/recorder.key" "$cache/state"
  staged=$cache/recorder
  rm -rf "$staged"
  mkdir -p "$staged"
  for deb in "${recorder[@]}"; do dpkg-deb -x "$deb" "$staged"; done
  rm -rf "$staged/usr/include" "$staged/usr/share/doc" "$staged/usr/share/man"
  # Of a package's own directory lib, the overlay would hide the link of that name by which all is found.
  [ ! -e "$staged/lib" ] || { mkdir -p "$staged/usr/lib" && cp -a "$staged/lib/." "$staged/usr/lib/" && rm -rf "${staged:?}/lib"; }
  mkdir -p "$staged/usr/lib/guest"
  cp $here/start.sh $here/agent.py "$staged/usr/lib/guest/"
  cp $here/feeds.py "$staged/usr/lib/guest/"
  gcc -O2 -Wall -Wextra -Werror -shared -fPIC $here/fewmodes.c -o "$staged/usr/lib/guest/fewmodes.so"
  make_image "$cache/recorder.img" "$staged" 8
  rm -rf "$staged"
  echo "$key" > "$cache/recorder.key"
fi
