#!/bin/sh
# Installs the built Debian packages in the test VM and checks that DKMS,
# modprobe, trakctl, the unit, the udev rules and the removal work
# (guest-package-test.sh).
#
#   package-test.sh OUT_DIR DEB_DIR
#
# The VM gets one small scratch disk for a filter node. DKMS compiles the
# module inside the VM, which under TCG is most of the run's time: about
# 5 minutes on two otherwise idle cores, more than 20 on heavily shared ones.
set -eu
out=$1
debs=$(cd "$2" && pwd)
here=$(cd "$(dirname "$0")" && pwd)

mkdir -p "$out"
exec "$here/../harness/run-vm.sh" --out "$out" --disks 1 --disk-size 64M \
	--timeout 3600 -- "$here/guest-package-test.sh" "$debs" /dev/vda
