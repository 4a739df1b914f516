#!/bin/bash
# `make demo`: change tracking end to end, in the test VM.
#
#   scripts/demo.sh [BUILD]
#
# Boots the test VM (tests/vm/harness/run-vm.sh) with two fresh virtual
# disks, a partition to track and a disk for the bitmap files, and runs
# scripts/demo-guest.sh in it with BUILD's trakctl (default: build) and the
# module driver/trak.ko.  The demo's output is shown as it goes; it ends
# with "demo: PASS: ..." or "demo: FAIL: ...".  The VM's files (console log,
# disk images) are left in out/demo.  Exit status: 0 on PASS.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/vm-inputs.sh
. "$top/scripts/vm-inputs.sh"
build=${1:-build}
[[ $build == /* ]] || build=$top/$build
trakctl=$build/tools/trakctl/trakctl
out=$top/out/demo

check_vm_inputs demo "$trakctl" "$build"

# The harness prints the guest's output only when the VM is gone: follow
# it live instead, and keep the harness's own lines.
rm -rf "$out/harness"
mkdir -p "$out"
"$top/tests/vm/harness/run-vm.sh" --out "$out" --disks 2 --disk-size 256M --timeout 300 \
	-- scripts/demo-guest.sh "$trakctl" >"$out/run-vm.log" 2>&1 &
vm=$!
trap 'kill "$vm" 2>/dev/null || true' EXIT
tail -n +1 -F --pid="$vm" "$out/harness/output.log" 2>/dev/null || true
status=0
wait "$vm" || status=$?
trap - EXIT
awk '/^----- output of /{ skip = 1 } !skip { print } /^----- end of output -----$/{ skip = 0 }' \
	"$out/run-vm.log"
exit "$status"
