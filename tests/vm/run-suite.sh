#!/bin/sh
# Runs the VM suite once inside the test VM.
#
#   run-suite.sh OUT_DIR SUITE_BINARY
#
# The guest gets two fresh 320 MiB disks (support/test_disks.h): /dev/vda
# is the partition the filter-node tests put nodes over (file systems
# made through the node, raw writes, fio); /dev/vdb is a second disk that
# tests mount directly (a busy HDD, a disk file system for bitmap files)
# or filter as a second HDD.
#
# The VM's console log and the suite's XML results (trak_vm_tests.xml) land
# in OUT_DIR; results of an earlier run are removed first. TRAK_VM_TIME_FACTOR
# stretches the time limit (the debug kernel runs several times slower).
#
# Failed cases are reported one by one from the XML, so a run whose only
# fault is failed cases succeeds here; a VM that did not run the suite to
# its end, or a kernel that complained, fails.
set -eu
out=$1
suite=$2
here=$(cd "$(dirname "$0")" && pwd)
xml=$out/trak_vm_tests.xml

mkdir -p "$out"
rm -f "$xml"
status=0
"$here/harness/run-vm.sh" --out "$out" --disks 2 --disk-size 320M \
	--timeout $((1400 * ${TRAK_VM_TIME_FACTOR:-1})) -- "$suite" || status=$?
# GoogleTest exits with 1 when a case failed.
if [ "$status" -eq 1 ] && [ -s "$xml" ]; then
	echo "run-suite.sh: some cases failed; see their own tests"
	exit 0
fi
exit "$status"
