#!/usr/bin/env bash
# The Debian packages made from the build, and an owner's project built
# against them as they install:
#   packagedOwner.sh BUILD-DIR ARCHITECTURE EXAMPLES SIMPRINTER CXXFLAGS LDFLAGS
# cpack -G DEB makes both packages for the build's architecture, with the
# files each must carry; the examples' project (find_package(softShutDown)
# and nothing else of ours) configures and builds against the unpacked
# packages, with the build's compiler flags; its printer owner then runs a
# job against the simulated controller.
set -euo pipefail
build=$1 arch=$2 examples=$3 sim=$4 cxxflags=$5 ldflags=$6
work=$(mktemp -d /var/tmp/packagedOwner.XXXXXX)
trap 'rm -rf "$work"' EXIT

failures=0
check() {
    local what=$1
    shift
    if "$@"; then echo "ok    $what"; else echo "FAIL  $what"; failures=$((failures + 1)); fi
}
carries() { # package, then the paths (regular expressions) it must hold
    local package=$1 path
    shift
    dpkg-deb -c "$package" | awk '{print $6}' >"$work/contents"
    for path in "$@"; do
        grep -qx "\./${path#/}" "$work/contents" || { echo "      no $path"; return 1; }
    done
}

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; exit 1; }
daemon=$(ls "$work"/packages/softshutdown_*.deb)
dev=$(ls "$work"/packages/softshutdown-dev_*.deb)
check "the daemon's package is for $arch" test "$(dpkg-deb -f "$daemon" Architecture)" = "$arch"
check "... and carries the daemon and the start-up files" carries "$daemon" \
    /usr/sbin/softShutDown /usr/lib/systemd/system/softShutDown.service \
    /etc/init.d/softShutDown /etc/default/softShutDown
check "... which upgrades keep as the appliance edited them" \
    grep -qx /etc/default/softShutDown <(dpkg-deb -I "$daemon" conffiles)
check "the development package is for $arch" test "$(dpkg-deb -f "$dev" Architecture)" = "$arch"
check "... and carries the library, its headers and its CMake package" carries "$dev" \
    '/usr/lib/.*libsupervisor.a' /usr/include/softShutDown/shutSerialObject.h \
    /usr/include/softShutDown/shutMyGpio.h '/usr/lib/.*/cmake/softShutDown/softShutDownConfig.cmake'

mkdir "$work/root"
dpkg-deb -x "$daemon" "$work/root"
dpkg-deb -x "$dev" "$work/root"
owner() {
    cmake -S "$examples" -B "$work/owner" -DCMAKE_PREFIX_PATH="$work/root/usr" \
        -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_EXE_LINKER_FLAGS="$ldflags" >"$work/owner.log" 2>&1 &&
        cmake --build "$work/owner" -j2 >>"$work/owner.log" 2>&1 || { cat "$work/owner.log"; return 1; }
}
check "the examples' project builds against the unpacked packages" owner
check "... with the library from them" grep -q "$work/root/usr/lib/.*libsupervisor.a" \
    "$work/owner/CMakeFiles/printerOwner.dir/link.txt"
job() { "$sim" -- "$work/owner/printerOwner" >"$work/job.log" 2>&1 || { cat "$work/job.log"; return 1; }; }
check "its printer owner runs a job against the simulated controller" job
check "... and every command is answered" test "$(grep -c ' -> ok 7$' "$work/job.log")" -eq 4

# Taken in by a parent project with add_subdirectory, which finds no Qt of
# its own: the link interface resolves at generation, and nothing but the
# library and the daemon comes along.
parent() {
    mkdir "$work/parent"
    printf '%s\n' 'cmake_minimum_required(VERSION 3.16)' 'project(parent LANGUAGES CXX)' \
        "add_subdirectory($examples/.. softShutDown)" 'add_executable(owner owner.cpp)' \
        'target_link_libraries(owner PRIVATE softShutDown::supervisor)' >"$work/parent/CMakeLists.txt"
    touch "$work/parent/owner.cpp"
    cmake -S "$work/parent" -B "$work/parent/build" >"$work/parent.log" 2>&1 || { cat "$work/parent.log"; return 1; }
    cmake --build "$work/parent/build" --target help | awk '/^\.\.\. /{print $2}' | sort >"$work/targets"
    ! grep -E 'tst_|sim|Owner|bench|private_tree|package' "$work/targets"
}
check "add_subdirectory: generates without the parent's find_package(Qt5), no tests or examples" parent

[ "$failures" -eq 0 ] || { echo "$failures checks failed"; exit 1; }
echo "all checks passed"
