#!/bin/sh
# Runs the ioctl fuzzer in the test VM, with two fresh disks for the
# filter nodes it adds.
#
#   run-ioctl-fuzz.sh OUT_DIR FUZZ_BINARY [GTEST_ARGS...]
#
# TRAK_FUZZ_SEED and TRAK_FUZZ_CALLS (see ioctl_fuzz_test.cpp) are handed
# on to the guest; TRAK_VM_TIME_FACTOR stretches the time limit.
set -eu
out=$1
suite=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)

mkdir -p "$out"
set -- env TRAK_FUZZ_SEED="${TRAK_FUZZ_SEED:-1}" \
	TRAK_FUZZ_CALLS="${TRAK_FUZZ_CALLS:-100000}" "$suite" "$@"
exec "$here/../harness/run-vm.sh" --out "$out" --disks 2 --disk-size 320M \
	--timeout $((800 * ${TRAK_VM_TIME_FACTOR:-1})) -- "$@"
