#!/bin/bash
# Tests how the harness chooses QEMU's accelerator and how it gives up on a
# guest that never boots: pick-accel.sh against made-up CPU flags and
# /dev/kvm stand-ins (instant), then five boots of run-vm.sh (about 50 s
# under TCG): the machine's own choice, the retry under TCG when KVM stays
# silent, and the fast failures of a silent kernel, of a boot that never
# reaches the command, and of one that falls silent twice before it.
# The commands in single quotes are expanded by the guest's shell.
# shellcheck disable=SC2016
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source-path=SCRIPTDIR
. "$here/lib.sh"
harness=$here/..
tmp=$(mktemp -d /tmp/trak-accel-test.XXXXXX)

# A CPU with the given flags, and a /dev/kvm that is usable or missing.
printf 'processor\t: 0\nflags\t\t: fpu vme de pse %s sse sse2\n' vmx >"$tmp/cpu-vmx"
printf 'processor\t: 0\nflags\t\t: fpu vme de pse %s sse sse2\n' svm >"$tmp/cpu-svm"
printf 'processor\t: 0\nflags\t\t: fpu vme de pse hypervisor sse sse2\n' >"$tmp/cpu-none"
: >"$tmp/kvm"
chmod 600 "$tmp/kvm"

# pick CPUINFO DEVICE [ACCEL]: pick-accel.sh's line in $choice, status in
# $status.
pick() {
	choice=$(TRAK_VM_CPUINFO=$1 TRAK_VM_KVM_DEVICE=$2 TRAK_VM_ACCEL=${3:-} \
		"$harness/pick-accel.sh" 2>&1)
	status=$?
}

# expect_choice WHAT EXPECTED: the last pick succeeded with line EXPECTED.
expect_choice() {
	[ "$status" -eq 0 ] && [ "$choice" = "$2" ]
	report $? "$1 ($choice)"
}

pick "$tmp/cpu-vmx" "$tmp/kvm"
expect_choice "vmx and a usable /dev/kvm give KVM" \
	"kvm auto the CPU has vmx or svm and $tmp/kvm is usable"
pick "$tmp/cpu-svm" "$tmp/kvm"
expect_choice "svm and a usable /dev/kvm give KVM" \
	"kvm auto the CPU has vmx or svm and $tmp/kvm is usable"
pick "$tmp/cpu-none" "$tmp/kvm"
expect_choice "a /dev/kvm without vmx or svm gives TCG" \
	"tcg auto $tmp/kvm exists, but the CPU has no vmx or svm flag"
pick "$tmp/cpu-vmx" "$tmp/missing"
expect_choice "vmx without /dev/kvm gives TCG" \
	"tcg auto $tmp/missing is missing or not readable and writable"
pick "$tmp/cpu-vmx" "$tmp/kvm" tcg
expect_choice "TRAK_VM_ACCEL=tcg forces TCG" "tcg forced TRAK_VM_ACCEL=tcg"
pick "$tmp/cpu-none" "$tmp/kvm" kvm
expect_choice "TRAK_VM_ACCEL=kvm forces KVM even without vmx or svm" \
	"kvm forced TRAK_VM_ACCEL=kvm"
pick "$tmp/cpu-vmx" "$tmp/missing" kvm
expect_status "forcing KVM without /dev/kvm fails" 1 "$status"
[ "$choice" = "pick-accel.sh: TRAK_VM_ACCEL=kvm, but $tmp/missing is missing or not readable and writable" ]
report $? "and says why ($choice)"
pick "$tmp/cpu-vmx" "$tmp/kvm" hvf
expect_status "TRAK_VM_ACCEL=hvf is a usage error" 2 "$status"

# vm NAME OPTIONS... -- CMD...: runs run-vm.sh with results in $tmp/NAME
# and its own output in $tmp/NAME.txt; sets $status and $seconds.
vm() {
	local name=$1 start=$SECONDS
	shift
	mkdir -p "$tmp/$name"
	"$harness/run-vm.sh" --out "$tmp/$name" "$@" >"$tmp/$name.txt" 2>&1
	status=$?
	seconds=$((SECONDS - start))
}

# The machine's own choice, whatever it is, runs the command and is named.
read -r own_accel _ own_reason <<<"$("$harness/pick-accel.sh")"
vm own -- /bin/sh -c 'echo booted'
expect_status "the machine's own choice boots" 0 "$status"
expect_line "the choice is reported" "$tmp/own.txt" \
	"run-vm.sh: accel $own_accel ($own_reason)"
expect_match "the summary names the accelerator" "$tmp/own.txt" \
	"^run-vm\\.sh: VM ran [0-9]+ s \\(accel $own_accel, kernel "

# A KVM that passes every check but whose guest prints nothing.
export TRAK_VM_CPUINFO=$tmp/cpu-vmx TRAK_VM_KVM_DEVICE=$tmp/kvm
TRAK_VM_QEMU=$here/qemu-silent-kvm.sh vm retry --print-within 5 -- \
	/bin/sh -c 'echo "ran under tcg"'
expect_status "a silent KVM guest is retried under TCG and runs" 0 "$status"
expect_line "the retry is reported" "$tmp/retry.txt" \
	"run-vm.sh: the guest printed nothing for 5 s under kvm; retrying once under tcg"
expect_line "the command ran" "$tmp/retry.txt" "ran under tcg"
expect_match "the summary names TCG" "$tmp/retry.txt" \
	"^run-vm\\.sh: VM ran [0-9]+ s \\(accel tcg, "

TRAK_VM_ACCEL=kvm TRAK_VM_QEMU=$here/qemu-silent-kvm.sh vm forced \
	--print-within 5 --timeout 600 -- /bin/true
expect_status "a silent guest under a forced KVM fails" 125 "$status"
expect_line "with the reason" "$tmp/forced.txt" \
	"run-vm.sh: FAIL: the guest printed nothing for 5 s (accel kvm)"
expect_no_match "a forced KVM is not retried" "$tmp/forced.txt" "retrying"
[ "$seconds" -lt 30 ]
report $? "and fails fast (${seconds} s of a 600 s limit)"

TRAK_VM_ACCEL=tcg TRAK_VM_QEMU=$here/qemu-stuck-boot.sh vm stuck \
	--start-within 5 --timeout 600 -- /bin/true
expect_status "a boot that never reaches the command fails" 125 "$status"
expect_line "with the reason" "$tmp/stuck.txt" \
	"run-vm.sh: FAIL: the guest did not reach the command within 5 s (accel tcg)"
[ "$seconds" -lt 30 ]
report $? "and fails fast (${seconds} s of a 600 s limit)"

TRAK_VM_ACCEL=tcg TRAK_VM_QEMU=$here/qemu-stuck-boot.sh vm quiet \
	--quiet-within 3 --start-within 600 --timeout 600 -- /bin/true
expect_status "a boot that falls silent before the command fails" 125 "$status"
expect_line "after one retry" "$tmp/quiet.txt" \
	"run-vm.sh: the guest printed nothing for 3 s before it reached the command (last line: Linux version 6.1.0 (stand-in)); retrying once"
expect_line "with the reason" "$tmp/quiet.txt" \
	"run-vm.sh: FAIL: the guest stopped printing for 3 s before it reached the command (accel tcg)"
[ "$seconds" -lt 30 ]
report $? "and fails fast (${seconds} s of a 600 s limit)"

if [ "$failures" -eq 0 ]; then
	rm -rf "$tmp"
else
	echo "results kept in $tmp"
fi
finish
