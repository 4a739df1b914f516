#!/bin/bash
# Tests run-vm.sh end to end: it boots the test VM nine times (about four
# minutes under TCG) and checks exit statuses, results, disks, the unload
# check, the console scan, the hung-task report and the timeout.
# The commands in single quotes are expanded by the guest's shell.
# shellcheck disable=SC2016
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source-path=SCRIPTDIR
. "$here/lib.sh"
src=$(cd "$here/../../../.." && pwd)
kver=$("$here/../find-kernel.sh") || exit 1
tmp=$(mktemp -d /tmp/trak-harness-test.XXXXXX)

# vm NAME OPTIONS... -- CMD...: runs the VM with results in $tmp/NAME and
# the harness's own output in $tmp/NAME.txt; sets $status.
vm() {
	local name=$1
	shift
	mkdir -p "$tmp/$name"
	"$here/../run-vm.sh" --out "$tmp/$name" "$@" >"$tmp/$name.txt" 2>&1
	status=$?
}

vm hello -- /bin/sh -c 'echo hello >"$TRAK_OUT/hello"; uname -r;
	echo "cwd=$PWD"; env | grep ^TRAK_'
expect_status "a trivial command succeeds" 0 "$status"
expect_line "its file reaches the host" "$tmp/hello/hello" "hello"
expect_line "the guest runs the 6.1 kernel" "$tmp/hello.txt" "$kver"
expect_line "the command starts in the repository" "$tmp/hello.txt" "cwd=$src"
expect_line "TRAK_VM is 1" "$tmp/hello.txt" "TRAK_VM=1"
expect_line "TRAK_OUT is the out share" "$tmp/hello.txt" "TRAK_OUT=/mnt/out"
expect_line "TRAK_SRC is the repository" "$tmp/hello.txt" "TRAK_SRC=$src"

vm exit3 -- /bin/sh -c 'exit 3'
expect_status "the command's exit status is passed on" 3 "$status"

vm disks-make --disks 3 --disk-size 512M -- \
	tests/vm/harness/selftest/disks.guest.sh make
expect_status "three fresh disks take ext4, XFS and ReiserFS" 0 "$status"
vm disks-verify --disk "$tmp/disks-make/disk0.img" \
	--disk "$tmp/disks-make/disk1.img" --disk "$tmp/disks-make/disk2.img" -- \
	tests/vm/harness/selftest/disks.guest.sh verify
expect_status "a second boot mounts the same disks" 0 "$status"
for fs in ext4 xfs reiserfs; do
	dev=/dev/vda
	[ $fs = xfs ] && dev=/dev/vdb
	[ $fs = reiserfs ] && dev=/dev/vdc
	expect_line "$fs on $dev kept its file" "$tmp/disks-verify.txt" \
		"$dev: $fs: written to $fs"
done

# null_blk is a module in every kernel the VM boots; a task that outlives
# the command keeps its disk open.
vm busy --unload-prefix null_blk -- /bin/sh -c \
	'modprobe null_blk && { setsid sleep 600 </dev/nullb0 >/dev/null 2>&1 & }'
expect_status "a module that stays in use fails the run" 125 "$status"
expect_line "the module is named" "$tmp/busy.txt" \
	"run-vm.sh: FAIL: module null_blk cannot be unloaded: rmmod: ERROR: Module null_blk is in use"

# A module that warns on request, built for the guest's kernel.
mkdir -p "$tmp/module"
cp "$here/Kbuild" "$here/trak_vmtest.c" "$tmp/module/"
make -s -C "$("$here/../find-kernel.sh" --build)" M="$tmp/module" modules \
	>"$tmp/module.txt" 2>&1
report $? "the self-test module builds"
for name in taint warn; do
	mkdir -p "$tmp/$name"
	cp "$tmp/module/trak_vmtest.ko" "$tmp/$name/"
done

vm taint -- /bin/sh -c 'insmod "$TRAK_OUT/trak_vmtest.ko"'
expect_status "an out-of-tree module's taint messages pass" 0 "$status"
expect_match "the taint message is on the console" "$tmp/taint/console.log" \
	"trak_vmtest: loading out-of-tree module taints kernel"
expect_match "the module is unloaded" "$tmp/taint/console.log" \
	"^trak-vm \\([0-9.]+ s\\): unloaded trak_vmtest"

vm warn -- /bin/sh -c 'insmod "$TRAK_OUT/trak_vmtest.ko" warn=1'
expect_status "a kernel WARNING fails the run" 125 "$status"
expect_line "the reason is the console" "$tmp/warn.txt" \
	"run-vm.sh: FAIL: the kernel reported problems on the console"
expect_match "the WARNING is shown" "$tmp/warn.txt" \
	"^[0-9]+:\[ *[0-9.]+\] WARNING: CPU: [0-9]+ PID: [0-9]+ at .*trak_vmtest"

# The guest waits 20 s (times TRAK_VM_TIME_FACTOR) before it reports.
hung_after=$((20 * ${TRAK_VM_TIME_FACTOR:-1}))
vm hung --disks 1 --disk-size 64M -- tests/vm/harness/selftest/hung-task.guest.sh
expect_status "a task blocked for $hung_after s fails the run" 125 "$status"
# The kernel prints how long the task has waited, which may be a little
# longer than the timeout under a slow guest.
expect_match "the blocked task is shown" "$tmp/hung.txt" \
	"^[0-9]+:\[ *[0-9.]+\] INFO: task .* blocked for more than [0-9]+ seconds\."

# Long enough for the guest to reach the command: the debug kernel boots
# slowly.
limit=$((30 * ${TRAK_VM_TIME_FACTOR:-1}))
vm timeout --timeout "$limit" -- sleep 600
expect_status "a run past its time limit fails" 124 "$status"
expect_line "the reason is the timeout" "$tmp/timeout.txt" \
	"run-vm.sh: FAIL: timed out after $limit s; the command did not finish"

if [ "$failures" -eq 0 ]; then
	rm -rf "$tmp"
else
	echo "results kept in $tmp"
fi
finish
