#!/bin/sh
# A snap's copy-on-write order against every moment the power could have
# failed: one boot of the test VM running
# CrashConsistencyTest.NoChunkChangesBeforeItsCopyAndBitAreDurable.
#
#   crash-consistency.sh OUT_DIR SUITE_BINARY [--full]
#
# The guest gets two fresh disks: /dev/vda (64 MiB) holds the snapped
# partition and the COW store's ext4, every write to it logged by
# dm-log-writes on /dev/vdb (1 GiB, sparse on the host). The case replays
# the log and checks the COW files at every flush and every end of a run
# of partition writes, and at random points.
#
# Without --full: writers for 30 s and 40 random points, 64 KiB chunks
# (the CTest vm.crash-consistency, 3 to 4 minutes under TCG). With
# --full (make crash-replay): a run of 64 KiB chunks and one of 4 KiB
# chunks, writers for 90 s and 500 random points each. TRAK_CRASH_SEED, TRAK_CRASH_WRITE_SECONDS and
# TRAK_CRASH_RANDOM_PREFIXES, when set, choose instead; the seed of each
# run is printed. TRAK_VM_TIME_FACTOR stretches the time limit.
set -eu
out=$1
suite=$2
full=${3:-}
here=$(cd "$(dirname "$0")" && pwd)

if [ "$full" = --full ]; then
	seconds=${TRAK_CRASH_WRITE_SECONDS:-90}
	points=${TRAK_CRASH_RANDOM_PREFIXES:-500}
	chunk_sizes="65536 4096"
	limit=3600
else
	seconds=${TRAK_CRASH_WRITE_SECONDS:-30}
	points=${TRAK_CRASH_RANDOM_PREFIXES:-40}
	chunk_sizes=65536
	limit=500
fi

rm -rf "$out"
mkdir -p "$out"
status=0
for chunk in $chunk_sizes; do
	run=$out/chunk$chunk
	mkdir -p "$run"
	truncate -s 64M "$run/disk0.img"
	truncate -s 1G "$run/log.img"
	set -- env "TRAK_CRASH_WRITE_SECONDS=$seconds" "TRAK_CRASH_RANDOM_PREFIXES=$points" \
		"TRAK_CRASH_CHUNK_SIZE=$chunk"
	if [ -n "${TRAK_CRASH_SEED:-}" ]; then
		set -- "$@" "TRAK_CRASH_SEED=$TRAK_CRASH_SEED"
	fi
	"$here/harness/run-vm.sh" --out "$run" --disk "$run/disk0.img" --disk "$run/log.img" \
		--timeout $((limit * ${TRAK_VM_TIME_FACTOR:-1})) -- "$@" "$suite" \
		--gtest_filter=CrashConsistencyTest.NoChunkChangesBeforeItsCopyAndBitAreDurable ||
		status=$?
	[ "$status" -eq 0 ] || break
	# The images of a run that passed are of no further use; the log is large.
	rm -f "$run/disk0.img" "$run/log.img"
done
exit "$status"
