#!/bin/sh
# Usage: scan-console.sh CONSOLE_LOG
#
# Looks in a test VM's console log for the kernel's reports of bugs: every
# line matching one of the extended regular expressions in
# console-bad.patterns (one per line).  Prints each such line, with its line
# number and some context, and exits 1 when there is one; exits 0 on a clean
# log and 2 when the log cannot be read.
set -eu

[ $# -eq 1 ] || {
	echo "usage: $0 CONSOLE_LOG" >&2
	exit 2
}
log=$1
patterns="$(dirname "$0")/console-bad.patterns"
for f in "$log" "$patterns"; do
	[ -r "$f" ] || {
		echo "scan-console.sh: cannot read $f" >&2
		exit 2
	}
done

# The serial console ends its lines with CR LF.  grep marks matching lines
# with "NUMBER:" and the context with "NUMBER-".
set +e
found=$(tr -d '\r' <"$log" | grep -n -E -B 2 -A 12 -f "$patterns")
status=$?
set -e
case $status in
0)
	echo "scan-console.sh: the kernel reported problems in $log:"
	echo "$found"
	exit 1
	;;
1) exit 0 ;;
*) exit 2 ;;
esac
