# Cross build for the board's 64-bit ARM with Debian's aarch64 cross compilers and the :arm64
# development packages (scripts/setup-arm64.sh installs both):
#   cmake -G Ninja -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
# Tests and test discovery run the arm64 executables through qemu's user-mode emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(triplet aarch64-linux-gnu)

set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

# ISA-L is not multiarch in Debian: its arm64 files are unpacked into a side tree.
if(DEFINED ENV{K52_ARM64_SYSROOT})
  set(K52_ARM64_SYSROOT $ENV{K52_ARM64_SYSROOT})
else()
  set(K52_ARM64_SYSROOT /var/cache/k52app/arm64-sysroot)
endif()

# Libraries and headers come from the cross toolchain, the multiarch paths and the side tree;
# programs (pkg-config, the code generators) from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${triplet} ${K52_ARM64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Only arm64 .pc files: the build machine's would link amd64 libraries.
set(ENV{PKG_CONFIG_LIBDIR}
    "${K52_ARM64_SYSROOT}/usr/lib/${triplet}/pkgconfig:/usr/lib/${triplet}/pkgconfig:/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# At run time the arm64 loader and C library are the multiarch ones (libc6:arm64, in /lib), not
# the cross toolchain's copy in /usr/aarch64-linux-gnu: qemu's -L there would pair that loader
# with the multiarch libraries of a different glibc build, and a forked child then spins forever.
# The side tree's library directory lands in the build tree's run path (it is not a system
# directory), so the emulated executables find ISA-L without help.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
