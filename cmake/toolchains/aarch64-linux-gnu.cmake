# 64-bit ARM.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(EGW_TARGET_TRIPLE aarch64-linux-gnu)
set(EGW_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debianCross.cmake)
