#!/bin/bash
# Runs one benchmark binary in the test VM; the benchmarks' run.sh scripts
# call it so that they check their inputs and boot the VM alike.
#
#   bench/common/run-in-vm.sh NAME BINARY OUT [VM_OPTIONS...] -- [BUILD] [BENCH_OPTIONS...]
#
# NAME prefixes the messages, BINARY is the benchmark's path inside BUILD
# (default BUILD: build), OUT the output directory under out/. VM_OPTIONS go
# to tests/vm/harness/run-vm.sh after its defaults here (--mem 3072
# --timeout 1800), so they can override them. The binary gets --module
# driver/trak.ko and the options after BUILD.
set -euo pipefail

top=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=scripts/vm-inputs.sh
. "$top/scripts/vm-inputs.sh"
name=$1 binary=$2 out=$3
shift 3
vm_options=()
while (($#)) && [ "$1" != -- ]; do
	vm_options+=("$1")
	shift
done
(($#)) && shift
build=${1:-build}
(($#)) && shift
[[ $build == /* ]] || build=$top/$build
bench=$build/$binary

check_vm_inputs "$name" "$bench" "$build"
exec "$top/tests/vm/harness/run-vm.sh" --out "$top/out/$out" --mem 3072 --timeout 1800 \
	"${vm_options[@]}" -- "$bench" --module driver/trak.ko "$@"
