# Builds for arm64 with Debian's cross compiler and the arm64 libraries that apt installs beside the
# machine's own after dpkg --add-architecture arm64; see docs/installing.md.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Otherwise pkg-config would find the libraries of the machine that builds.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
