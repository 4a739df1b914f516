#!/bin/bash
# The test VM's runner: PID 1 after guest-init.sh has switched into the
# overlay of the host's root.  It prepares the system, runs the command
# that run-vm.sh left in the out share, checks that every module whose name
# starts with the unload prefix (default "trak") can be unloaded, and powers
# the VM off.
#
# Files in /mnt/out/harness: it reads "command" (the argv, NUL-separated),
# "unload-prefix", "modules" (the kernel's module tree) and "time-factor";
# it writes "boot-report" (the kernel reported a bug while it booted, and
# the command did not run), "started", "exit-status", "output.log"
# (the command's stdout and stderr), "unload-failures" (one line for each
# module left loaded) and "finished".
#
# No "set -e": whatever fails, PID 1 must go on to power the VM off.

export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
out=/mnt/out
harness=$out/harness
src=$(cd "$(dirname "$0")/../../.." && pwd)
# How long rmmod may take before the module counts as stuck.
RMMOD_SECONDS=60

# Writes a message, with the time since boot, to the console.
say() {
	local uptime
	read -r uptime _ </proc/uptime
	echo "trak-vm ($uptime s): $*"
}

power_off() {
	sync
	echo o >/proc/sysrq-trigger
	# PID 1 must not exit; the power-off runs asynchronously.
	while :; do
		sleep 60
	done
}

# Mounts a tmpfs with mode $2 on $1 unless the repository lies beneath $1
# (the tmpfs would hide it).
mount_scratch() {
	case "$src/" in
	"$1"/*) say "leaving $1 as it is: it holds $src" ;;
	*) mount -t tmpfs -o "mode=$2" tmpfs "$1" ;;
	esac
}

# Prints the loaded modules whose names start with $prefix.
prefixed_modules() {
	awk -v p="$prefix" 'index($1, p) == 1 { print $1 }' /proc/modules
}

# Unloads module $1: returns 0 when it is gone, 1 when rmmod failed and 2
# when rmmod did not return in time; the reason is left in why[$1].
declare -A why
unload() {
	rmmod "$1" 2>/tmp/rmmod.err &
	local pid=$! tenths=0
	while kill -0 "$pid" 2>/dev/null; do
		if ((++tenths > RMMOD_SECONDS * 10)); then
			why[$1]="rmmod did not return within $RMMOD_SECONDS s"
			return 2
		fi
		sleep 0.1
	done
	wait "$pid" && return 0
	why[$1]=$(</tmp/rmmod.err)
	why[$1]=${why[$1]//$'\n'/ }
	return 1
}

# Unloads every module with the prefix.  One may be held by another of the
# same prefix, so passes repeat while one unloads something; a stuck rmmod
# ends them.  Each module left is written to the failure list.
unload_prefixed_modules() {
	local progress=1 stuck=0 m
	while ((progress && !stuck)); do
		progress=0
		for m in $(prefixed_modules); do
			unload "$m"
			case $? in
			0)
				say "unloaded $m"
				progress=1
				;;
			2)
				stuck=1
				break
				;;
			esac
		done
	done
	for m in $(prefixed_modules); do
		echo "module $m cannot be unloaded: ${why[$m]:-still loaded}" |
			tee -a "$harness/unload-failures"
	done
}

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts -o gid=5,mode=620,ptmxmode=666 devpts /dev/pts
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
mount_scratch /tmp 1777
mount_scratch /run 755
mount -t debugfs debugfs /sys/kernel/debug 2>/dev/null
# Report a stuck task while the run still lasts (after 20 s, times the
# time factor of a slow kernel); an oops ends only the process that hit it.
factor=1
[ -s "$harness/time-factor" ] && read -r factor <"$harness/time-factor"
echo $((20 * factor)) >/proc/sys/kernel/hung_task_timeout_secs
echo 0 >/proc/sys/kernel/panic_on_oops
# A kernel that is not installed on the host (the debug kernel) keeps its
# module tree elsewhere; modprobe looks in /lib/modules only.
kmods=/lib/modules/$(uname -r)
if [ ! -e "$kmods" ] && [ -s "$harness/modules" ]; then
	ln -s "$(cat "$harness/modules")" "$kmods"
fi
# Nothing else loads drivers here: make the disks appear as /dev/vd*.
modprobe virtio_blk

mapfile -d '' -t argv <"$harness/command"
if ((${#argv[@]} == 0)); then
	say "no command in $harness/command"
	power_off
fi
prefix=trak
[ -s "$harness/unload-prefix" ] && read -r prefix <"$harness/unload-prefix"
module_env=()
[ -s "$harness/module-dir" ] && module_env=("TRAK_MODULE_DIR=$(cat "$harness/module-dir")")

# A bug that the kernel reported while it booted, before any module of the
# command was loaded, is the kernel's own: run-vm.sh boots it again, once.
dmesg >/tmp/boot.log
"$(dirname "$0")/scan-console.sh" /tmp/boot.log >/dev/null
if (($? == 1)); then
	say "the kernel reported a problem while it booted; the command does not run"
	: >"$harness/boot-report"
	power_off
fi

say "running ${argv[*]}"
: >"$harness/started"
(
	cd "$src" &&
		exec env -i TRAK_VM=1 TRAK_OUT="$out" TRAK_SRC="$src" "${module_env[@]}" \
			PATH="$PATH" HOME=/root TERM=dumb "${argv[@]}"
) </dev/null >"$harness/output.log" 2>&1
status=$?
echo "$status" >"$harness/exit-status"
say "command exited with status $status"

unload_prefixed_modules
: >"$harness/finished"
say "done"
power_off
