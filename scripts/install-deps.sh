#!/bin/sh
# Installs, with apt, every package that building and testing trak needs.
# Does nothing (and needs no network) when all of them are present.
set -eu

PACKAGES="build-essential bc flex bison libelf-dev
linux-image-amd64 linux-headers-amd64 linux-source-6.1 sparse
qemu-system-x86 busybox-static cpio kmod procps
cmake googletest libgtest-dev clang-format clang-tidy
clang libclang-rt-14-dev libssl-dev xz-utils
e2fsprogs xfsprogs reiserfsprogs dmsetup fio
dpkg-dev debhelper dh-dkms dkms lintian man-db"

missing=""
for p in $PACKAGES; do
	dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$' ||
		missing="$missing $p"
done
[ -z "$missing" ] && exit 0

echo "installing:$missing"
if [ "$(id -u)" -ne 0 ]; then
	echo "need root to install packages (run: sudo $0)" >&2
	exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing
