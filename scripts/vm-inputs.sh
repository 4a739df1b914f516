# shellcheck shell=bash
# Sourced by the scripts that boot the test VM to run something built in
# BUILD (the benchmarks, the demo).
#
# check_vm_inputs NAME FILE BUILD: exits with a message, prefixed by NAME,
# unless FILE (the program the guest runs) and driver/trak.ko are built and
# BUILD lies where the guest sees it: the VM has its own /tmp and /run.
check_vm_inputs() {
	local name=$1 file=$2 build=$3
	local top
	top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
	[ -x "$file" ] || { echo "$name: no $file: run 'make tools' first"; exit 1; }
	[ -f "$top/driver/trak.ko" ] || { echo "$name: no driver/trak.ko: run 'make module' first"; exit 1; }
	case $build/ in
	/tmp/* | /run/*)
		echo "$name: the VM has its own /tmp and /run: build outside them, not in $build"
		exit 1
		;;
	esac
}
