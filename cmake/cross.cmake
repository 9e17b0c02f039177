# Toolchain for a portable agent of another CPU, built with Debian's cross
# compiler g++-<triplet> and that CPU's Jansson (libjansson-dev:<arch>):
#     cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/cross.cmake \
#           -DKVX_CROSS_TRIPLET=aarch64-linux-gnu
# scripts/arches.txt lists the triplets that scripts/portable.sh builds.
if(NOT KVX_CROSS_TRIPLET)
  message(FATAL_ERROR "cross.cmake: give -DKVX_CROSS_TRIPLET=<GNU triplet>, e.g. aarch64-linux-gnu")
endif()
# The compiler checks' own projects read this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KVX_CROSS_TRIPLET)

set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR "${KVX_CROSS_TRIPLET}")
set(CMAKE_C_COMPILER ${KVX_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KVX_CROSS_TRIPLET}-g++)

# Debian's directory for the CPU's libraries (i686-linux-gnu: i386-linux-gnu).
execute_process(COMMAND ${KVX_CROSS_TRIPLET}-gcc -print-multiarch
                OUTPUT_VARIABLE CMAKE_LIBRARY_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
                RESULT_VARIABLE kvx_multiarch_rc)
if(NOT kvx_multiarch_rc EQUAL 0 OR NOT CMAKE_LIBRARY_ARCHITECTURE)
  message(FATAL_ERROR "cross.cmake: ${KVX_CROSS_TRIPLET}-gcc is missing (scripts/setup.sh --cross)")
endif()

# pkg-config must describe that CPU's libraries, not the build machine's.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:/usr/share/pkgconfig")
