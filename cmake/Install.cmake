# What `cmake --install` puts where:
#   lib dir   libcpic.so, libsnanode.so; pkgconfig/cpic.pc; cmake/cpic/
#   share/    cmake/cpic/ (finds the lib dir's package of the word size)
#   include/  cpic.h, cpic_print.h, snanode/export.h
#   bin/      cpicping, cpicpingd, snactl, snanoded (64-bit builds)
#   man/      section 1, 3 and 8 pages
#   systemd   snanoded.service and the sysusers entry of the snanode group,
#             for a system-wide node (64-bit builds, with the daemon)
include(CMakePackageConfigHelpers)

set(SNA_SYSTEMD_UNITDIR "lib/systemd/system" CACHE STRING
    "Where snanoded.service is installed, relative to the prefix or absolute")
set(SNA_SYSUSERSDIR "lib/sysusers.d" CACHE STRING
    "Where the sysusers.d entry of the snanode group is installed")

install(TARGETS cpic snanode LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/cpic.h ${PROJECT_SOURCE_DIR}/include/cpic_print.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/snanode/export.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/snanode)
install(TARGETS cpicping cpicpingd snactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# pkg-config: the paths are relative to the .pc file, so the installed tree
# may be moved (and `cmake --install --prefix` works).
set(_sna_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(SNA_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(SNA_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
  set(SNA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _sna_up /root/${_sna_pc_dir} /root)
  string(REGEX REPLACE "/$" "" _sna_up "${_sna_up}")
  set(SNA_PC_PREFIX "\${pcfiledir}/${_sna_up}")
  set(SNA_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(SNA_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/cpic.pc.in ${PROJECT_BINARY_DIR}/packaging/cpic.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/cpic.pc DESTINATION ${_sna_pc_dir})

# find_package(cpic): the imported target cpic::cpic links both libraries.
set(_sna_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/cpic)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/cpicConfig.cmake.in
  ${PROJECT_BINARY_DIR}/packaging/cpicConfig.cmake
  INSTALL_DESTINATION ${_sna_cmake_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
# The version check also refuses a package of the other word size.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/cpicConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/cpicConfig.cmake
              ${PROJECT_BINARY_DIR}/packaging/cpicConfigVersion.cmake
        DESTINATION ${_sna_cmake_dir})
# The same package through share/cmake/cpic, which every consumer searches
# (Debian's CMake does not search lib32). The two files there are the same
# for every word size; cpic-<bits>.cmake says where that size's files are.
math(EXPR _sna_bits "${CMAKE_SIZEOF_VOID_P} * 8")
set(_sna_share_cmake_dir ${CMAKE_INSTALL_DATADIR}/cmake/cpic)
if(IS_ABSOLUTE "${_sna_cmake_dir}" OR IS_ABSOLUTE "${_sna_share_cmake_dir}")
  set(_sna_config_dir "${CMAKE_INSTALL_FULL_LIBDIR}/cmake/cpic")
else()
  file(RELATIVE_PATH _sna_rel /root/${_sna_share_cmake_dir} /root/${_sna_cmake_dir})
  set(_sna_config_dir "\${CMAKE_CURRENT_LIST_DIR}/${_sna_rel}")
endif()
file(WRITE ${PROJECT_BINARY_DIR}/packaging/cpic-${_sna_bits}.cmake
     "set(_cpic_config_dir \"${_sna_config_dir}\")\n")
install(FILES ${PROJECT_BINARY_DIR}/packaging/cpic-${_sna_bits}.cmake
        DESTINATION ${_sna_share_cmake_dir})
install(FILES ${PROJECT_SOURCE_DIR}/cmake/cpicWordSizeConfig.cmake
        DESTINATION ${_sna_share_cmake_dir} RENAME cpicConfig.cmake)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/cpicWordSizeConfigVersion.cmake
        DESTINATION ${_sna_share_cmake_dir} RENAME cpicConfigVersion.cmake)

install(FILES ${PROJECT_SOURCE_DIR}/man/cpicping.1 ${PROJECT_SOURCE_DIR}/man/cpicpingd.1
              ${PROJECT_SOURCE_DIR}/man/snactl.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
file(GLOB _sna_man3 ${PROJECT_SOURCE_DIR}/man/*.3)
install(FILES ${_sna_man3} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
# `man cmallc` (or CMALLC) shows the page of the call's group.
set(_sna_call_pages
  "cpic_conversations:cminit,cminic,cmallc,cmaccp,cmacci,cmdeal,cmterm,cmsctx,cmectx"
  "cpic_data:cmsend,cmrcv,cmcfm,cmcfmd,cmflus,cmptr,cmrts,cmserr,cmtrts"
  "cpic_characteristics:cmsct,cmsdt,cmsed,cmsf,cmsld,cmsmn,cmspln,cmsptr,cmsrt,cmsrc,cmsst,cmssl,cmstpn,cmslln,cmect,cmesl,cmemn,cmepln,cmelln,cmetpn,cmecs,cmembs,cmcnvo,cmcnvi"
  "cpic_security:cmscst,cmscsu,cmscsp,cmecst,cmecsu,cmesui,xcscst,xcscsu,xcscsp,xcecst,xcecsu"
  "cpic_side_info:xcmssi,xcmesi,xcmdsi"
  "cpic_local_tp:cmsltp,cmrltp"
  "cpic_nonblocking:cmspm,cmwait,cmchck,cmcanc")
set(_sna_link_dir ${PROJECT_BINARY_DIR}/packaging/man3)
file(REMOVE_RECURSE ${_sna_link_dir})
foreach(_sna_group IN LISTS _sna_call_pages)
  string(REPLACE ":" ";" _sna_parts "${_sna_group}")
  list(GET _sna_parts 0 _sna_page)
  list(GET _sna_parts 1 _sna_calls)
  string(REPLACE "," ";" _sna_calls "${_sna_calls}")
  foreach(_sna_call IN LISTS _sna_calls)
    file(WRITE ${_sna_link_dir}/${_sna_call}.3 ".so man3/${_sna_page}.3\n")
  endforeach()
endforeach()
install(DIRECTORY ${_sna_link_dir}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)

# The daemon's directory is added by the top-level file; its rules are made
# once every directory has been read, so the order of add_subdirectory
# calls does not matter.
function(sna_install_daemon)
  if(NOT TARGET snanoded)
    return()
  endif()
  # This runs in the top directory's scope: the derived directories
  # (DOCDIR, the FULL_ forms) are set again here.
  include(GNUInstallDirs)
  install(TARGETS snanoded RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/man/snanoded.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
  # The unit and the example configuration name the installed programs
  # under the prefix the install really uses (`cmake --install --prefix P`
  # differs from the configured one), so they are written at install time,
  # into a directory of their own that the install rules below copy from.
  set(_sna_at_install ${PROJECT_BINARY_DIR}/packaging/at-install)
  install(CODE "
    set(_sna_bindir \"${CMAKE_INSTALL_BINDIR}\")
    if(NOT IS_ABSOLUTE \"\${_sna_bindir}\")
      set(_sna_bindir \"\${CMAKE_INSTALL_PREFIX}/\${_sna_bindir}\")
    endif()
    set(CMAKE_INSTALL_FULL_BINDIR \"\${_sna_bindir}\")
    configure_file(\"${PROJECT_SOURCE_DIR}/cmake/snanoded.service.in\"
                   \"${_sna_at_install}/snanoded.service\" @ONLY)
    configure_file(\"${PROJECT_SOURCE_DIR}/cmake/snanode.toml.in\"
                   \"${_sna_at_install}/snanode.toml.example\" @ONLY)
  ")
  install(FILES ${_sna_at_install}/snanoded.service DESTINATION ${SNA_SYSTEMD_UNITDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/snanode.sysusers.conf
          DESTINATION ${SNA_SYSUSERSDIR} RENAME snanode.conf)
  install(FILES ${_sna_at_install}/snanode.toml.example DESTINATION ${CMAKE_INSTALL_DOCDIR})
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL sna_install_daemon)
