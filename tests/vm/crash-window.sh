#!/bin/sh
# The crash window of the first write after a save, over CYCLES hard
# power-offs, one boot each, on the same two disks.
#
#   crash-window.sh OUT_DIR SUITE_BINARY [CYCLES]
#
# Boot k (OUT_DIR/boot<k>) runs CrashWindowTest.WriteNeverReachesDiskBeforeItsDirtyMark
# with TRAK_CRASH_CYCLE=k: it checks what power-off k-1 left on the disks,
# then sets up the next write and powers the VM off. Boot 0 gets fresh
# 128 MiB disks (vda under the filter node, vdb with the bitmap directory
# behind dm-delay); every later boot gets the same images. Boots 0 to
# CYCLES-1 must end in the power-off (the harness's "the command did not
# finish", and the case's marker); boot CYCLES only checks, and must pass.
# The outcome of every power-off is listed at the end.
set -eu
out=$1
suite=$2
cycles=${3:-20}
here=$(cd "$(dirname "$0")" && pwd)

rm -rf "$out"
mkdir -p "$out"
started=$(date +%s)
disks="--disks 2 --disk-size 128M"
cycle=0
while [ "$cycle" -le "$cycles" ]; do
	boot=$out/boot$cycle
	mkdir -p "$boot"
	set -- env "TRAK_CRASH_CYCLE=$cycle" "TRAK_CRASH_CYCLES=$cycles"
	status=0
	# shellcheck disable=SC2086 # $disks is a list of options
	"$here/harness/run-vm.sh" --out "$boot" $disks --timeout $((300 * ${TRAK_VM_TIME_FACTOR:-1})) -- "$@" "$suite" \
		--gtest_filter=CrashWindowTest.WriteNeverReachesDiskBeforeItsDirtyMark \
		>"$boot.log" 2>&1 || status=$?
	[ -f "$boot/outcomes" ] && cat "$boot/outcomes"
	if [ "$cycle" -lt "$cycles" ]; then
		if [ "$status" -ne 125 ] ||
			! grep -qxF "run-vm.sh: FAIL: the command did not finish" "$boot.log" ||
			[ ! -e "$boot/crash-ready-$cycle" ]; then
			cat "$boot.log"
			echo "crash-window.sh: boot $cycle did not end in its power-off" \
				"(run-vm.sh status $status)"
			exit 1
		fi
	elif [ "$status" -ne 0 ]; then
		cat "$boot.log"
		echo "crash-window.sh: the last check failed (run-vm.sh status $status)"
		exit 1
	fi
	disks="--disk $out/boot0/disk0.img --disk $out/boot0/disk1.img"
	cycle=$((cycle + 1))
done
echo "crash-window.sh: $cycles power-offs, no change lost," \
	"in $(($(date +%s) - started)) s"
