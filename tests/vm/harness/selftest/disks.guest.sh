#!/bin/bash
# Runs in the test VM with three disks.  "make" puts ext4 on /dev/vda, XFS
# on /dev/vdb and ReiserFS on /dev/vdc and writes a file into each; "verify"
# (on a later boot with the same disks) mounts them and checks the files.
set -eu

fs_types=(ext4 xfs reiserfs)
devices=(/dev/vda /dev/vdb /dev/vdc)
mnt=/tmp/disk

if [ ! -b /dev/vdc ] || [ -e /dev/vdd ]; then
	echo "expected exactly /dev/vda, /dev/vdb and /dev/vdc"
	exit 1
fi
modprobe reiserfs
for i in 0 1 2; do
	fs=${fs_types[i]} dev=${devices[i]}
	case $1 in
	make)
		case $fs in
		ext4) mkfs.ext4 -q "$dev" ;;
		xfs) mkfs.xfs -q "$dev" ;;
		reiserfs) mkreiserfs -f -q "$dev" >/dev/null 2>&1 ;;
		esac
		mkdir -p "$mnt"
		mount -t "$fs" "$dev" "$mnt"
		echo "written to $fs" >"$mnt/file"
		umount "$mnt"
		;;
	verify)
		mkdir -p "$mnt"
		mount "$dev" "$mnt"
		echo "$dev: $(findmnt -n -o FSTYPE "$mnt"): $(cat "$mnt/file")"
		umount "$mnt"
		;;
	esac
done
