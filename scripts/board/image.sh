#!/usr/bin/env bash
# Makes what the board starts from, in the directory of its first argument, from the armhf packages that are the others but the
# last, and the plug-in of hardware elements that cost nothing, which is the last (called by scripts/test-board.sh): zImage,
# board.dtb, initrd.gz, and card.img, an SD card with Debian, what the packages depend on, and the packages. What is Debian's is kept as
# long as that and this directory stay the same. Nothing of it touches this machine's packages: apt works for armhf in a
# directory of its own, and what must run on the way is run by an emulator that is unpacked there.
source "$(dirname "$0")/../common.sh"

cache=$(realpath -m "$1")
shift
recorder=("${@:1:$#-1}")
free=${*: -1}
here=scripts/board
# Nothing is configured, so what a package wants before its own is named, too. python3 runs the job, alsa-utils plays.
packages=(base-files base-passwd bash coreutils libc-bin util-linux mount kmod busybox-static python3 alsa-utils gstreamer1.0-tools)
modules=(sdhci-esdhc-imx gpio-mxc ext4)
# The watchdog is what restarts the board.
drivers=(i2c-imx i2c-dev snd-aloop vivid imx2_wdt)
mkdir -p "$cache"

# apt for armhf, which knows of no package that is installed.
for_board() {
  local command=$1 apt=$cache/apt
  shift
  "$command" -q -o Dir::State="$apt/state" -o Dir::State::status="$apt/status" -o Dir::Cache="$apt/cache" -o Dir::Etc="$apt/etc" \
    -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User=root "$@"
}

update_lists() {
  local apt=$cache/apt mirror suite
  mirror=$(sed -n 's/^URIs: //p; s/^deb \(\[[^]]*\] \)*\([^ ]*\) .*/\2/p' /etc/apt/sources.list /etc/apt/sources.list.d/debian.sources \
    2> /dev/null | head -n 1 || true)
  mkdir -p "$apt"/{state/lists/partial,cache/archives/partial,etc/apt.conf.d,etc/preferences.d}
  : > "$apt/status"
  for suite in bookworm bookworm-updates; do
    echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] ${mirror:-http://deb.debian.org/debian} $suite main"
  done > "$apt/etc/sources.list"
  for_board apt-get update >&2
}

# The unit's emulator needs no kernel that knows of it: each program is given to it.
run_emulated() { chroot "$1" /emulator "${@:2}"; }

