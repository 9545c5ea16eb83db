# For arm64, by Debian's cross compiler and the libraries of that architecture beside the machine's
# own, as apt installs them after dpkg --add-architecture arm64; see docs/installing.md.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# pkg-config would otherwise tell of the libraries of the machine that builds.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
