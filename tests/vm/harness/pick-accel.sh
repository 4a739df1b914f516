#!/bin/sh
# Usage: pick-accel.sh
#
# Chooses QEMU's accelerator for the test VM and prints one line:
#
#     ACCEL MODE REASON...
#
# ACCEL is "kvm" or "tcg"; MODE is "forced" when TRAK_VM_ACCEL chose it
# (run-vm.sh then never falls back) or "auto"; REASON says why, in words.
#
# KVM is chosen only when it can run a stock kernel: the CPU must offer
# hardware virtualisation (a "vmx" or "svm" flag) and /dev/kvm must be
# readable and writable.  A /dev/kvm without either flag belongs to a host
# whose KVM runs only paravirtual guests; Debian's kernel hangs there
# without a word, so TCG is used.
#
# TRAK_VM_ACCEL=kvm|tcg forces the choice; forcing kvm without a usable
# /dev/kvm is an error (exit 1).  For the harness's self-test,
# TRAK_VM_CPUINFO and TRAK_VM_KVM_DEVICE replace /proc/cpuinfo and
# /dev/kvm.  Exit status 2: TRAK_VM_ACCEL has another value.
set -eu

cpuinfo=${TRAK_VM_CPUINFO:-/proc/cpuinfo}
kvm_device=${TRAK_VM_KVM_DEVICE:-/dev/kvm}

device_usable() {
	[ -r "$kvm_device" ] && [ -w "$kvm_device" ]
}

cpu_virtualises() {
	grep -E '^flags[[:space:]]*:' "$cpuinfo" 2>/dev/null | grep -qwE 'vmx|svm'
}

case ${TRAK_VM_ACCEL:-} in
kvm)
	if ! device_usable; then
		echo "pick-accel.sh: TRAK_VM_ACCEL=kvm, but $kvm_device is" \
			"missing or not readable and writable" >&2
		exit 1
	fi
	echo "kvm forced TRAK_VM_ACCEL=kvm"
	;;
tcg)
	echo "tcg forced TRAK_VM_ACCEL=tcg"
	;;
"")
	if ! device_usable; then
		echo "tcg auto $kvm_device is missing or not readable and writable"
	elif ! cpu_virtualises; then
		echo "tcg auto $kvm_device exists, but the CPU has no vmx or svm flag"
	else
		echo "kvm auto the CPU has vmx or svm and $kvm_device is usable"
	fi
	;;
*)
	echo "pick-accel.sh: TRAK_VM_ACCEL must be kvm or tcg, not" \
		"'$TRAK_VM_ACCEL'" >&2
	exit 2
	;;
esac
