#!/bin/bash
# Runs in the test VM: installs the built packages, lets DKMS build the
# module for the running kernel, loads it, drives it with the installed
# trakctl, checks the udev rules with a udevd of our own (the VM runs none)
# and removes the packages again.
#
#   guest-package-test.sh DEB_DIR HDD
#
# HDD is a scratch disk the filter node goes over. Every check prints "ok"
# or "FAIL" with what it saw; the exit status is the number of failures.
set -u
debs=$1
hdd=$2
failures=0
kver=$(uname -r)
uuid=5d0c7e2a-6a4b-4b1e-9c3e-1f2a3b4c5d6e

# The VM's /dev is a bare devtmpfs; dkms (and bash's <(...)) need /dev/fd,
# which udev or systemd provide on a real system.
[ -e /dev/fd ] || ln -s /proc/self/fd /dev/fd
export DEBIAN_FRONTEND=noninteractive

ok() { echo "ok: $*"; }
fail() {
	echo "FAIL: $*"
	failures=$((failures + 1))
}
# check DESCRIPTION COMMAND...: passes when COMMAND succeeds.
check() {
	local what=$1
	shift
	if "$@"; then ok "$what"; else fail "$what"; fi
}
# same_link LINK EXPECTED DESCRIPTION: compares a link's target.
same_link() {
	local got
	got=$(readlink "$1")
	if [ "$got" = "$2" ]; then ok "$3 ($1 -> $got)"; else fail "$3: $1 -> '$got', want '$2'"; fi
}

echo "== dpkg -i"
check "dpkg -i installs both packages" \
	dpkg -i "$debs"/trak-dkms_*_all.deb "$debs"/trak-tools_*_amd64.deb
module=/lib/modules/$kver/updates/dkms/trak.ko
check "DKMS installed $module" test -f "$module"
check "DKMS built no trak_test.ko" \
	test -z "$(find /lib/modules/"$kver" /var/lib/dkms -name 'trak_test.ko*' 2>/dev/null)"
check "dkms status lists trak as installed for $kver" \
	grep -q "trak/.*, $kver, .*: installed" <(dkms status trak)

echo "== the unit"
unit=/lib/systemd/system/trak.service
check "systemd-analyze verify accepts $unit" systemd-analyze verify "$unit"
for page in /usr/share/man/man*/trak*; do
	check "man -l renders $page without warnings" \
		test -z "$(man --warnings -l "$page" 2>&1 >/dev/null)"
done

echo "== modprobe and trakctl"
check "modprobe trak loads the DKMS module" modprobe trak
check "modinfo finds the module where DKMS put it" \
	test "$(modinfo -n trak)" = "$module"
check "the installed trakctl talks to the driver" /usr/sbin/trakctl status
# With /lib a link to /usr/lib, the loader may name either path.
check "trakctl uses the installed libtrak" \
	grep -Eq "libtrak\.so\.1 => (/usr)?/lib/x86_64-linux-gnu/libtrak\.so\.1" <(ldd /usr/sbin/trakctl)

echo "== udev"
/lib/systemd/systemd-udevd --daemon
udevadm settle --timeout=30
chmod 0666 /dev/trakctl
udevadm trigger --action=change --settle /sys/class/trak/trakctl
check "udev puts /dev/trakctl back to root:root 0600" \
	test "$(stat -c '%a %U:%G' /dev/trakctl)" = "600 root:root"
mkdir -p /tmp/bitmaps
check "add-filter over $hdd" /usr/sbin/trakctl add-filter "$hdd" --extent-size 65536 \
	--bitmap-dir /tmp/bitmaps --name data --uuid "{$uuid}" --minor 3
# udev opens every disk it processes, and a node opens only once started:
# its links come with the change event of the start.
udevadm settle --timeout=30
check "no link before the node is started" test ! -L /dev/trak/by-name/data
check "start the filter" /usr/sbin/trakctl start 3
udevadm settle --timeout=30
same_link /dev/trak/by-name/data ../../trak3 "link by name"
same_link "/dev/trak/by-uuid/$uuid" ../../trak3 "link by uuid"
check "the driver's own /dev/trak/data is still a block device" test -b /dev/trak/data
check "stop the filter" /usr/sbin/trakctl stop 3
check "del the filter" /usr/sbin/trakctl del 3
udevadm settle --timeout=30
check "the links go with the node" \
	test ! -e /dev/trak/by-name/data -a ! -L /dev/trak/by-name/data
udevadm control --exit

echo "== apply and save-state, as the unit runs them"
mkdir -p /etc/trak
printf '[filter boot]\ndevice = %s\nminor = 4\nextent_size = 65536\nbitmap_dir = /tmp/bitmaps\n' \
	"$hdd" >/etc/trak/trak.conf
check "the first apply adds and starts the configured filter" \
	grep -q "^changes made:  2$" <(/usr/sbin/trakctl apply)
check "a second apply changes nothing" \
	grep -q "^changes made:  0$" <(/usr/sbin/trakctl apply)
check "save-state writes its file" /usr/sbin/trakctl save-state
check "the state file is where the unit's next apply looks" test -f /var/lib/trak/snaps.state
check "stop the applied filter" /usr/sbin/trakctl stop 4
check "del the applied filter" /usr/sbin/trakctl del 4
check "rmmod trak" rmmod trak

echo "== dpkg -r"
check "dpkg -r removes both packages" dpkg -r trak-tools trak-dkms
check "the module is gone" test ! -e "$module"
check "trakctl is gone" test ! -e /usr/sbin/trakctl
check "the udev rules are gone" test ! -e /lib/udev/rules.d/60-trak.rules
check "dkms no longer knows trak" test -z "$(dkms status trak)"

echo "$failures failure(s)"
exit "$failures"
