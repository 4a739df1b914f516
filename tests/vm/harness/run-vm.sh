#!/bin/bash
# Usage: run-vm.sh [OPTIONS] -- CMD [ARGS...]
#
# Boots Debian's 6.1 kernel (or the debug kernel that TRAK_VM_KERNEL
# names, see find-kernel.sh) in QEMU over a copy-on-write view of this
# machine's root file system, runs CMD in it from the repository root, and
# reports.  CMD is a path valid on the host (absolute, or relative to the
# repository root), and so in the guest too, except under /tmp and /run,
# which the guest has for itself.  In the guest CMD finds TRAK_VM=1,
# TRAK_SRC (the repository root) and TRAK_OUT (the results directory DIR,
# shared with the host), and TRAK_MODULE_DIR when the host has it set (the
# modules under test).  The kernel's messages go to DIR/console.log;
# CMD's output goes to DIR/harness/output.log and is shown at the end.
#
# Options:
#   --out DIR          results directory (default: out/vm in the repository);
#                      gets console.log, the disk images and harness/
#   --disks N          attach N fresh sparse disks DIR/diskI.img (default 0)
#   --disk-size SIZE   their size, as for truncate(1) (default 1G)
#   --disk FILE        attach an existing image (repeatable); these follow
#                      the fresh disks: /dev/vda, /dev/vdb, ... in order
#   --mem MB           guest memory (default 2048)
#   --smp N            guest CPUs (default $TRAK_VM_SMP, else 2)
#   --timeout SEC      kill the VM after SEC seconds (default 600)
#   --print-within SEC under KVM, give up when the kernel has printed
#                      nothing after SEC seconds (default 20); under TCG,
#                      which may be slow to start on a loaded machine, the
#                      bound is 60 s
#   --start-within SEC give up when the guest has not reached CMD after
#                      SEC seconds (default 120)
#   --quiet-within SEC boot again, once, when the kernel has printed
#                      nothing for SEC seconds before the guest reached
#                      CMD (default 60)
#                      (TRAK_VM_TIME_FACTOR, a whole number, multiplies
#                      these defaults and TCG's bound: the debug kernel
#                      boots slowly)
#   --unload-prefix P  modules whose names start with P must unload at the
#                      end (default trak)
#
# Accelerator: pick-accel.sh chooses KVM only when the CPU offers vmx or
# svm and /dev/kvm is usable, TCG otherwise; TRAK_VM_ACCEL=kvm|tcg forces
# the choice.  A guest whose kernel prints nothing within the
# --print-within bound under a KVM that was not forced is retried once under
# TCG, and the retry is reported.  TRAK_VM_QEMU names another QEMU binary
# (the self-test uses stand-ins).  The summary line names the accelerator
# that ran.
#
# Exit status: CMD's own when it ran and the kernel stayed clean: no bug
# report on the console (scan-console.sh), every module with the prefix
# unloaded.  Otherwise 124 on timeout and 125 for any other failure, with
# a one-line reason starting "run-vm.sh: FAIL:"; 2 for a usage error.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../../.." && pwd)

usage() {
	sed -n '2,/^$/s/^# \{0,1\}//p' "$0" >&2
	exit 2
}

out=$src/out/vm
ndisks=0
disk_size=1G
given=()
mem=2048
smp=${TRAK_VM_SMP:-2}
timeout=600
print_within=
factor=${TRAK_VM_TIME_FACTOR:-1}
[[ $factor =~ ^[1-9][0-9]*$ ]] || {
	echo "run-vm.sh: TRAK_VM_TIME_FACTOR must be a whole number, not '$factor'" >&2
	exit 2
}
start_within=$((120 * factor))
quiet_within=$((60 * factor))
prefix=trak
while (($#)); do
	case $1 in
	--out | --disks | --disk-size | --disk | --mem | --smp | --timeout | \
		--print-within | --start-within | --quiet-within | --unload-prefix)
		(($# >= 2)) || usage
		case $1 in
		--out) out=$2 ;;
		--disks) ndisks=$2 ;;
		--disk-size) disk_size=$2 ;;
		--disk) given+=("$2") ;;
		--mem) mem=$2 ;;
		--smp) smp=$2 ;;
		--timeout) timeout=$2 ;;
		--print-within) print_within=$2 ;;
		--start-within) start_within=$2 ;;
		--quiet-within) quiet_within=$2 ;;
		--unload-prefix) prefix=$2 ;;
		esac
		shift 2
		;;
	--)
		shift
		break
		;;
	*) usage ;;
	esac
