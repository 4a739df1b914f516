#!/bin/busybox sh
# shellcheck shell=dash
# /init of the test VM's initramfs (see mkinitramfs.sh).
#
# Loads the virtio, 9p and overlay modules, makes a writable root from the
# host's root file system (9p share "hostroot", read-only) with a tmpfs on
# top, mounts the writable 9p share "out" at /mnt/out in it, and hands over
# to the guest runner whose host path run-vm.sh wrote to
# /mnt/out/harness/runner.

# Any failure here powers the VM off; run-vm.sh then reports that the guest
# never reached the command and shows the end of the console log.
die() {
	echo "trak-vm: init: $*"
	/bin/busybox poweroff -f
}

/bin/busybox mount -t proc proc /proc || die "cannot mount /proc"
/bin/busybox --install -s /bin
export PATH=/bin
mount -t sysfs sysfs /sys || die "cannot mount /sys"
mount -t devtmpfs devtmpfs /dev || die "cannot mount /dev"
# Without a /dev/console in the image the kernel started us with no output.
exec </dev/console >/dev/console 2>&1

# A kernel that has them built in comes with none.
for ko in /modules/*.ko; do
	[ -e "$ko" ] || continue
	insmod "$ko" || die "cannot load $ko"
done

# What a run reads from the host is not expected to change while it runs,
# so the guest may keep it in its page cache (cache=loose): reading the same
# files a second time then takes about a seventh of the time.
mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose hostroot /lower ||
	die "cannot mount the host root (9p tag hostroot)"
mount -t tmpfs -o mode=755 upper /upper || die "cannot mount the tmpfs"
mkdir /upper/data /upper/work
mount -t overlay -o lowerdir=/lower,upperdir=/upper/data,workdir=/upper/work \
	root /newroot || die "cannot mount the overlay root"
mkdir -p /newroot/mnt/out
# No caching on the results share: the host reads it once the VM is gone,
# and a hung run leaves behind whatever reached it.
mount -t 9p -o trans=virtio,version=9p2000.L out /newroot/mnt/out ||
	die "cannot mount the out share (9p tag out)"
read -r runner </newroot/mnt/out/harness/runner ||
	die "no /mnt/out/harness/runner"
[ -x "/newroot$runner" ] || die "runner $runner is not executable"

# /dev holds our console: detach it lazily.
umount /proc /sys
umount -l /dev
exec switch_root /newroot "$runner"
