# shellcheck shell=sh
# Checks shared by the harness self-tests (sourced).  Each prints "ok" or
# "not ok" with what it checked; finish() exits 1 when any check failed.

failures=0

report() {
	if [ "$1" -eq 0 ]; then
		echo "ok - $2"
	else
		echo "not ok - $2"
		failures=$((failures + 1))
	fi
}

# expect_status WHAT EXPECTED ACTUAL
expect_status() {
	[ "$2" -eq "$3" ]
	report $? "$1 (status $3, expected $2)"
}

# expect_line WHAT FILE LINE: FILE has a line that is exactly LINE.
expect_line() {
	grep -qxF -- "$3" "$2"
	report $? "$1"
}

# expect_match WHAT FILE ERE: a line of FILE matches ERE.
expect_match() {
	grep -qE -- "$3" "$2"
	report $? "$1"
}

# expect_no_match WHAT FILE ERE: no line of FILE matches ERE.
expect_no_match() {
	! grep -qE -- "$3" "$2"
	report $? "$1"
}

finish() {
	if [ "$failures" -ne 0 ]; then
		echo "$failures check(s) failed"
		exit 1
	fi
	echo "all checks passed"
}
