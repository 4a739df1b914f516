#!/bin/sh
# Usage: mkinitramfs.sh OUT.cpio.gz [MODULE_TREE]
#
# Builds the test VM's initramfs: a static busybox, the modules needed to
# reach the host's root file system over virtio-9p and to lay an overlay on
# it (with their dependencies, in load order), and guest-init.sh as /init.
# MODULE_TREE is the kernel's lib/modules/VERSION (default: that of the
# kernel find-kernel.sh names); modules built into the kernel are left out.
#
# It is rebuilt on every call: that takes about half a second, no more than
# checksumming the inputs to decide whether a rebuild is needed.
set -eu

usage() {
	echo "usage: $0 OUT.cpio.gz [MODULE_TREE]" >&2
	exit 2
}

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
	usage
fi
out=$1
here=$(cd "$(dirname "$0")" && pwd)
moddir=${2:-$("$here/find-kernel.sh" --modules)}
[ -f "$moddir/modules.dep" ] || {
	echo "mkinitramfs.sh: no $moddir/modules.dep" >&2
	exit 1
}
busybox=$(command -v busybox) || {
	echo "mkinitramfs.sh: busybox not found (install busybox-static)" >&2
	exit 1
}

# The modules /init loads, in this order; their dependencies are added.
MODULES="virtio virtio_ring virtio_pci_legacy_dev virtio_pci_modern_dev
virtio_pci 9pnet 9pnet_virtio 9p overlay"

# Prints the line of modules list file $2 (modules.dep, modules.builtin)
# whose module is named $1; "-" and "_" in names are the same.
module_line() {
	awk -v want="$(echo "$1" | tr - _)" '
		{
			name = $1
			sub(/:$/, "", name)
			sub(/.*\//, "", name)
			sub(/\.ko.*$/, "", name)
			gsub(/-/, "_", name)
			if (name == want) {
				print
				exit
			}
		}' "$2"
}

# Appends to $load_order module $1 after its dependencies; a module built
# into the kernel (and so are its dependencies) needs nothing.
# modules.dep lists every dependency, direct or not, each one possibly
# needing those after it; so they load last to first, as modprobe does.
load_order=""
add_module() {
	if [ -f "$moddir/modules.builtin" ] &&
		[ -n "$(module_line "$1" "$moddir/modules.builtin")" ]; then
		return
	fi
	line=$(module_line "$1" "$moddir/modules.dep" |
		awk '{ sub(/:/, ""); for (i = NF; i > 1; i--) printf "%s ", $i; print $1 }')
	if [ -z "$line" ]; then
		echo "mkinitramfs.sh: module $1 not in $moddir" >&2
		exit 1
	fi
	for path in $line; do
		case " $load_order " in
		*" $path "*) ;;
		*) load_order="$load_order $path" ;;
		esac
	done
}
for m in $MODULES; do
	add_module "$m"
done

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir -p "$stage/bin" "$stage/dev" "$stage/proc" "$stage/sys" \
	"$stage/lower" "$stage/upper" "$stage/newroot" "$stage/modules"
cp "$busybox" "$stage/bin/busybox"
cp "$here/guest-init.sh" "$stage/init"
chmod 755 "$stage/init"
# The kernel opens /dev/console for init before anything is mounted; without
# the node (only root can make it) init starts without output until it has
# mounted devtmpfs, which guest-init.sh handles.
mknod "$stage/dev/console" c 5 1 2>/dev/null || true

# Modules go in uncompressed (busybox insmod may lack the decompressors),
# numbered so that the shell glob in /init loads them in order.
n=10
for path in $load_order; do
	base=${path##*/}
	dest="$stage/modules/$n-${base%%.ko*}.ko"
	case $base in
	*.ko) cp "$moddir/$path" "$dest" ;;
	*.ko.xz) xz -dc "$moddir/$path" >"$dest" ;;
	*.ko.zst) zstd -qdc "$moddir/$path" >"$dest" ;;
	*.ko.gz) gzip -dc "$moddir/$path" >"$dest" ;;
	*)
		echo "mkinitramfs.sh: unknown module format $path" >&2
		exit 1
		;;
	esac
	n=$((n + 1))
done

mkdir -p "$(dirname "$out")"
(cd "$stage" && find . | sort | cpio --quiet -o -H newc -R 0:0) |
	gzip -1 >"$out.tmp"
mv "$out.tmp" "$out"
