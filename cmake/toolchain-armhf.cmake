# Cross-compiles for 32-bit ARM (armhf, arm-linux-gnueabihf) with Debian's cross compiler against a
# sysroot of armhf Debian packages that scripts/cross-armhf unpacks. Qt's code generators (moc,
# rcc) come from the build machine's own Qt of the same version; the test executables run through
# qemu-arm-static with the sysroot as the prefix of every absolute path they load.
#
# The sysroot defaults to build/armhf-sysroot of this checkout; CONTEXT_SYNC_ARMHF_SYSROOT (cache
# variable or environment variable) points it elsewhere.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes on every Qt value type passed by value that its ARM calling convention changed in
# GCC 9.1; everything here is built by one compiler, so the note says nothing.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# The toolchain file is read again for every try_compile, where only the environment and the
# forwarded variables survive; the environment carries the sysroot there.
if(NOT CONTEXT_SYNC_ARMHF_SYSROOT)
    if(DEFINED ENV{CONTEXT_SYNC_ARMHF_SYSROOT})
        set(CONTEXT_SYNC_ARMHF_SYSROOT "$ENV{CONTEXT_SYNC_ARMHF_SYSROOT}")
    else()
        get_filename_component(CONTEXT_SYNC_ARMHF_SYSROOT
            "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" ABSOLUTE)
    endif()
endif()
set(CONTEXT_SYNC_ARMHF_SYSROOT "${CONTEXT_SYNC_ARMHF_SYSROOT}" CACHE PATH
    "Root of the unpacked armhf packages")
set(ENV{CONTEXT_SYNC_ARMHF_SYSROOT} "${CONTEXT_SYNC_ARMHF_SYSROOT}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CONTEXT_SYNC_ARMHF_SYSROOT)

if(NOT EXISTS "${CONTEXT_SYNC_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
    message(FATAL_ERROR "No armhf sysroot at ${CONTEXT_SYNC_ARMHF_SYSROOT}: run scripts/cross-armhf")
endif()

set(CMAKE_SYSROOT "${CONTEXT_SYNC_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${CONTEXT_SYNC_ARMHF_SYSROOT}")
# Programs run on the build machine; libraries, headers and package files are the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config (libmosquitto) reads the target's .pc files and prefixes their paths with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CONTEXT_SYNC_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CONTEXT_SYNC_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CONTEXT_SYNC_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The libraries that Qt and the others need in turn are found at link time in the sysroot's
# library folders, which the packages spread over /lib and /usr/lib.
string(JOIN ":" _armhf_rpath_link
    "${CONTEXT_SYNC_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf"
    "${CONTEXT_SYNC_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_armhf_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_armhf_rpath_link}")

# Host tools of the same Qt version (moc, rcc, ...), found through the build machine's CMake files.
set(QT_HOST_PATH "/usr" CACHE PATH "Prefix of the build machine's Qt")
set(QT_HOST_PATH_CMAKE_DIR "/usr/lib/x86_64-linux-gnu/cmake" CACHE PATH
    "CMake folder of the build machine's Qt")

# CTest and gtest_discover_tests run the test executables through user-mode emulation. The
# sysroot prefix lets the dynamic loader and the C library find their files under it.
find_program(CONTEXT_SYNC_QEMU_ARM NAMES qemu-arm-static qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${CONTEXT_SYNC_QEMU_ARM};-L;${CONTEXT_SYNC_ARMHF_SYSROOT}")
