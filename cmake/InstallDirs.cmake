# Installation directories (GNUInstallDirs), with one decision of our own:
# a 32-bit build puts its libraries in lib32, so that it can be installed
# beside a 64-bit build in the same prefix. A library directory the user
# chose is kept; the choice is made once, on the first configure.
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT DEFINED CACHE{SNA_LIBDIR_DECIDED})
  # GNUInstallDirs may already have run (GoogleTest includes it) and left
  # its default; lib32 replaces a default, never another value.
  set(_sna_gnu_defaults lib lib64 lib32)
  if(CMAKE_LIBRARY_ARCHITECTURE)
    list(APPEND _sna_gnu_defaults lib/${CMAKE_LIBRARY_ARCHITECTURE})
  endif()
  if(NOT DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
    set(CMAKE_INSTALL_LIBDIR lib32 CACHE PATH "Object code libraries (lib32)")
  elseif("$CACHE{CMAKE_INSTALL_LIBDIR}" IN_LIST _sna_gnu_defaults)
    set(CMAKE_INSTALL_LIBDIR lib32 CACHE PATH "Object code libraries (lib32)" FORCE)
  endif()
  set(SNA_LIBDIR_DECIDED ON CACHE INTERNAL "the 32-bit library directory has been chosen")
  unset(_sna_gnu_defaults)
endif()
include(GNUInstallDirs)
