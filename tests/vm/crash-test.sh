#!/bin/sh
# Crash safety over two boots of the test VM on the same two disks.
#
#   crash-test.sh OUT_DIR SUITE_BINARY
#
# Boot 1 (OUT_DIR/boot1, fresh 128 MiB disks: vda under a filter node,
# vdb with the bitmap files) runs CrashSafetyTest.PowerOffDuringWrites,
# which powers the VM off hard while it writes. The only acceptable
# outcome is the harness's "the command did not finish", with the marker
# the case leaves just before the power-off. Boot 2 (OUT_DIR/boot2, the
# same images) runs CrashSafetyTest.DirtyFilesAfterPowerOffGiveAllOnes,
# which must pass. TRAK_VM_TIME_FACTOR stretches the time limits.
set -eu
out=$1
suite=$2
here=$(cd "$(dirname "$0")" && pwd)

rm -rf "$out"
mkdir -p "$out/boot1" "$out/boot2"

status=0
"$here/harness/run-vm.sh" --out "$out/boot1" --disks 2 --disk-size 128M \
	--timeout $((400 * ${TRAK_VM_TIME_FACTOR:-1})) -- "$suite" --gtest_filter=CrashSafetyTest.PowerOffDuringWrites \
	>"$out/boot1.log" 2>&1 || status=$?
cat "$out/boot1.log"
if [ "$status" -ne 125 ] ||
	! grep -qxF "run-vm.sh: FAIL: the command did not finish" "$out/boot1.log" ||
	[ ! -e "$out/boot1/crash-ready" ]; then
	echo "crash-test.sh: boot 1 did not end in a power-off during writes" \
		"(run-vm.sh status $status)"
	exit 1
fi
echo "crash-test.sh: boot 1 was powered off during writes, as intended"

"$here/harness/run-vm.sh" --out "$out/boot2" --disk "$out/boot1/disk0.img" \
	--disk "$out/boot1/disk1.img" --timeout $((400 * ${TRAK_VM_TIME_FACTOR:-1})) -- \
	"$suite" --gtest_filter=CrashSafetyTest.DirtyFilesAfterPowerOffGiveAllOnes
