# Shared part of the cross toolchain files: a Debian cross compiler
# (g++-<triplet>) and a private sysroot that scripts/cross-test fills with
# the target's Debian library packages (OpenSSL, SQLite, GoogleTest,
# nlohmann-json), unpacked rather than installed so that the host's own
# packages are never tied to the target's versions.
#
# The including file sets KESTREL_CROSS_TRIPLET (compiler prefix),
# KESTREL_CROSS_MULTIARCH (Debian's library folder name) and
# KESTREL_CROSS_QEMU (the user-mode emulator that runs the tests) and, for a
# target the host can run natively, KESTREL_CROSS_LOADER (its dynamic loader).
# KESTREL_CROSS_SYSROOT in the environment overrides the sysroot folder.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KESTREL_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KESTREL_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KESTREL_CROSS_MULTIARCH})

if(DEFINED ENV{KESTREL_CROSS_SYSROOT})
  set(_kc_root $ENV{KESTREL_CROSS_SYSROOT})
else()
  set(_kc_root /opt/kestrel-cross/${KESTREL_CROSS_TRIPLET})
endif()
set(_kc_libc /usr/${KESTREL_CROSS_TRIPLET})
set(_kc_libdir ${_kc_root}/usr/lib/${KESTREL_CROSS_MULTIARCH})

set(CMAKE_FIND_ROOT_PATH ${_kc_root} ${_kc_libc})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Keep the host's pkg-config files out of the search for OpenSSL.
set(ENV{PKG_CONFIG_LIBDIR} ${_kc_libdir}/pkgconfig:${_kc_root}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${_kc_root})

# Debian keeps OpenSSL's configuration header in the multiarch include
# folder, which the cross compiler does not search by itself.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES ${_kc_root}/usr/include/${KESTREL_CROSS_MULTIARCH})
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${_kc_root}/usr/include/${KESTREL_CROSS_MULTIARCH})
# libssl.so names libcrypto.so.3 and so on: let the linker find them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_kc_libdir}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_kc_libdir}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_kc_libdir}")

# ctest runs every test program through the emulator, with the target's C
# library and the sysroot's shared libraries. A target that the host kernel
# runs by itself (i386 on x86-64) goes through its own dynamic loader
# instead: faster, and free of qemu's faults with threads and directory
# cookies, which hang or fail tests that pass on real hardware.
set(_kc_native_loader "")
if(KESTREL_CROSS_LOADER AND EXISTS ${_kc_libc}/lib/${KESTREL_CROSS_LOADER})
  execute_process(COMMAND ${_kc_libc}/lib/${KESTREL_CROSS_LOADER} --version
                  RESULT_VARIABLE _kc_rc OUTPUT_QUIET ERROR_QUIET)
  if(_kc_rc EQUAL 0)
    set(_kc_native_loader ${_kc_libc}/lib/${KESTREL_CROSS_LOADER})
  endif()
endif()
if(_kc_native_loader)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${_kc_native_loader} --library-path ${_kc_libc}/lib:${_kc_libdir})
else()
  find_program(_kc_qemu NAMES ${KESTREL_CROSS_QEMU} ${KESTREL_CROSS_QEMU}-static REQUIRED)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${_kc_qemu} -L ${_kc_libc} -E LD_LIBRARY_PATH=${_kc_libdir})
endif()
