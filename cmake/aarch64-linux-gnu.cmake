# Cross-builds for arm64 with Debian's compiler; the libraries are those of the Debian tree that
# KM_SYSROOT names, which scripts/test-arm64 lays out. Programs run under QEMU.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KM_SYSROOT)

set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${KM_SYSROOT}/usr/include/aarch64-linux-gnu)

# The compiler brings its own C library; only what is found comes from the tree.
set(CMAKE_FIND_ROOT_PATH ${KM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/aarch64-linux-gnu)
