# Cross build with Debian's cross compilers for the target named by EGW_TARGET_TRIPLE, with the
# target's C and C++ libraries under /usr/<triple> and its programs run by qemu-user.
# Included by the per-target toolchain files, which set EGW_TARGET_TRIPLE, CMAKE_SYSTEM_PROCESSOR
# and EGW_QEMU.
#
# EGW_TARGET_ROOT (a cache variable, or the environment variable of that name) is a root of the
# target's other libraries, laid out like the board's /usr: scripts/crossDeps.sh makes one from
# Debian's packages for egwd (Thrift, OpenSSL, SQLite, cpp-httplib). Without it, only the library
# and the tool can be built.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${EGW_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${EGW_TARGET_TRIPLE}-g++)

if(NOT EGW_TARGET_ROOT AND DEFINED ENV{EGW_TARGET_ROOT})
  set(EGW_TARGET_ROOT $ENV{EGW_TARGET_ROOT})
endif()
set(EGW_TARGET_ROOT "${EGW_TARGET_ROOT}" CACHE PATH "root of the target's libraries for egwd")
# try_compile projects see the same roots.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES EGW_TARGET_ROOT)

set(CMAKE_FIND_ROOT_PATH /usr/${EGW_TARGET_TRIPLE})
if(EGW_TARGET_ROOT)
  list(APPEND CMAKE_FIND_ROOT_PATH ${EGW_TARGET_ROOT})
  # pkg-config reads the target's .pc files only, and puts their paths below the root.
  set(ENV{PKG_CONFIG_LIBDIR} ${EGW_TARGET_ROOT}/usr/lib/${EGW_TARGET_TRIPLE}/pkgconfig)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${EGW_TARGET_ROOT})
  # The root's shared libraries (OpenSSL, SQLite) load each other by their own names.
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${EGW_TARGET_ROOT}/usr/lib/${EGW_TARGET_TRIPLE}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "${CMAKE_EXE_LINKER_FLAGS_INIT}")
endif()
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

# Programs run under qemu-user with the target's C library; those of the target root find its
# shared libraries through the loader's path.
if(EGW_TARGET_ROOT)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${EGW_QEMU} -L /usr/${EGW_TARGET_TRIPLE}
      -E LD_LIBRARY_PATH=${EGW_TARGET_ROOT}/usr/lib/${EGW_TARGET_TRIPLE})
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR ${EGW_QEMU} -L /usr/${EGW_TARGET_TRIPLE})
endif()
