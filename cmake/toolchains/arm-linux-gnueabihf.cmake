# 32-bit ARM, hard-float calling convention: the panel's class of board.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(EGW_TARGET_TRIPLE arm-linux-gnueabihf)
set(EGW_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debianCross.cmake)
