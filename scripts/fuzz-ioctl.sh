#!/bin/sh
# Usage: fuzz-ioctl.sh BUILD
#
# The long run of the ioctl fuzzer: TRAK_FUZZ_CALLS calls (default
# 1000000) with each of the seeds in TRAK_FUZZ_SEEDS (default "1 2 3"),
# one VM boot per seed, on the debug kernel when this machine has one
# built (so that KASAN, lockdep and kmemleak watch), on Debian's otherwise.
set -eu
build=$1
top=$(cd "$(dirname "$0")/.." && pwd)

if kernel=$("$top/scripts/debug-kernel.sh" --if-built 2>/dev/null); then
	TRAK_MODULE_DIR=$("$top/scripts/debug-module.sh" "$kernel" "$top/$build/debug-module")
	export TRAK_VM_KERNEL="$kernel" TRAK_MODULE_DIR
	export TRAK_VM_TIME_FACTOR="${TRAK_VM_TIME_FACTOR:-6}"
	export TRAK_VM_SMP="${TRAK_VM_SMP:-1}"
	echo "fuzz-ioctl.sh: on the debug kernel $(cat "$kernel/kernel.release")"
else
	echo "fuzz-ioctl.sh: no debug kernel built (make check-debug builds it);" \
		"on Debian's kernel"
fi
calls=${TRAK_FUZZ_CALLS:-1000000}
# The time limit grows with the calls: 100000 take well under 800 s.
factor=$((${TRAK_VM_TIME_FACTOR:-1} * (calls / 100000 + 1)))
for seed in ${TRAK_FUZZ_SEEDS:-1 2 3}; do
	TRAK_FUZZ_SEED=$seed TRAK_FUZZ_CALLS=$calls TRAK_VM_TIME_FACTOR=$factor \
		"$top/tests/vm/fuzz/run-ioctl-fuzz.sh" "$top/$build/vm-fuzz-out/seed$seed" \
		"$top/$build/tests/vm/trak_vm_fuzz"
done
