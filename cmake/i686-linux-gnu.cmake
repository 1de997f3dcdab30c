# 32-bit little-endian Linux (x86): catches word-size faults (32-bit size_t,
# long and pointers). The tests run natively through the target's loader
# where the kernel runs 32-bit programs, else under qemu-i386. Used by
# scripts/cross-test i386.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(KESTREL_CROSS_TRIPLET i686-linux-gnu)
set(KESTREL_CROSS_MULTIARCH i386-linux-gnu)
set(KESTREL_CROSS_QEMU qemu-i386)
set(KESTREL_CROSS_LOADER ld-linux.so.2)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
