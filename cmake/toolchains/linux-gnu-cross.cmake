# The common part of the cross toolchain files for Debian's GNU cross
# compilers (crossbuild-essential-ARCH); the architecture's own file sets
# QUIL_CROSS_TRIPLET, QUIL_CROSS_PROCESSOR and QUIL_CROSS_QEMU and includes it.
#
# Target libraries come from either
#   - a sysroot, an unpacked target root file system: -DCMAKE_SYSROOT=DIR
#     (scripts/cross-test.sh makes one under /var/cache/quil-audio), or
#   - Debian multiarch packages of the target installed on the build machine
#     (libasound2-dev:armhf ...): no CMAKE_SYSROOT, they are in /usr/lib/TRIPLET.
# Either way Qt's moc and rcc are the build machine's (qtbase5-dev-tools).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${QUIL_CROSS_PROCESSOR})
set(CMAKE_C_COMPILER ${QUIL_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QUIL_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${QUIL_CROSS_TRIPLET})

# try_compile projects re-read this file: hand the sysroot on to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CMAKE_SYSROOT)

if(CMAKE_SYSROOT)
    # Appended: a device build may add roots of its own (a staging directory).
    list(APPEND CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
    list(REMOVE_DUPLICATES CMAKE_FIND_ROOT_PATH)
    set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
endif()
# The target's .pc files only, never the build machine's.
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/${QUIL_CROSS_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

# Programs (moc, pkg-config) from the build machine, everything else from the target.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Target executables run on the build machine through qemu-user (Debian
# qemu-user-static), without binfmt registration: ctest runs tests through it.
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    find_program(QUIL_CROSS_QEMU_PROGRAM ${QUIL_CROSS_QEMU})
    if(QUIL_CROSS_QEMU_PROGRAM)
        if(CMAKE_SYSROOT)
            set(CMAKE_CROSSCOMPILING_EMULATOR ${QUIL_CROSS_QEMU_PROGRAM} -L ${CMAKE_SYSROOT})
        else()
            set(CMAKE_CROSSCOMPILING_EMULATOR ${QUIL_CROSS_QEMU_PROGRAM})
        endif()
    endif()
endif()
