#!/usr/bin/env bash
# The Debian packages made from the build, and an owner's project built
# against them as they install:
#   packagedOwner.sh BUILD-DIR ARCHITECTURE EXAMPLES SIMPRINTER CXXFLAGS LDFLAGS
# cpack -G DEB makes both packages for the build's architecture, with the
# files each must carry; the examples' project (find_package(softShutDown)
# and nothing else of ours) configures and builds against the unpacked
# packages, with the build's compiler flags; its printer owner then runs a
# job against the simulated controller. The first failure ends the test.
set -euo pipefail
build=$1 arch=$2 examples=$3 sim=$4 cxxflags=$5 ldflags=$6
work=$(mktemp -d /var/tmp/packagedOwner.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL $*"; exit 1; }
quiet() { "$@" >"$work/out" 2>&1 || fail "$*: $(cat "$work/out")"; }
carries() { # package, then the paths (regular expressions) it must hold
    local package=$1 path
    shift
    [ "$(dpkg-deb -f "$package" Architecture)" = "$arch" ] || fail "$package is not for $arch"
    dpkg-deb -c "$package" | awk '{print $6}' >"$work/contents"
    for path; do grep -qx "\./${path#/}" "$work/contents" || fail "$package has no $path"; done
}

quiet cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/packages"
daemon=$(ls "$work"/packages/softshutdown_*.deb) dev=$(ls "$work"/packages/softshutdown-dev_*.deb)
carries "$daemon" /usr/sbin/softShutDown /usr/lib/systemd/system/softShutDown.service \
    /etc/init.d/softShutDown /etc/default/softShutDown
dpkg-deb -I "$daemon" conffiles | grep -qx /etc/default/softShutDown || fail "upgrades would replace the defaults"
carries "$dev" '/usr/lib/.*libsupervisor.a' /usr/include/softShutDown/shutSerialObject.h \
    /usr/include/softShutDown/shutMyGpio.h '/usr/lib/.*/cmake/softShutDown/softShutDownConfig.cmake'

dpkg-deb -x "$daemon" "$work/root"
dpkg-deb -x "$dev" "$work/root"
quiet cmake -S "$examples" -B "$work/owner" -DCMAKE_PREFIX_PATH="$work/root/usr" \
    -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_EXE_LINKER_FLAGS="$ldflags"
quiet cmake --build "$work/owner" -j2 --target printerOwner appliance
grep -q "$work/root/usr/lib/.*libsupervisor.a" "$work/owner/CMakeFiles/printerOwner.dir/link.txt" ||
    fail "the owner is not linked with the packaged library"
quiet "$sim" -- "$work/owner/printerOwner"
[ "$(grep -c ' -> ok 7$' "$work/out")" -eq 4 ] || fail "not every command answered: $(cat "$work/out")"

# Taken in by a parent project with add_subdirectory, which finds no Qt of
# its own: the link interface resolves at generation, and nothing but the
# library and the daemon comes along.
mkdir "$work/parent"
printf '%s\n' 'cmake_minimum_required(VERSION 3.16)' 'project(parent LANGUAGES CXX)' \
    "add_subdirectory($examples/.. softShutDown)" 'add_executable(owner owner.cpp)' \
    'target_link_libraries(owner PRIVATE softShutDown::supervisor)' >"$work/parent/CMakeLists.txt"
touch "$work/parent/owner.cpp"
quiet cmake -S "$work/parent" -B "$work/parent/build"
! cmake --build "$work/parent/build" --target help | grep -E '^\.\.\. .*(tst_|sim|Owner|bench|private_tree|package)' ||
    fail "add_subdirectory brings more than the library and the daemon"
echo "all checks passed"