done
(($#)) || usage
for n in "$ndisks" "$mem" "$smp" "$timeout" "${print_within:-0}" "$start_within"; do
	[[ $n =~ ^[0-9]+$ ]] || usage
done

# fail REASON [STATUS]
fail() {
	echo "run-vm.sh: FAIL: $1"
	exit "${2:-125}"
}

kver=$("$here/find-kernel.sh")
image=$("$here/find-kernel.sh" --image)
modules=$("$here/find-kernel.sh" --modules)
mkdir -p "$out"
out=$(realpath "$out")
harness=$out/harness
rm -rf "$harness"
mkdir "$harness"
rm -f "$out/console.log"

# What the guest runner reads (see guest-run.sh).
echo "$here/guest-run.sh" >"$harness/runner"
printf '%s\0' "$@" >"$harness/command"
echo "$prefix" >"$harness/unload-prefix"
echo "$modules" >"$harness/modules"
echo "$factor" >"$harness/time-factor"
printf '%s' "${TRAK_MODULE_DIR:-}" >"$harness/module-dir"
"$here/mkinitramfs.sh" "$harness/initramfs.cpio.gz" "$modules"

disks=()
for ((i = 0; i < ndisks; i++)); do
	rm -f "$out/disk$i.img"
	truncate -s "$disk_size" "$out/disk$i.img"
	disks+=("$out/disk$i.img")
done
for d in "${given[@]}"; do
	[ -f "$d" ] || fail "no disk image $d"
	disks+=("$(realpath "$d")")
done
drives=()
for d in "${disks[@]}"; do
	# QEMU's -drive takes commas doubled.
	drives+=(-drive "file=${d//,/,,},format=raw,if=virtio,cache=unsafe")
done

choice_status=0
choice=$("$here/pick-accel.sh" 2>&1) || choice_status=$?
if ((choice_status)); then
	((choice_status == 2)) || choice_status=125
	fail "${choice#pick-accel.sh: }" "$choice_status"
fi
read -r accel accel_mode accel_reason <<<"$choice"
echo "run-vm.sh: accel $accel ($accel_reason)"

# stop_vm: stops the VM's timeout, which stops QEMU; the group around them
# then ends by itself.
stop_vm() {
	[ -z "$vm" ] || pkill -TERM -P "$vm" 2>/dev/null || true
}

# boot: runs the VM under $accel in the background, watches it and waits
# for it.  Sets vm_status (QEMU's, or timeout's 124), printed (1 when the
# kernel printed anything at all) and boot_stalled: "silent" when the
# kernel printed nothing within $print_within s, "quiet" when it printed
# and then fell silent for $quiet_within s before the guest reached the
# command, "no-start" when the guest did not reach the command within
# $start_within s (QEMU is killed in all three cases), or empty.
boot() {
	local limit=$((60 * factor))
	[ "$accel" = tcg ] || limit=${print_within:-$((20 * factor))}
	local started=0 elapsed size last_size=-1 last_change=0
	printed=0
	rm -f "$out/console.log"
	# The group keeps bash's notices of a QEMU killed by a signal off the
	# harness's output: the status tells the same.  no_timer_check: on a
	# busy host, TCG runs the guest so slowly that the kernel's check of
	# the IO-APIC timer fails and it panics at boot ("IO-APIC + timer
	# doesn't work!").
	{ timeout --kill-after=10 "$timeout" \
		"${TRAK_VM_QEMU:-qemu-system-x86_64}" -machine "q35,accel=$accel" \
		-cpu max -smp "$smp" -m "$mem" -nographic -no-reboot -nic none \
		-kernel "$image" -initrd "$harness/initramfs.cpio.gz" \
		-append "console=ttyS0 loglevel=7 panic=-1 sysrq_always_enabled=1 no_timer_check" \
		-fsdev local,id=hostroot,path=/,security_model=none,readonly=on,multidevs=remap \
		-device virtio-9p-pci,fsdev=hostroot,mount_tag=hostroot \
		-fsdev "local,id=out,path=${out//,/,,},security_model=none" \
		-device virtio-9p-pci,fsdev=out,mount_tag=out \
		"${drives[@]}" </dev/null >"$out/console.log" 2>&1; } 2>/dev/null &
	vm=$!
	boot_stalled=
	boot_limit=$limit
	local start=$SECONDS
	while kill -0 "$vm" 2>/dev/null; do
		elapsed=$((SECONDS - start))
		((printed)) || ! grep -qs 'Linux version' "$out/console.log" ||
			printed=1
		((started)) || [ ! -e "$harness/started" ] || started=1
		size=$(stat -c %s "$out/console.log" 2>/dev/null || echo 0)
		if ((size != last_size)); then
			last_size=$size
			last_change=$elapsed
		fi
		if ((!printed && elapsed >= limit)); then
			boot_stalled=silent
		elif ((printed && !started &&
			elapsed - last_change >= quiet_within)); then
			boot_stalled=quiet
			boot_limit=$quiet_within
			# Before QEMU, killed, adds its own line.
			quiet_line=$(tail -n 1 "$out/console.log" | tr -d '\r')
		elif ((!started && elapsed >= start_within)); then
			boot_stalled=no-start
			boot_limit=$start_within
		fi
		if [ -n "$boot_stalled" ]; then
			stop_vm
			break
		fi
		sleep 0.5
	done
	vm_status=0
	wait "$vm" || vm_status=$?
	if grep -qs 'Linux version' "$out/console.log"; then
		printed=1
	fi
}

# The VM runs in the background so that the traps below can stop it.
vm=
trap stop_vm EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
start=$SECONDS
boot
if ((!printed)) && [ "$accel" = kvm ] && [ "$accel_mode" = auto ]; then
	if [ "$boot_stalled" = silent ]; then
		echo "run-vm.sh: the guest printed nothing for $boot_limit s" \
			"under kvm; retrying once under tcg"
	else
		echo "run-vm.sh: QEMU under kvm exited with status $vm_status" \
			"before the guest printed anything; retrying once under tcg"
	fi
	accel=tcg
	boot
fi
# The debug kernel sometimes hangs for good under TCG in its RCU self
# tests, early in the boot; a second boot usually gets through.
if [ "$boot_stalled" = quiet ]; then
	echo "run-vm.sh: the guest printed nothing for $quiet_within s before" \
		"it reached the command (last line: $quiet_line);" \
		"retrying once"
	boot
fi
# The debug kernel has reported a bug of its own under TCG in its first
# milliseconds (KASAN, in an interrupt during the CPU's identification):
# such a boot does not run the command, and a second boot usually is clean.
if [ -e "$harness/boot-report" ]; then
	mv "$out/console.log" "$out/console.boot-report.log"
	rm "$harness/boot-report"
	echo "run-vm.sh: the kernel reported a problem while it booted, before" \
		"the command ran (console.boot-report.log); retrying once"
	boot
fi
trap - EXIT
echo "run-vm.sh: VM ran $((SECONDS - start)) s (accel $accel, kernel $kver)"

if [ -n "$boot_stalled" ]; then
	echo "----- end of $out/console.log -----"
	tail -n 40 "$out/console.log"
	if [ "$boot_stalled" = silent ]; then
		fail "the guest printed nothing for $boot_limit s (accel $accel)"
	fi
	if [ "$boot_stalled" = quiet ]; then
		fail "the guest stopped printing for $boot_limit s before it reached the command (accel $accel)"
	fi
	fail "the guest did not reach the command within $boot_limit s (accel $accel)"
fi

if [ -s "$harness/output.log" ]; then
	echo "----- output of ${*} -----"
	cat "$harness/output.log"
	echo "----- end of output -----"
fi

reasons=()
fail_status=125
if ((vm_status == 124)); then
	fail_status=124
	reasons+=("timed out after $timeout s")
elif ((vm_status != 0)); then
	reasons+=("QEMU exited with status $vm_status")
fi
if [ ! -s "$out/console.log" ]; then
	reasons+=("no console output")
elif ! "$here/scan-console.sh" "$out/console.log"; then
	reasons+=("the kernel reported problems on the console")
fi
if [ -e "$harness/boot-report" ]; then
	reasons+=("the kernel reported a problem while it booted, twice")
elif [ ! -e "$harness/started" ]; then
	reasons+=("the guest never reached the command")
elif [ ! -e "$harness/exit-status" ]; then
	reasons+=("the command did not finish")
elif [ ! -e "$harness/finished" ]; then
	reasons+=("the guest did not finish after the command")
fi
if [ -s "$harness/unload-failures" ]; then
	mapfile -t -O "${#reasons[@]}" reasons <"$harness/unload-failures"
fi

if ((${#reasons[@]})); then
	if [ ! -e "$harness/finished" ]; then
		echo "----- end of $out/console.log -----"
		tail -n 40 "$out/console.log"
	fi
	joined=$(printf '; %s' "${reasons[@]}")
	fail "${joined#; }" "$fail_status"
fi
exit "$(cat "$harness/exit-status")"
