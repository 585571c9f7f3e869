# SPDX-License-Identifier: Apache-2.0
# Toolchain file for a board: the compilers and the sysroot of its SDK.
#
#   cmake --preset release -B build/board --toolchain cmake/sdk.cmake \
#       -DSDK_PREFIX=/opt/sdk/bin/arm-none-linux-gnueabihf- -DSDK_SYSROOT=/opt/sdk/sysroot
#
# SDK_PREFIX   what stands before "g++" in the compiler's name, with its folder unless on PATH
# SDK_SYSROOT  the folder that holds the board's usr/include and usr/lib
# SDK_EMULATOR what runs the board's programs here (optional), e.g. "qemu-arm-static"
set(CMAKE_SYSTEM_NAME Linux)
set(SDK_PREFIX "" CACHE STRING "Prefix of the cross compilers")
set(SDK_SYSROOT "" CACHE PATH "Root of the board's headers and libraries")
set(SDK_EMULATOR "" CACHE STRING "Program that runs the board's programs on this machine")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SDK_PREFIX SDK_SYSROOT SDK_EMULATOR)

get_filename_component(sdk_target "${SDK_PREFIX}" NAME)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR "${sdk_target}")
set(CMAKE_CXX_COMPILER "${SDK_PREFIX}g++")
set(CMAKE_SYSROOT "${SDK_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${SDK_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(SDK_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${SDK_EMULATOR};-L;${SDK_SYSROOT}")
endif()

# pkg-config looks into the sysroot only; Debian and its kin keep a folder for each target.
file(GLOB sdk_pkgconfig
     "${SDK_SYSROOT}/usr/lib/pkgconfig" "${SDK_SYSROOT}/usr/lib/*/pkgconfig"
     "${SDK_SYSROOT}/usr/share/pkgconfig")
string(REPLACE ";" ":" sdk_pkgconfig "${sdk_pkgconfig}")
set(ENV{PKG_CONFIG_LIBDIR} "${sdk_pkgconfig}")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${SDK_SYSROOT}")
