#!/bin/sh
# Style and static checks of the kernel sources: checkpatch (from Debian's
# linux-source-6.1) on every file, and sparse on every object.
#   scripts/lint.sh KDIR [BUILD]
set -eu
kdir=$1
build=${2:-build}
top=$(cd "$(dirname "$0")/.." && pwd)
cp_dir=$top/$build/checkpatch

if [ ! -x "$cp_dir/scripts/checkpatch.pl" ]; then
	mkdir -p "$cp_dir"
	tar -C "$cp_dir" -xJf /usr/src/linux-source-6.1.tar.xz \
		--strip-components=1 \
		linux-source-6.1/scripts/checkpatch.pl \
		linux-source-6.1/scripts/spelling.txt \
		linux-source-6.1/scripts/const_structs.checkpatch
fi

status=0
cd "$top"
for f in $(git ls-files -co --exclude-standard 'driver/*.[ch]' 'include/*.h'); do
	perl "$cp_dir/scripts/checkpatch.pl" --no-tree --quiet -f "$f" ||
		status=1
done

# Rebuild every object with sparse; any warning is a failure.
out=$(make -s -C "$kdir" M="$top/driver" C=2 modules 2>&1) || status=1
if printf '%s\n' "$out" | grep -E 'warning|error'; then
	status=1
fi

[ $status -eq 0 ] && echo "lint: kernel sources clean (checkpatch, sparse)"
exit $status
