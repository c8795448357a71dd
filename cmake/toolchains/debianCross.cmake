# Cross build with Debian's cross compilers for the target named by EGW_TARGET_TRIPLE, with the
# target's C and C++ libraries under /usr/<triple> and its programs run by qemu-user.
# Included by the per-target toolchain files, which set EGW_TARGET_TRIPLE, CMAKE_SYSTEM_PROCESSOR
# and EGW_QEMU.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${EGW_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${EGW_TARGET_TRIPLE}-g++)

set(CMAKE_FIND_ROOT_PATH /usr/${EGW_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# A project that links libraries from outside the target root (an unpacked install tree) may set
# the library mode to BOTH.
if(NOT DEFINED CMAKE_FIND_ROOT_PATH_MODE_LIBRARY)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Header-only packages (nlohmann-json, CLI11) install their CMake files for every architecture
# under the build machine's /usr; compiled libraries are still looked up in the target root only.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# GCC notes that the ARM calling convention for some std types changed in GCC 7.1; everything here
# is built by one compiler.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

set(CMAKE_CROSSCOMPILING_EMULATOR ${EGW_QEMU} -L /usr/${EGW_TARGET_TRIPLE})
