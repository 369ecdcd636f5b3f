# Where things are installed. On Linux the usual folders; on macOS those of the product's application bundle: programs and
# services where the location tables have them, and what only developers need apart, so that it can be left out.
if(CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  set(bundle ON)
else()
  set(bundle OFF)
endif()
option(TESSEL_BUNDLE "Install as the product's application bundle" ${bundle})

if(TESSEL_BUNDLE)
  # Never below "/Library/Application Support/Kestra/Kestra Tessel/Services": that is a copy of the bundle, which the
  # daemon deletes with all that is in it when the last client has gone.
  if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    set(CMAKE_INSTALL_PREFIX "/Applications/Kestra Tessel.app" CACHE PATH "The bundle" FORCE)
  endif()
  set(CMAKE_INSTALL_BINDIR Contents/Library CACHE PATH "Programs")
  set(CMAKE_INSTALL_LIBEXECDIR Contents/Library/services CACHE PATH "The daemon")
  set(CMAKE_INSTALL_DATAROOTDIR Contents/Resources CACHE PATH "Manual pages, bill of materials")
  set(CMAKE_INSTALL_LIBDIR Contents/Developer/lib CACHE PATH "Static libraries")
  set(CMAKE_INSTALL_INCLUDEDIR Contents/Developer/include CACHE PATH "Headers")
endif()
include(GNUInstallDirs)
set(TESSEL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/tessel-foundation)
