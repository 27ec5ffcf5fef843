# For 64-bit Arm on Linux: Debian's cross compiler with the libraries that
# scripts/setup --arm64 installs. What is built runs under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

# Debian has the libraries of all architectures side by side under /usr, and
# one copy of what fits any of them. CMake takes those that the compiler names
# as its own; pkg-config must be told.
set(ENV{PKG_CONFIG_LIBDIR}
  /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
