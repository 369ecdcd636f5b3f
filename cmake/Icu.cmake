# ICU is the second conversion engine and, on Linux, what normalises; without it both are left out. TESSEL_HAVE_ICU says
# what was found, the target tessel-icu carries it.
option(TESSEL_ICU "Use ICU where it is found" ON)
set(TESSEL_HAVE_ICU OFF)

if(TESSEL_ICU AND CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  # The product brings its own library; the build needs no more of it than its names.
  set(TESSEL_HAVE_ICU ON)
  add_library(tessel-icu INTERFACE)
  target_include_directories(tessel-icu SYSTEM INTERFACE ${PROJECT_SOURCE_DIR}/platform/darwin/declarations)
  target_link_libraries(tessel-icu INTERFACE ${PROJECT_SOURCE_DIR}/cmake/darwin-stubs/libicuuc.tbd)
elseif(TESSEL_ICU)
  find_package(ICU QUIET COMPONENTS uc)
  if(ICU_FOUND)
    set(TESSEL_HAVE_ICU ON)
    add_library(tessel-icu INTERFACE)
    target_link_libraries(tessel-icu INTERFACE ICU::uc)
  endif()
endif()
message(STATUS "ICU: ${TESSEL_HAVE_ICU}")
