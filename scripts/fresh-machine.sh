# shellcheck shell=bash
# A minimal Debian 12 in a directory of its own, made by debootstrap from this machine's mirror and settings of apt, with the
# committed state of this tree in /root/tavi. Sourced behind common.sh, by scripts that need root; it goes with the script.
# Afterwards: in_fresh_machine COMMAND...

[ "$(id -u)" -eq 0 ] || { say "needs root, for debootstrap and chroot"; exit 2; }
# Its mounts are nobody else's, and go with it.
[ -n "${TAVI_OWN_MOUNTS:-}" ] || exec env TAVI_OWN_MOUNTS=1 unshare --mount "scripts/${0##*/}" "$@"
command -v debootstrap > /dev/null || apt-get install -y --no-install-recommends debootstrap >&2
mirror=$(sed -n 's/^URIs: //p; s/^deb \(\[[^]]*\] \)*\([^ ]*\) .*/\2/p' /etc/apt/sources.list /etc/apt/sources.list.d/debian.sources \
  2> /dev/null | head -n 1 || true)
machine=$(mktemp -d "${TMPDIR:-/var/tmp}/tavi-${0##*/}-XXXXXX")
# It is the root directory of all users there.
chmod 0755 "$machine"
# Never through what may still be mounted.
trap 'umount -R "$machine/proc" "$machine/dev/pts" "$machine/dev/shm" || true; rm -rf --one-file-system "$machine"' EXIT

say "making a fresh machine in $machine"
debootstrap --variant=minbase --include=ca-certificates bookworm "$machine" "${mirror:-http://deb.debian.org/debian}" >&2
for part in sources.list sources.list.d apt.conf.d preferences.d trusted.gpg.d; do
  [ ! -e "/etc/apt/$part" ] || { rm -rf "$machine/etc/apt/$part"; cp -a "/etc/apt/$part" "$machine/etc/apt/"; }
done
# Hooks of programs that are not there.
grep -lE 'Post-Invoke' -r "$machine/etc/apt/apt.conf.d" | xargs -r rm
cp -a /usr/share/keyrings/. "$machine/usr/share/keyrings/"
cp -L /etc/resolv.conf /etc/hosts "$machine/etc/"
mkdir -p "$machine/dev/shm" "$machine/dev/pts"
mount -t proc proc "$machine/proc"
mount -t tmpfs tmpfs "$machine/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$machine/dev/pts"
ln -sf pts/ptmx "$machine/dev/ptmx"
git clone -q . "$machine/root/tavi"

in_fresh_machine() { chroot "$machine" /usr/bin/env HOME=/root LC_ALL=C.UTF-8 "$@"; }
