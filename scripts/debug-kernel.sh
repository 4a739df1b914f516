#!/bin/bash
# Usage: debug-kernel.sh [--if-built]
#
# Prints the directory of the test VM's debug kernel, building it first when
# this machine has none yet: Debian's linux-source-6.1 configured with
# debug-kernel.config (KASAN, lockdep, atomic-sleep checks, debug objects,
# kmemleak, fault injection).  With --if-built it only prints the directory
# of a finished build, and fails when there is none.
#
# The kernel is cached outside the repository, in
# $TRAK_DEBUG_KERNEL_CACHE (default /var/cache/trak/debug-kernel), under a
# name made of the source package's version and a hash of the configuration
# and the compiler, so that it is built once per machine and again only
# when one of those changes.  A lock keeps two builds of the same kernel
# from running at once.  The directory holds:
#   vmlinuz          the image the VM boots
#   kernel.release   its version (uname -r)
#   modules/         lib/modules/RELEASE, with modules.builtin for modprobe
#   obj/             the build tree: make -C obj M=DIR builds a module
#   build.log        the build's output; build-seconds, its wall time
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
tarball=/usr/src/linux-source-6.1.tar.xz
fragment=$here/debug-kernel.config
jobs=${JOBS:-$(nproc)}

if_built=0
case ${1:-} in
--if-built) if_built=1 ;;
"") ;;
*)
	sed -n '2,/^$/s/^# \{0,1\}//p' "$0" >&2
	exit 2
	;;
esac

say() {
	echo "debug-kernel.sh: $*" >&2
}

[ -f "$tarball" ] || {
	say "no $tarball (install linux-source-6.1)"
	exit 1
}
srcver=$(dpkg-query -W -f='${Version}' linux-source-6.1)
key=$({
	echo "$srcver"
	gcc --version | head -n 1
	cat "$fragment"
} | sha256sum | cut -c 1-12)
cache=${TRAK_DEBUG_KERNEL_CACHE:-/var/cache/trak/debug-kernel}
dir=$cache/$srcver-$key

if [ -e "$dir/ready" ]; then
	echo "$dir"
	exit 0
fi
if ((if_built)); then
	say "no debug kernel built for this configuration (want $dir)"
	exit 1
fi

# Unpacks the source and configures it: x86_64_defconfig, then
# kvm_guest.config and debug-kernel.config merged over it.
configure() {
	tar -xJf "$tarball" -C "$dir"
	mkdir -p "$obj"
	make -C "$src" O="$obj" x86_64_defconfig
	"$src/scripts/kconfig/merge_config.sh" -m -O "$obj" "$obj/.config" \
		"$src/kernel/configs/kvm_guest.config" "$fragment"
	make -C "$src" O="$obj" olddefconfig
	# merge_config.sh only warns when a dependency drops or forces an
	# option.
	wrong=0
	while IFS= read -r line; do
		case $line in
		CONFIG_*=*)
			grep -qxF "$line" "$obj/.config" && continue
			;;
		"# CONFIG_"*" is not set")
			option=${line#\# }
			option=${option%% *}
			grep -q "^$option=" "$obj/.config" || continue
			;;
		*) continue ;;
		esac
		echo "debug-kernel.sh: the configuration does not have: $line"
		wrong=1
	done <"$fragment"
	((!wrong))
	: >"$dir/configured"
}

mkdir -p "$cache"
exec 9>"$dir.lock"
if ! flock -n 9; then
	say "another build of $dir is running; waiting for it"
	flock 9
fi
if [ -e "$dir/ready" ]; then
	echo "$dir"
	exit 0
fi

# The build writes its absolute paths into obj/, so it happens in place;
# "ready" appears only at the end.  An interrupted build is resumed: make
# redoes only what it had not finished; "configured" marks a source tree
# unpacked and configured to the end.
src=$dir/linux-source-6.1
obj=$dir/obj
if [ ! -e "$dir/configured" ]; then
	rm -rf "$dir"
fi
mkdir -p "$dir"
say "building $dir with $jobs jobs (log: $dir/build.log); this takes long"
start=$SECONDS
# Not "( ... ) || fail": bash ignores set -e in a subshell that is tested.
set +e
(
	set -e
	if [ ! -e "$dir/configured" ]; then
		configure
	fi
	make -C "$src" O="$obj" -j "$jobs" bzImage modules
	make -C "$src" O="$obj" INSTALL_MOD_PATH="$dir/modules" \
		DEPMOD=/sbin/depmod modules_install
	cp "$obj/arch/x86/boot/bzImage" "$dir/vmlinuz"
	cp "$obj/include/config/kernel.release" "$dir/kernel.release"
	# External modules need the headers, scripts and Module.symvers, not
	# the kernel's own objects.
	find "$obj" \( -path "$obj/scripts" -o -path "$obj/tools" \) -prune -o \
		-name '*.o' -type f -exec rm -f {} +
	rm -f "$obj/vmlinux" "$obj"/.tmp_vmlinux*
) >>"$dir/build.log" 2>&1
status=$?
set -e
if ((status)); then
	say "the build failed; the end of $dir/build.log:"
	tail -n 30 "$dir/build.log" >&2
	exit 1
fi
echo $((SECONDS - start)) >"$dir/build-seconds"
: >"$dir/ready"
say "built $(cat "$dir/kernel.release") in $((SECONDS - start)) s"
echo "$dir"
