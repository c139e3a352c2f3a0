# Cross build for 64-bit Arm boards on a Debian machine with the arm64 architecture added
# (`dpkg --add-architecture arm64`): the arm64 libraries and their .pc and CMake files live in
# /usr/lib/aarch64-linux-gnu beside the machine's own, so the machine's root is the sysroot.
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# pkgconf's arm64 personality: reads the arm64 .pc files, never the machine's own.
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config CACHE FILEPATH "pkg-config for arm64")

# CTest (and test discovery) run the arm64 programs through user-mode emulation. binfmt
# registration is host-wide and may be missing, so the emulator is named explicitly; its library
# root is / because the arm64 C library is installed there through multiarch.
find_program(ZQAVS_QEMU_AARCH64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ZQAVS_QEMU_AARCH64} -L /)
