# Toolchain for the 32-bit x86 agent on a Debian x86-64 build machine with
# multilib (gcc-multilib, g++-multilib) and libjansson-dev:i386 installed:
#     cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")

# pkg-config must describe the i386 libraries, not the build machine's.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")
