# Three sets of options: every target of the project takes tessel-options; the code that ships (not the tests, which
# use GoogleTest as it is built) takes tessel-product-options on top, and a program of it tessel-program-options.

add_library(tessel-options INTERFACE)
target_include_directories(tessel-options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(tessel-options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${TESSEL_WARNINGS_AS_ERRORS}>:-Werror>)
if(TESSEL_SANITIZE)
  target_compile_options(tessel-options INTERFACE
    -fsanitize=${TESSEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tessel-options INTERFACE -fsanitize=${TESSEL_SANITIZE})
endif()

if(TESSEL_COVERAGE)
  target_compile_options(tessel-options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(tessel-options INTERFACE --coverage -Wl,--wrap=_exit)
  # Of each program, so that a process that ends with _exit writes its counters too.
  add_library(coverage-exit OBJECT tests/support/coverageExit.cpp)
  target_sources(tessel-options INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:coverage-exit>>)
endif()

# What is released does not tell where it was built.
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_options(tessel-options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
endif()

add_library(tessel-product-options INTERFACE)
target_link_libraries(tessel-product-options INTERFACE tessel-options)
target_compile_options(tessel-product-options INTERFACE
  -fno-exceptions -fno-rtti -fstack-protector-strong -fvisibility=hidden)
# The fortified calls need an optimising build and get in the way of the sanitizers' own checks.
if(NOT TESSEL_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_options(tessel-product-options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  target_link_options(tessel-product-options INTERFACE -Wl,-z,relro,-z,now,--as-needed)
endif()

# A program carries what it uses of the C++ library itself: a privileged program depends on little, and one less
# shared library is a megabyte less of resident memory.
add_library(tessel-program-options INTERFACE)
target_link_libraries(tessel-program-options INTERFACE tessel-product-options)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT TESSEL_SANITIZE)
  target_link_options(tessel-program-options INTERFACE -static-libstdc++ -static-libgcc $<$<CONFIG:Release>:-s>)
elseif(CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  target_link_options(tessel-program-options INTERFACE -Wl,-dead_strip_dylibs)
endif()

# What is tested is built as it ships; what tests is built once, and run once. The cross compiler takes -O0 for a wish for
# its own checks.
if(CMAKE_CROSSCOMPILING)
  set(TESSEL_TEST_OPTIMISATION -O1)
else()
  set(TESSEL_TEST_OPTIMISATION -O0)
endif()
