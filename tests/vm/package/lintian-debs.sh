#!/bin/sh
# Runs lintian over the built packages; any error or warning fails, and
# the overrides in debian/*.lintian-overrides say why a tag is accepted.
#
#   lintian-debs.sh DEB_DIR
set -eu
exec lintian --fail-on error,warning --info "$1"/trak-dkms_*.deb "$1"/trak-tools_*.deb
