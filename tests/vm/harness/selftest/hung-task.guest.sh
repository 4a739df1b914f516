#!/bin/bash
# Runs in the test VM with one disk: blocks a writer on a frozen ext4 until
# the kernel reports the hung task, then thaws the file system.
set -eu

mnt=/tmp/frozen
mkfs.ext4 -q /dev/vda
mkdir -p "$mnt"
mount /dev/vda "$mnt"
fsfreeze -f "$mnt"
echo data >"$mnt/file" &
for _ in $(seq $((90 * $(cat /mnt/out/harness/time-factor)))); do
	dmesg | grep -q 'blocked for more than' && break
	sleep 1
done
fsfreeze -u "$mnt"
wait
umount "$mnt"
