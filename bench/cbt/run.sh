#!/bin/bash
# `make bench`: the change-tracking benchmark, in the test VM.
#
#   bench/cbt/run.sh [BUILD] [CBT_BENCH_OPTIONS...]
#
# Boots the test VM (tests/vm/harness/run-vm.sh) and runs BUILD's cbt_bench
# (default BUILD: build) with the module driver/trak.ko; options after BUILD
# go to cbt_bench (--runtime SECONDS, --repeats N, --span MIB).  The VM's
# one disk (/dev/vda) holds the trak node's bitmap files.  The VM's files
# are left in out/bench.  Takes about 10 minutes under TCG.
set -euo pipefail

top=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-build}
(($#)) && shift
[[ $build == /* ]] || build=$top/$build
bench=$build/bench/cbt/cbt_bench

[ -x "$bench" ] || { echo "bench: no $bench: run 'make tools' first"; exit 1; }
[ -f "$top/driver/trak.ko" ] || { echo "bench: no driver/trak.ko: run 'make module' first"; exit 1; }
case $build/ in
/tmp/* | /run/*)
	echo "bench: the VM has its own /tmp and /run: build outside them, not in $build"
	exit 1
	;;
esac

exec "$top/tests/vm/harness/run-vm.sh" --out "$top/out/bench" --mem 3072 --timeout 2400 \
	--disks 1 --disk-size 512M \
	-- "$bench" --module driver/trak.ko "$@"
