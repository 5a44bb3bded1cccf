# Toolchain file: 32-bit ARM with hardware floating point, or 64-bit ARM; Debian's armhf and arm64.
#
# ZYM_ARCHITECTURE selects one. The target's headers and libraries come from the folder that
# scripts/emulated makes; ZYM_SYSROOT names another one. Both are CMake variables, the latter also one of
# the environment. ctest runs the tests through qemu.
set(CMAKE_SYSTEM_NAME Linux)
if(ZYM_ARCHITECTURE STREQUAL "armhf")
  set(CMAKE_SYSTEM_PROCESSOR armv7l)
  set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
  set(zym_qemu qemu-arm)
elseif(ZYM_ARCHITECTURE STREQUAL "arm64")
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
  set(zym_qemu qemu-aarch64)
else()
  message(FATAL_ERROR "Set ZYM_ARCHITECTURE to armhf or arm64.")
endif()

if(NOT ZYM_SYSROOT)
  if(DEFINED ENV{ZYM_SYSROOT})
    set(ZYM_SYSROOT "$ENV{ZYM_SYSROOT}")
  else()
    get_filename_component(ZYM_SYSROOT
      "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-${ZYM_ARCHITECTURE}/root" ABSOLUTE)
  endif()
endif()
set(ZYM_SYSROOT "${ZYM_SYSROOT}" CACHE PATH "The target's headers and libraries")
# CMake's trial builds read this file too; this passes them the variables.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZYM_ARCHITECTURE ZYM_SYSROOT)

set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)
# Without it, GCC prints a note wherever its parameter passing differs from that of earlier versions.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_SYSROOT "${ZYM_SYSROOT}")

# Programs are searched on this machine, everything else in the sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
find_program(ZYM_QEMU ${zym_qemu} REQUIRED DOC "Runs what is built (Debian package qemu-user)")
set(CMAKE_CROSSCOMPILING_EMULATOR "${ZYM_QEMU}" -L "${ZYM_SYSROOT}")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ZYM_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${ZYM_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${ZYM_SYSROOT}/usr/share/pkgconfig")
