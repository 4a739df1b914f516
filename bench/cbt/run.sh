#!/bin/bash
# `make bench-cbt`: the change-tracking benchmark, in the test VM.
#
#   bench/cbt/run.sh [BUILD] [CBT_BENCH_OPTIONS...]
#
# Boots the test VM (tests/vm/harness/run-vm.sh) and runs BUILD's cbt_bench
# (default BUILD: build) with the module driver/trak.ko; options after BUILD
# go to cbt_bench (--runtime SECONDS, --repeats N, --span MIB).  The VM's
# one disk (/dev/vda) holds the trak node's bitmap files.  The VM's files
# are left in out/bench.  Takes about 10 minutes under TCG.
exec "$(dirname "$0")/../common/run-in-vm.sh" bench bench/cbt/cbt_bench bench \
	--timeout 2400 --disks 1 --disk-size 512M -- "${1:-build}" --bitmap-disk /dev/vda "${@:2}"
