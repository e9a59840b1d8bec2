# Cross build for the appliance: 32-bit ARM, Debian's armhf ABI, against the
# sysroot that tools/make-arm-sysroot makes (ARM_SYSROOT names another).
# CTest runs every test program under qemu-arm, with the sysroot as the
# emulated program's root for its libraries and no binfmt registration.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# An environment variable, not a cache entry: this file is read again for
# every try_compile, which sees the environment but not the cache.
if(DEFINED ENV{ARM_SYSROOT})
    set(CMAKE_SYSROOT "$ENV{ARM_SYSROOT}")
else()
    get_filename_component(CMAKE_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../sysroot-armhf" ABSOLUTE)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${CMAKE_SYSROOT}")

# Programs (compilers, moc) come from the host; everything linked, from the sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# moc, uic and rcc run on the host. Debian's sysroot names the host's own
# (Debian's Qt 5.15); a sysroot with the appliance's Qt 5.4 needs that Qt's
# tools built for the host: QT_HOST_BIN, an environment variable for the same
# reason as ARM_SYSROOT, names the directory that holds them. (This file is
# read more than once; the tools are named once.)
if(DEFINED ENV{QT_HOST_BIN})
    foreach(tool moc uic rcc)
        if(NOT TARGET Qt5::${tool})
            add_executable(Qt5::${tool} IMPORTED GLOBAL)
            set_target_properties(Qt5::${tool} PROPERTIES IMPORTED_LOCATION "$ENV{QT_HOST_BIN}/${tool}")
        endif()
    endforeach()
endif()
