# 64-bit big-endian Linux (IBM Z), run under qemu-s390x: catches byte-order
# faults. Used by scripts/cross-test s390x.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(KESTREL_CROSS_TRIPLET s390x-linux-gnu)
set(KESTREL_CROSS_MULTIARCH s390x-linux-gnu)
set(KESTREL_CROSS_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
