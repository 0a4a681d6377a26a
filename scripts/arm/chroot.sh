# shellcheck shell=bash disable=SC2154  # sourced by scripts/test-arm.sh, which sets root, tree, architecture, triple and so on
# The chroot in which another processor's programs are built and run.

# Libraries and plug-ins of the other architecture, named as scripts/setup.sh names this machine's.
foreign=(
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  libavformat-dev libavcodec-dev libavutil-dev libyuv-dev libturbojpeg0-dev
  libasound2-dev libsystemd-dev libssl-dev libspdlog-dev libfmt-dev uuid-dev
  libgstrtspserver-1.0-dev libmicrohttpd-dev libarchive-dev libmosquitto-dev
  libgtest-dev libgmock-dev libumockdev-dev umockdev libbenchmark-dev libboost-dev
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-alsa
  gstreamer1.0-tools
)
# Tools run as this machine's own, without the emulator.
native=(
  cmake ninja-build pkg-config ccache python3 git file dpkg-dev debhelper nlohmann-json3-dev libcli11-dev qemu-user-static qemu-user
  ffmpeg gpsd gpsd-clients libxml2-utils rclone libcjson1 libdlt2 libwrap0 openssl
)

list_packages() { printf '%s\n' "${native[@]}" "${foreign[@]}"; }

# Makes $root by debootstrap. The file "ready" in it says that it was finished, and with what.
make_chroot() {
  local mirror
  mirror=$(sed -n 's/^URIs: //p; s/^deb \(\[[^]]*\] \)*\([^ ]*\) .*/\2/p' /etc/apt/sources.list /etc/apt/sources.list.d/debian.sources \
    2> /dev/null | head -n 1 || true)
  mirror=${mirror:-http://deb.debian.org/debian}
  say "making a chroot for $architecture in $root"
  rm -rf --one-file-system "$root"
  {
    debootstrap --variant=minbase --include=ca-certificates bookworm "$root" "$mirror"
    # The same suites for both architectures: their libraries must be of one version.
    printf 'deb %s %s main\n' "$mirror" bookworm "$mirror" bookworm-updates > "$root/etc/apt/sources.list"
    cp -L /etc/resolv.conf /etc/hosts "$root/etc/"
    cp -a /etc/apt/apt.conf.d/*proxy* "$root/etc/apt/apt.conf.d/" 2> /dev/null || true
    mount -t proc proc "$root/proc"
    chroot "$root" dpkg --add-architecture "$architecture"
    chroot "$root" apt-get update
    chroot "$root" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
      "crossbuild-essential-$architecture" "${native[@]}" "${foreign[@]/%/:$architecture}"
    chroot "$root" apt-get clean
    rm -rf "$root"/var/lib/apt/lists/*
    umount "$root/proc"
  } > "$cache/$architecture.log" 2>&1 || { say "failed: $(grep -E '^(E|W):' "$cache/$architecture.log" | tail -n 1); $cache/$architecture.log has the rest"; exit 1; }
  list_packages > "$root/ready"
}

# What runs in the chroot sees this tree where it is, and the compiler's cache where there is one.
mount_chroot() {
  local cached
  mkdir -p "$root$tree" "$root/dev/shm" "$root/dev/pts" "$root/ccache"
  mount -t proc proc "$root/proc"
  mount -t sysfs -o ro sysfs "$root/sys"
  mount -t tmpfs tmpfs "$root/dev/shm"
  mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
  ln -sf pts/ptmx "$root/dev/ptmx"
  mount --bind "$tree" "$root$tree"
  cached=$(ccache --get-config cache_dir 2> /dev/null) || cached=
  [ -z "$cached" ] || { mkdir -p "$cached" && mount --bind "$cached" "$root/ccache"; }
}

# Tells the kernel of the emulator. In a user namespace of one's own that is nobody else's business.
register_emulator() {
  local name="$emulator" magic mask
  magic="\\x7fELF$class"'\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00'"$machine"'\x00'
  mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
  grep -qs enabled "/proc/sys/fs/binfmt_misc/$name" && return
  if ! mount -t binfmt_misc none "$root/proc/sys/fs/binfmt_misc" ||
    ! printf '%s' ":$name:M::$magic:$mask:$root/usr/bin/$emulator-static:OCF" > "$root/proc/sys/fs/binfmt_misc/register"; then
    say "this kernel knows no emulator for $architecture, and cannot be told for this run alone: apt-get install qemu-user-static"
    return 1
  fi
}

# Runs a command in the tree within the chroot. Root there is root of a user namespace, so that the emulator is known there only.
run_in_chroot() {
  export -f register_emulator say
  export root tree architecture emulator class machine
  # shellcheck disable=SC2016  # expanded by the inner shells
  unshare --user bash -c 'until read -r _ < /proc/self/gid_map; do sleep 0.05; done; exec unshare --mount bash -c "$0" "$@"' '
    register_emulator || exit 2
    keep=(); for name in "${!TAVI_ARM_@}"; do keep+=("$name=${!name}"); done
    exec chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 TZ=UTC CCACHE_DIR=/ccache \
      CCACHE_BASEDIR="$(dirname "$tree")" CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime \
      PKG_CONFIG_LIBDIR="/usr/lib/$TAVI_ARM_TRIPLE/pkgconfig:/usr/share/pkgconfig" "${keep[@]}" \
      bash -c "cd \"\$0\" && exec \"\$@\"" "$tree" "$@"' run "$@" &
  local inner=$!
  until [ "$(readlink "/proc/$inner/ns/user")" != "$(readlink /proc/self/ns/user)" ]; do sleep 0.05; done
  # Empty until written, which is what the inner shell waits for.
  printf '0 0 4294967295\n' > "/proc/$inner/uid_map"
  printf '0 0 4294967295\n' > "/proc/$inner/gid_map"
  wait "$inner"
}
