#!/bin/sh
# Builds the Debian packages trak-dkms and trak-tools into OUT_DIR.
#
#   build-debs.sh OUT_DIR
#
# dpkg-buildpackage writes its results next to the source tree, so the tree
# (the files git knows of, as they are now, committed or not) is copied
# into OUT_DIR/src first and built there: the worktree gets no debian/
# build litter and its parent directory no .deb files.
set -eu
out=$(mkdir -p "$1" && cd "$1" && pwd)
top=$(cd "$(dirname "$0")/.." && pwd)
version=$(cd "$top" && dpkg-parsechangelog -S Version)
src=$out/src/trak-$version

rm -rf "$out/src" "$out"/*.deb
mkdir -p "$src"
cd "$top"
# Files deleted but not yet committed are left out.
# shellcheck disable=SC2016
git ls-files --cached --others --exclude-standard -z |
	xargs -0 sh -c 'for f; do if [ -e "$f" ]; then printf "%s\0" "$f"; fi; done' sh |
	tar --null -T - -cf - | tar -xf - -C "$src"

cd "$src"
dpkg-buildpackage -b -us -uc -j"$(nproc)" >"$out/build.log" 2>&1 || {
	tail -n 40 "$out/build.log" >&2
	echo "build-debs.sh: dpkg-buildpackage failed; see $out/build.log" >&2
	exit 1
}
mv "$out"/src/*.deb "$out"/
# out/deb/src stays for inspection until the next build (make clean removes it).
ls "$out"/*.deb
