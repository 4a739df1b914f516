#!/bin/sh
# Usage: check-debug.sh BUILD
#
# Runs every VM test (CTest label "vm": the suite, the crash tests, the
# ioctl fuzzer, the package test, the harness's self-tests) on the debug kernel, with the
# driver built for it.  The kernel is built first when this machine has
# none yet (debug-kernel.sh: once per machine, and long).
#
# The debug kernel runs several times slower than Debian's under TCG:
# TRAK_VM_TIME_FACTOR (default 6) multiplies the VM tests' time limits.
set -eu
build=$1
top=$(cd "$(dirname "$0")/.." && pwd)

kernel=$("$top/scripts/debug-kernel.sh")
modules=$("$top/scripts/debug-module.sh" "$kernel" "$top/$build/debug-module")
echo "check-debug.sh: kernel $(cat "$kernel/kernel.release") from $kernel," \
	"modules from $modules"
export TRAK_VM_KERNEL="$kernel" TRAK_MODULE_DIR="$modules"
export TRAK_VM_TIME_FACTOR="${TRAK_VM_TIME_FACTOR:-6}"
# Under TCG with two CPUs the debug kernel has hung at boot, before it
# brought up the second; with one it boots in about a minute.
export TRAK_VM_SMP="${TRAK_VM_SMP:-1}"
start=$(date +%s)
status=0
ctest --test-dir "$top/$build" --output-on-failure -j 1 -L vm || status=$?
echo "check-debug.sh: the VM tests ran $(($(date +%s) - start)) s on the debug kernel"
exit "$status"
