# Toolchain file: 32-bit ARM with hardware floating point, Debian's armhf.
#
# The target's headers and libraries come from the folder that scripts/armhf makes; ZYM_ARMHF_SYSROOT,
# a CMake or an environment variable, names another one. ctest runs the tests through qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT ZYM_ARMHF_SYSROOT)
  if(DEFINED ENV{ZYM_ARMHF_SYSROOT})
    set(ZYM_ARMHF_SYSROOT "$ENV{ZYM_ARMHF_SYSROOT}")
  else()
    get_filename_component(ZYM_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf/root" ABSOLUTE)
  endif()
endif()
set(ZYM_ARMHF_SYSROOT "${ZYM_ARMHF_SYSROOT}" CACHE PATH "The target's headers and libraries")
# CMake's trial builds read this file too; this passes them the variable.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZYM_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Without it, GCC prints a note wherever its parameter passing differs from that of GCC before 7.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_SYSROOT "${ZYM_ARMHF_SYSROOT}")

# Programs are searched on this machine, everything else in the sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
find_program(ZYM_QEMU_ARM qemu-arm REQUIRED DOC "Runs what is built (Debian package qemu-user)")
set(CMAKE_CROSSCOMPILING_EMULATOR "${ZYM_QEMU_ARM}" -L "${ZYM_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ZYM_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${ZYM_ARMHF_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${ZYM_ARMHF_SYSROOT}/usr/share/pkgconfig")
