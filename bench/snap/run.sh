#!/bin/bash
# `make bench-snap`: the snapshot benchmark, in the test VM.
#
#   bench/snap/run.sh [BUILD] [SNAP_BENCH_OPTIONS...]
#
# Boots the test VM and runs BUILD's snap_bench (default BUILD: build) with
# the module driver/trak.ko; options after BUILD go to snap_bench
# (--repeats N, --span MIB; larger ones suit KVM). The VM's files and the
# report, snap-bench.txt, are left in out/bench-snap. One round (the
# default) takes about 5 minutes under TCG, each further one about 4 more.
exec "$(dirname "$0")/../common/run-in-vm.sh" bench-snap bench/snap/snap_bench bench-snap -- "$@"
