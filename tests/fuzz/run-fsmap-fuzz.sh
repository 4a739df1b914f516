#!/bin/sh
# Runs the file-system fuzzer.
#
#   run-fsmap-fuzz.sh FUZZER SEED_MAKER WORK_DIR SECONDS
#
# First replays every input in regressions/fsmap (each once crashed a
# reader), then makes fresh seeds from real images in WORK_DIR/seeds and
# fuzzes for SECONDS with a fixed seed, keeping the corpus it grows in
# WORK_DIR/corpus for the next run.  A crash leaves its input in WORK_DIR
# (crash-*) and fails the run; to keep it as a regression, copy it into
# regressions/fsmap.  Prints the number of runs and their rate.
set -eu
fuzzer=$(realpath "$1")
seed_maker=$(realpath "$2")
work=$3
seconds=$4
here=$(cd "$(dirname "$0")" && pwd)

mkdir -p "$work/seeds" "$work/corpus"
work=$(realpath "$work")
# Inputs are images of up to hundreds of MiB written as their non-zero
# sectors; a longer seed (file data) is cut, which keeps the metadata at
# its start.
max_len=1048576
# The readers allocate per segment of the partition; ASan's default limit
# of 2 GiB is what a run may use.
opts="-max_len=$max_len -rss_limit_mb=2048 -timeout=30 -print_final_stats=1"

# Given files, libFuzzer runs each once; given a directory, it would fuzz.
set -- "$here"/regressions/fsmap/*
if [ -e "$1" ]; then
	# shellcheck disable=SC2086
	"$fuzzer" $opts "$@"
	echo "run-fsmap-fuzz.sh: all $# regression inputs pass"
fi

rm -f "$work"/seeds/*
"$seed_maker" "$work/seeds"
cd "$work"
status=0
# shellcheck disable=SC2086
"$fuzzer" $opts -seed=1 -max_total_time="$seconds" corpus seeds >fuzz.log 2>&1 ||
	status=$?
grep -E '^#[0-9]+ *(INITED|DONE)|^stat::|ERROR|SUMMARY|^artifact_prefix|Test unit written' \
	fuzz.log || true
if [ "$status" -ne 0 ]; then
	echo "run-fsmap-fuzz.sh: the fuzzer failed (status $status); see $work/fuzz.log"
	exit 1
fi
runs=$(sed -n 's/^stat::number_of_executed_units: *//p' fuzz.log)
echo "run-fsmap-fuzz.sh: $runs runs in $seconds s ($((runs / seconds)) per second)"
