# Builds for macOS on Linux. The presets set TESSEL_MACOS_ARCH; scripts/macos-toolchain installs the compiler.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${TESSEL_MACOS_ARCH})
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TESSEL_MACOS_ARCH)

# The oldest system whose C library has all that this compiler's own C++ library, which is linked in, asks of it.
set(target ${TESSEL_MACOS_ARCH}-macos.10.15)
if(TESSEL_MACOS_ARCH STREQUAL "aarch64")
  set(target aarch64-macos.11.0)
endif()

set(CMAKE_CXX_COMPILER ${CMAKE_CURRENT_LIST_DIR}/c++)
set(CMAKE_CXX_COMPILER_TARGET ${target})
set(CMAKE_AR ${CMAKE_CURRENT_LIST_DIR}/ar)
set(CMAKE_RANLIB ${CMAKE_CURRENT_LIST_DIR}/ranlib)
find_program(CMAKE_INSTALL_NAME_TOOL NAMES llvm-install-name-tool-14 llvm-install-name-tool REQUIRED)

# There is no SDK: the compiler brings the headers of the C and C++ libraries and the symbols of libSystem. Other
# libraries are linked as text stubs, by their paths in this tree; none of the build machine's is ever looked at.
set(CMAKE_OSX_SYSROOT "")
set(CMAKE_FIND_ROOT_PATH ${CMAKE_CURRENT_LIST_DIR})
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The headers of the C library are annotated in parts only. Without -g0 the compiler puts the paths of all headers into
# the archives; without -s the linker notes where each object file was.
set(CMAKE_CXX_FLAGS_INIT "-g0 -Wno-nullability-completeness")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-s -Wl,-dead_strip -Wl,-dead_strip_dylibs")
set(CMAKE_TRY_COMPILE_CONFIGURATION Release)
