# Cross build for 64-bit Arm Linux with Debian's crossbuild-essential-arm64;
# the binaries run on the build machine under qemu-user (Debian's qemu-user).
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(MEMM_TARGET_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${MEMM_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${MEMM_TARGET_TRIPLE}-g++)
# The target's libraries and headers; also where qemu finds the target's
# dynamic loader and C library.
set(MEMM_TARGET_SYSROOT /usr/${MEMM_TARGET_TRIPLE})

set(CMAKE_FIND_ROOT_PATH ${MEMM_TARGET_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest, gtest_discover_tests and add_test(... COMMAND <target>) run the
# target's programs through this.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR};-L;${MEMM_TARGET_SYSROOT})
