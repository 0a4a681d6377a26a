# What the toolchain files share: Debian's cross compiler, and the other architecture's libraries where Debian's multiarch
# puts them, beside the machine's own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${taviTriple}-gcc)
set(CMAKE_CXX_COMPILER ${taviTriple}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${taviTriple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# Not what pkg-config finds for the machine's own architecture.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${taviTriple}/pkgconfig:/usr/share/pkgconfig)
# CMake knows Debian's multiarch folder, and a package's architecture, only where it does not cross-compile.
set(CMAKE_INSTALL_LIBDIR lib/${taviTriple} CACHE PATH "Where libraries are installed")
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${taviDebianArchitecture} CACHE STRING "The package's architecture")
