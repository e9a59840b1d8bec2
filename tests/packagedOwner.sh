#!/usr/bin/env bash
# The Debian packages made from the build, and an owner's project built
# against them as they install, as in golden/packagedOwner.txt:
#   packagedOwner.sh BUILD-DIR ARCHITECTURE EXAMPLES SIMPRINTER CXXFLAGS LDFLAGS
set -euo pipefail
build=$1 arch=$2 examples=$3 sim=$4 cxxflags=$5 ldflags=$6
work=$(mktemp -d /var/tmp/packagedOwner.XXXXXX)
trap 'rm -rf "$work"' EXIT
quiet() { "$@" >"$work/out" 2>&1 || cat "$work/out"; }
. "$(dirname "$0")/replay.sh"
replay "$(dirname "$0")/golden/packagedOwner.txt"
