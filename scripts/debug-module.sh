#!/bin/sh
# Usage: debug-module.sh KERNEL_DIR OUT_DIR
#
# Builds trak.ko and trak_test.ko for the debug kernel in KERNEL_DIR (made
# by debug-kernel.sh) from a copy of driver/ and include/ in OUT_DIR, so
# that driver/ keeps the modules built for Debian's kernel.  Prints the
# directory that holds the two modules (for TRAK_MODULE_DIR).
set -eu
kernel=$1
out=$2
top=$(cd "$(dirname "$0")/.." && pwd)

kdir=$(TRAK_VM_KERNEL=$kernel "$top/tests/vm/harness/find-kernel.sh" --build)
mkdir -p "$out"
out=$(cd "$out" && pwd)
rm -rf "$out/driver" "$out/include"
cp -R "$top/driver" "$top/include" "$out/"
# Objects built for the other kernel must not be linked in.
find "$out/driver" \( -name '*.o' -o -name '*.ko' -o -name '*.mod*' -o \
	-name '.*.cmd' -o -name 'Module.symvers' -o -name 'modules.order' \) \
	-exec rm -f {} +
make -s -C "$kdir" M="$out/driver" modules >&2
echo "$out/driver"
