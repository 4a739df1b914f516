#!/bin/sh
# Prints the version of the Debian 6.1 kernel that the test VM boots: the
# value of TRAK_KVER when set, otherwise the newest 6.1.*-amd64 kernel that
# has both an image in /boot and a module tree in /lib/modules.
set -eu

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

if [ -z "$kver" ] || [ ! -f "/boot/vmlinuz-$kver" ] ||
	[ ! -d "/lib/modules/$kver" ]; then
	echo "find-kernel.sh: no Debian 6.1 kernel found" \
		"(${kver:-none}; install linux-image-amd64)" >&2
	exit 1
fi
echo "$kver"
