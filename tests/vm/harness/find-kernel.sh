#!/bin/sh
# Usage: find-kernel.sh [--image | --modules | --build]
#
# Names the kernel that the test VM boots.  By default that is Debian's 6.1
# kernel: the value of TRAK_KVER when set, otherwise the newest
# 6.1.*-amd64 kernel that has both an image in /boot and a module tree in
# /lib/modules.  When TRAK_VM_KERNEL names the directory of a kernel built
# by scripts/debug-kernel.sh, it is that one.
#
# Prints the kernel's version (uname -r), or with --image the file to boot,
# with --modules its module tree (lib/modules/VERSION), with --build the
# tree that out-of-tree modules are built against (make -C TREE M=...).
set -eu

what=${1:-}
case $what in
"" | --image | --modules | --build) ;;
*)
	sed -n '2,/^$/s/^# \{0,1\}//p' "$0" >&2
	exit 2
	;;
esac

if [ -n "${TRAK_VM_KERNEL:-}" ]; then
	dir=$TRAK_VM_KERNEL
	if [ ! -e "$dir/ready" ]; then
		echo "find-kernel.sh: no finished kernel build in $dir" \
			"(scripts/debug-kernel.sh makes one)" >&2
		exit 1
	fi
	kver=$(cat "$dir/kernel.release")
	image=$dir/vmlinuz
	modules=$dir/modules/lib/modules/$kver
	build=$dir/obj
else
	if [ -n "${TRAK_KVER:-}" ]; then
		kver=$TRAK_KVER
	else
		kver=$(for dir in /lib/modules/6.1.*-amd64; do
			v=${dir##*/}
			if echo "$v" | grep -qE '^6\.1\.[0-9]+-[0-9]+-amd64$' &&
				[ -f "/boot/vmlinuz-$v" ]; then
				echo "$v"
			fi
		done | sort -V | tail -n 1)
	fi
	image=/boot/vmlinuz-$kver
	modules=/lib/modules/$kver
	build=$modules/build
	if [ -z "$kver" ] || [ ! -f "$image" ] || [ ! -d "$modules" ]; then
		echo "find-kernel.sh: no Debian 6.1 kernel found" \
			"(${kver:-none}; install linux-image-amd64)" >&2
		exit 1
	fi
fi

case $what in
--image) echo "$image" ;;
--modules) echo "$modules" ;;
--build) echo "$build" ;;
*) echo "$kver" ;;
esac
