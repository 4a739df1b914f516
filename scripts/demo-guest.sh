#!/bin/bash
# The change-tracking demo, inside the test VM (scripts/demo.sh boots it).
#
#   scripts/demo-guest.sh TRAKCTL
#
# /dev/vda is the partition to track; /dev/vdb holds the bitmap files, so
# that they outlive the module.  Every step prints a heading and the commands
# it runs; the demo checks its own claims and ends with one verdict line,
# "demo: PASS: ..." or "demo: FAIL: ...", exiting 0 only on PASS.
set -uo pipefail

TRAKCTL=$1
HDD=/dev/vda
BMP_DISK=/dev/vdb
BMP_DIR=/mnt/bitmaps
DATA=/mnt/data
EXTENT_SIZE=65536
# ext4 blocks per extent.
BLOCKS_PER_EXTENT=$((EXTENT_SIZE / 4096))

step() {
	printf '\n=== %s\n' "$*"
}

fail() {
	echo
	echo "demo: FAIL: $*"
	exit 1
}

# Shows a command, runs it, and fails the demo when it fails.
run() {
	echo "\$ $*"
	"$@" || fail "'$*' exited with status $?"
}

trakctl() {
	"$TRAKCTL" "$@"
}

# insmod, unlike modprobe, does not load what the driver needs from the
# kernel (crc32c, crc16): load that first.
load_driver() {
	local depends
	IFS=, read -ra depends <<<"$(modinfo -F depends driver/trak.ko)"
	[ ${#depends[@]} -eq 0 ] || run modprobe -a "${depends[@]}"
	run insmod driver/trak.ko
}

# The first line of `trakctl bitmap get 0 incr`: "extents RANGES of N (...)".
extents_line() {
	trakctl bitmap get 0 incr | head -n 1
}

# The extents that `trakctl bitmap get` lists in the line $1, one a line.
expand_extents() {
	local ranges range
	ranges=$(awk '{ print $2 }' <<<"$1")
	[ "$ranges" = none ] && return
	for range in ${ranges//,/ }; do
		seq "${range%-*}" "${range#*-}"
	done
}

# The extents that hold the data of file $1, one a line.
file_extents() {
	filefrag -e -b4096 "$1" |
		awk -F'[: .]+' -v per="$BLOCKS_PER_EXTENT" '
			$2 ~ /^[0-9]+$/ && NF > 6 {
				for (b = $5; b <= $6; b++) print int(b / per)
			}' | sort -nu
}

step "Prepare the disk for the bitmap files ($BMP_DISK, ext4, on $BMP_DIR)"
run mkfs.ext4 -q -F "$BMP_DISK"
run mkdir -p "$BMP_DIR" "$DATA"
run mount "$BMP_DISK" "$BMP_DIR"

step "Load the driver"
load_driver
run trakctl status

step "Put a filter node over $HDD, with one bit per $EXTENT_SIZE bytes"
run trakctl add-filter "$HDD" --extent-size "$EXTENT_SIZE" --bitmap-dir "$BMP_DIR"
run trakctl start 0

step "Make a file system through the node and write a few files"
run mkfs.ext4 -q -F -b 4096 /dev/trak0
run mount /dev/trak0 "$DATA"
run cp -r /etc/default "$DATA/etc-default"
run dd if=/dev/urandom of="$DATA/first.bin" bs=64k count=16 status=none
run sync
run trakctl info 0

step "Read and clear the incremental bitmap: everything changed since the node was added"
echo "(there was no bitmap file yet, so every extent counts as changed)"
run trakctl bitmap get-clear 0 incr
cleared=$(extents_line)
[[ $cleared == "extents none of "* ]] ||
	fail "the bitmap is not clear after get-clear: $cleared"

step "Write one more file: only its extents and the file system's metadata change"
run dd if=/dev/urandom of="$DATA/new.bin" bs=64k count=8 conv=fsync status=none
run sync
new_extents=$(file_extents "$DATA/new.bin")
[ -n "$new_extents" ] || fail "filefrag found no extents of new.bin"
echo "new.bin lies in extents $(tr '\n' ' ' <<<"$new_extents")"
run trakctl bitmap get 0 incr
set_extents=$(expand_extents "$(extents_line)")
declare -A is_set=()
for extent in $set_extents; do
	is_set[$extent]=1
done
missed=
for extent in $new_extents; do
	[ -n "${is_set[$extent]:-}" ] || missed+=" $extent"
done
[ -z "$missed" ] || fail "extents of new.bin not in the bitmap:$missed"
extent_cnt=$(awk '{ print $4 }' <<<"$cleared")
set_cnt=$(grep -c . <<<"$set_extents")
((set_cnt * 10 < extent_cnt)) ||
	fail "$set_cnt of $extent_cnt extents set after writing one small file"

step "The bitmap files while the node is in use"
echo "(the first change after a save leaves only the 8-byte dirty header: a crash now"
echo " would mean a full backup, never a missed change)"
run ls -l "$BMP_DIR"

step "Unmount and stop the node: the bitmaps are saved"
run umount "$DATA"
run trakctl stop 0
saved=$(extents_line)
echo "$saved"
run ls -l "$BMP_DIR"
run od -A d -t x1 -N 16 "$BMP_DIR/trak0.incr"
# "TRAKBMP", flag 0, then the size: 512 bytes for 4096 extents.
header=$(od -A n -t x1 -N 12 "$BMP_DIR/trak0.incr" | tr -s ' \n' ' ')
[ "$header" = " 54 52 41 4b 42 4d 50 00 00 02 00 00 " ] ||
	fail "unexpected header of trak0.incr:$header"

step "Unload the driver with the node in place, load it again and add the node again"
run rmmod trak
load_driver
run trakctl add-filter "$HDD" --extent-size "$EXTENT_SIZE" --bitmap-dir "$BMP_DIR"
run trakctl bitmap get 0 incr
reloaded=$(extents_line)
[ "$reloaded" = "$saved" ] || fail "after the reload '$reloaded', before it '$saved'"

step "Clean up"
run trakctl del 0
run rmmod trak
run umount "$BMP_DIR"

echo
echo "demo: PASS: all $(grep -c . <<<"$new_extents") extents of the new file were tracked" \
	"among $set_cnt changed extents, and the bitmap came back the same after stop," \
	"unload and reload"
