#!/bin/sh
# Tests scan-console.sh on console logs made up here: a clean one with the
# expected taint messages, and one for each kind of kernel report it must
# catch.
set -u
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source-path=SCRIPTDIR
. "$here/lib.sh"
scan=$here/../scan-console.sh
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# A log as the serial console writes it (CR LF) from the lines given.
make_log() {
	printf '%s\r\n' "[    2.484221] Run /init as init process" \
		"[    2.802889] 9p: Installing v9fs 9p2000 file system support" \
		"$@" "[    4.345626] reboot: Power down" >"$tmp/console.log"
}

make_log "[    5.001000] trak: loading out-of-tree module taints kernel." \
	"[    5.002000] trak: module verification failed: signature and/or required key missing - tainting kernel" \
	"[    5.300000] REISERFS warning:  read_super_block: reiserfs filesystem is deprecated and scheduled to be removed from the kernel in 2025"
"$scan" "$tmp/console.log" >"$tmp/stdout"
expect_status "a clean log with the taint messages passes" 0 $?
expect_status "a clean log prints nothing" 0 "$(wc -c <"$tmp/stdout")"

make_log "[    5.100000] WARNING: CPU: 0 PID: 1 at fs/foo.c:12 foo+0x1/0x2" \
	"[    5.100001] Modules linked in: trak(OE)"
"$scan" "$tmp/console.log" >"$tmp/stdout"
expect_status "a WARNING fails the scan" 1 $?
expect_line "the WARNING line is shown with its number" "$tmp/stdout" \
	"3:[    5.100000] WARNING: CPU: 0 PID: 1 at fs/foo.c:12 foo+0x1/0x2"
expect_line "the line before it is shown" "$tmp/stdout" \
	"2-[    2.802889] 9p: Installing v9fs 9p2000 file system support"
expect_line "the line after it is shown" "$tmp/stdout" \
	"4-[    5.100001] Modules linked in: trak(OE)"
expect_no_match "carriage returns are removed" "$tmp/stdout" "$(printf '\r')"

make_log "[   45.000000] INFO: task foo:123 blocked for more than 20 seconds."
"$scan" "$tmp/console.log" >"$tmp/stdout"
expect_status "a blocked task fails the scan" 1 $?
expect_line "the blocked task is shown" "$tmp/stdout" \
	"3:[   45.000000] INFO: task foo:123 blocked for more than 20 seconds."

# One report of each kind the kernel prints.
while IFS= read -r report; do
	make_log "[    7.000000] $report"
	"$scan" "$tmp/console.log" >/dev/null
	expect_status "fails on: $report" 1 $?
done <<'REPORTS'
BUG: kernel NULL pointer dereference, address: 0000000000000000
Oops: 0000 [#1] PREEMPT SMP NOPTI
general protection fault, probably for non-canonical address 0xdead000000000100: 0000 [#1] SMP NOPTI
WARNING: possible circular locking dependency detected
WARNING: possible recursive locking detected
WARNING: inconsistent lock state
BUG: KASAN: use-after-free in trak_cowqueue_append+0x10/0x20 [trak]
UBSAN: shift-out-of-bounds in drivers/trak/filter/bitmap.c:10:5
kernel BUG at drivers/trak/snap/cowqueue.c:42!
Kernel panic - not syncing: Fatal exception
refcount_t: underflow; use-after-free.
list_add corruption. prev->next should be next (ffff888003c0a000), but was 0000000000000000.
list_del corruption, ffff888003c0a000->next is LIST_POISON1 (dead000000000100)
BUG: scheduling while atomic: kcowd/123/0x00000002
BUG: sleeping function called from invalid context at mm/slab.h:1
"echo 0 > /proc/sys/kernel/hung_task_timeout_secs" disables this message.
REPORTS

"$scan" "$tmp/missing.log" 2>"$tmp/stderr"
expect_status "a missing log is an error" 2 $?
expect_line "the missing log is named" "$tmp/stderr" \
	"scan-console.sh: cannot read $tmp/missing.log"

finish
