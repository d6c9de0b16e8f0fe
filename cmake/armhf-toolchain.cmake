# Cross build for 32-bit ARM (armhf, arm-linux-gnueabihf) with the
# distribution's cross compiler. The target's libraries (OpenSSL, jsoncpp,
# GoogleTest, CLI11) come from a sysroot unpacked from the armhf packages:
#   scripts/armhf-sysroot DIR
#   cmake -S . -B build/armhf -G Ninja \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake -DKZOL_ARMHF_SYSROOT=DIR
# Programs built here run on the device, or on a PC under qemu-arm with the
# same sysroot (QEMU_LD_PREFIX=DIR); CMAKE_CROSSCOMPILING_EMULATOR names it,
# so that CTest and test discovery start them through the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(KZOL_ARMHF_SYSROOT "$ENV{KZOL_ARMHF_SYSROOT}" CACHE PATH "Sysroot of the armhf libraries")
if(NOT KZOL_ARMHF_SYSROOT OR NOT EXISTS "${KZOL_ARMHF_SYSROOT}/usr/include/openssl")
  message(FATAL_ERROR "KZOL_ARMHF_SYSROOT must name a sysroot made by scripts/armhf-sysroot")
endif()
# Toolchain files are read again for every try-compile: hand the path on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KZOL_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# The compiler keeps its own C library; the sysroot adds the other libraries.
set(CMAKE_FIND_ROOT_PATH "${KZOL_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(_kzol_arch_dirs
  "-isystem ${KZOL_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf -isystem ${KZOL_ARMHF_SYSROOT}/usr/include")
set(CMAKE_C_FLAGS_INIT "${_kzol_arch_dirs}")
set(CMAKE_CXX_FLAGS_INIT "${_kzol_arch_dirs}")
set(_kzol_link_dirs
  "-L${KZOL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf -Wl,-rpath-link,${KZOL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf -Wl,-rpath-link,${KZOL_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_kzol_link_dirs}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_kzol_link_dirs}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_kzol_link_dirs}")

# pkg-config reads the target's .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} "${KZOL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${KZOL_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KZOL_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")

find_program(KZOL_QEMU_ARM NAMES qemu-arm-static qemu-arm)
if(KZOL_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KZOL_QEMU_ARM};-L;${KZOL_ARMHF_SYSROOT}")
endif()
