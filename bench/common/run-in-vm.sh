#!/bin/bash
# Runs one benchmark binary in the test VM; the benchmarks' run.sh scripts
# call it so that they check their inputs and boot the VM alike.
#
#   bench/common/run-in-vm.sh NAME BINARY OUT [BUILD] [BENCH_OPTIONS...]
#
# NAME prefixes the messages, BINARY is the benchmark's path inside BUILD
# (default BUILD: build), OUT the output directory under out/. The binary
# gets --module driver/trak.ko and the options after BUILD.
set -euo pipefail

top=$(cd "$(dirname "$0")/../.." && pwd)
name=$1 binary=$2 out=$3
shift 3
build=${1:-build}
(($#)) && shift
[[ $build == /* ]] || build=$top/$build
bench=$build/$binary

[ -x "$bench" ] || { echo "$name: no $bench: run 'make tools' first"; exit 1; }
[ -f "$top/driver/trak.ko" ] || { echo "$name: no driver/trak.ko: run 'make module' first"; exit 1; }
case $build/ in
/tmp/* | /run/*)
	echo "$name: the VM has its own /tmp and /run: build outside them, not in $build"
	exit 1
	;;
esac

exec "$top/tests/vm/harness/run-vm.sh" --out "$top/out/$out" --mem 3072 --timeout 1800 \
	-- "$bench" --module driver/trak.ko "$@"
