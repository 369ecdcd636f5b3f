# Where things are installed. On Linux the usual folders; on macOS those of the product's bundle: programs and services
# where the location tables have them, and what only developers need apart, so that it can be left out.
if(CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    set(CMAKE_INSTALL_PREFIX "/Library/Application Support/Kestra/Kestra Tessel/Services"
      CACHE PATH "The bundle" FORCE)
  endif()
  set(CMAKE_INSTALL_BINDIR Contents/Library CACHE PATH "Programs")
  set(CMAKE_INSTALL_LIBEXECDIR Contents/Library/services CACHE PATH "The daemon")
  set(CMAKE_INSTALL_DATAROOTDIR Contents/Resources CACHE PATH "Manual pages, bill of materials")
  set(CMAKE_INSTALL_LIBDIR Contents/Developer/lib CACHE PATH "Static libraries")
  set(CMAKE_INSTALL_INCLUDEDIR Contents/Developer/include CACHE PATH "Headers")
endif()
include(GNUInstallDirs)
set(TESSEL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/tessel-foundation)