fetch_kernel() {
  local dtb=$cache/board.dtb node alias
  rm -rf "$cache/kernel"
  mkdir -p "$cache/kernel"
  (
    cd "$cache/kernel"
    for_board apt-get download "linux-image-$release" >&2
    dpkg-deb -x ./*.deb .
    rm ./*.deb
  )
  depmod -b "$cache/kernel" "$release"
  cp "$cache/kernel/boot/vmlinuz-$release" "$cache/zImage"
  cp "$cache/kernel/usr/lib/linux-image-$release/imx6q-sabrelite.dtb" "$dtb"
  # The emulated board has no engine for its ports' DMA, and a driver that is told of one waits for it for ever. The third
  # port is the other end of the first one's wire, the fourth leads nowhere.
  for alias in serial0 serial1 serial2 serial3; do
    node=$(fdtget -t s "$dtb" /aliases "$alias")
    fdtput -d "$dtb" "$node" dmas dma-names 2> /dev/null || true
    fdtput -t s "$dtb" "$node" status okay
  done
  # The emulated processor's own timer has another clock than the one that the kernel reckons with, so that all sleep for too long.
  # Without it the kernel takes the board's.
  fdtput -t s "$dtb" /soc/timer@a00600 status disabled
}

# The files of modules and of what they need, in the order of their loading.
list_modules() {
  local name
  for name in "$@"; do modprobe -d "$cache/kernel" -S "$release" --show-depends "$name"; done |
    sed -n 's/^insmod \([^ ]*\).*/\1/p' | awk '!seen[$0]++'
}

make_root() {
  local root=$cache/root place deb
  rm -rf "$root" "$cache/apt/cache/archives"
  mkdir -p "$root"/usr/{bin,sbin,lib} "$root"/{proc,sys,dev,run,tmp,data,mnt/ramdisk} "$cache/apt/cache/archives/partial"
  for place in bin sbin lib; do ln -s "usr/$place" "$root/$place"; done
  # shellcheck disable=SC2086  # the dependencies are words
  for_board apt-get install -y --no-install-recommends --download-only "${packages[@]}" $depends >&2
  for deb in "$cache"/apt/cache/archives/*.deb; do
    dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$root" --keep-directory-symlink --exclude='./usr/share/doc/*' --exclude='./usr/share/man/*' \
      --exclude='./usr/share/locale/*'
  done
  rm -rf "$cache/apt/cache/archives"
  cp "$root/usr/share/base-passwd/passwd.master" "$root/etc/passwd"
  cp "$root/usr/share/base-passwd/group.master" "$root/etc/group"
  (
    mkdir -p "$cache/emulator"
    cd "$cache/emulator"
    apt-get -o APT::Sandbox::User=root -q download qemu-user-static >&2
    dpkg-deb --fsys-tarfile ./*.deb | tar -xO ./usr/bin/qemu-arm-static > "$root/emulator"
  )
  rm -rf "$cache/emulator"
  chmod +x "$root/emulator"
}

add_drivers() {
  local file target=$cache/root/lib/modules/$release
  mkdir -p "$target/kernel"
  list_modules "${drivers[@]}" | while read -r file; do cp "$file" "$target/kernel/"; done
  cp "$cache/kernel/lib/modules/$release"/modules.{builtin,builtin.modinfo,order} "$target/"
  depmod -b "$cache/root" "$release"
}

# Writes GStreamer's list of plug-ins into a file, and makes sure whose camera is in it.
make_registry() {
  local name=$1 plugin=$2
  shift 2
  run_emulated "$staged" -E GST_REGISTRY_FORK=no -E "GST_REGISTRY=/var/cache/$name" "$@" /usr/bin/gst-inspect-1.0 imxv4l2videosrc |
    grep "^ *Name *$plugin\$" > /dev/null || { say "the cameras of $name are not $plugin's"; return 1; }
}

make_initrd() {
  local initrd=$cache/initrd file
  rm -rf "$initrd"
  mkdir -p "$initrd/bin" "$initrd/modules"
  cp "$cache/root/bin/busybox" "$initrd/bin/"
  cp $here/init.sh "$initrd/init"
  list_modules "${modules[@]}" | while read -r file; do
    cp "$file" "$initrd/modules/"
    basename "$file"
  done > "$initrd/order"
  mv "$initrd/order" "$initrd/modules/order"
  (cd "$initrd" && find . | cpio -o -H newc --quiet | gzip -1) > "$cache/initrd.gz"
  rm -rf "$initrd"
}

update_lists || say "the lists of packages are not up to date; those of the last time are taken"
release=$(for_board apt-cache depends linux-image-armmp | sed -n 's/.*Depends: linux-image-//p' | head -n 1)
[ -n "$release" ] || { say "apt knows no kernel for armhf"; exit 1; }
# Of others', the first of each choice.
depends=$(for deb in "${recorder[@]}"; do dpkg-deb -f "$deb" Depends; done | sed 's/([^)]*)//g; s/|[^,]*//g; s/,/\n/g' | tr -d ' ' |
  grep -vE '^(libtavi0|tavi-.*|systemd.*|)$' | sort -u | tr '\n' ' ')
key=$(cat <(echo "$release ${packages[*]} $depends") $here/image.sh $here/init.sh | sha256sum | cut -d ' ' -f 1)
if [ "$(cat "$cache/key" 2> /dev/null)" != "$key" ]; then
  say "making the board's system in $cache, once: kernel $release, some 200 MB of packages"
  rm -f "$cache/key" "$cache/system.key"
  fetch_kernel
  make_root
  add_drivers
  make_initrd
  rm -rf "$cache/kernel"
  echo "$key" > "$cache/key"
fi

key=$(sha256sum "$cache/key" "${recorder[@]}" "$free" $here/{start.sh,job.py,instructions.py} scripts/guest/feeds.py | cut -d ' ' -f 1 | sha256sum)
if [ "$(cat "$cache/system.key" 2> /dev/null)" != "$key" ]; then
  rm -f "$cache/system.key"
  staged=$cache/staged
  rm -rf "$staged"
  # Files of Debian's are shared, and no package of the recorder's has one of their names.
  cp -al "$cache/root" "$staged"
  for deb in "${recorder[@]}"; do dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$staged" --keep-directory-symlink; done
  mkdir -p "$staged/usr/lib/board/free"
  cp $here/start.sh $here/job.py $here/instructions.py scripts/guest/feeds.py "$staged/usr/lib/board/"
  cp "$free" "$staged/usr/lib/board/free/"
  run_emulated "$staged" /sbin/ldconfig
  # Or the recorder's first start looks at every plug-in, which takes the board some ten seconds.
  make_registry registry.bin softimx
  make_registry registry-free.bin tavifree -E GST_PLUGIN_PATH=/usr/lib/board/free
  rm -f "$staged/emulator"
  # Two partitions; what is to be in the second is the test's business. An SD card's size is a power of two.
  rm -f "$cache/card.img"
  truncate -s 2G "$cache/card.img"
  printf '1MiB,1GiB,L\n1025MiB,512MiB,L\n' | sfdisk -q --label dos "$cache/card.img"
  mke2fs -q -t ext4 -F -m 0 -O ^has_journal -E offset=$((1 << 20)) -d "$staged" "$cache/card.img" 1G
  rm -rf "$staged"
  echo "$key" > "$cache/system.key"
fi
