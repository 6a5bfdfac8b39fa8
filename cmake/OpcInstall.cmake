# Installing the project's libraries: one export set (find_package(opccore)), one pkg-config
# file per library, and two components that become the two .deb files:
#   Runtime     - the shared libraries programs run with (libopccore<major>);
#   Development - headers, link names, static libraries, the CMake package, .pc files, the
#                 API reference and the test double's library, which only tests link
#                 (libopccore-dev).

# The opc headers stay at <opc/...>; the platform layers' headers go into a folder of the
# project's own, so that top-level names such as include/vela never clash with other packages.
set(OPC_INSTALL_LAYER_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/opccore")

# opc_install_library(<target> [EXPORT_NAME <name>] [COMPONENT <component>])
# Installs a library target of the project into the export set (imported as opccore::<name>,
# by default opccore::<target>). The shared library goes into <component> (by default Runtime),
# its link name into Development.
function(opc_install_library target)
  cmake_parse_arguments(I "" "EXPORT_NAME;COMPONENT" "" ${ARGN})
  if(I_EXPORT_NAME)
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${I_EXPORT_NAME})
  endif()
  if(NOT I_COMPONENT)
    set(I_COMPONENT Runtime)
  endif()
  install(TARGETS ${target} EXPORT opccoreTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${I_COMPONENT} NAMELINK_COMPONENT Development
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
endfunction()

# opc_install_pkgconfig(NAME <name> DESCRIPTION <text> LIBS <-l...> [LIBS_PRIVATE <-l...>]
#                       [REQUIRES <pkgs>] [REQUIRES_PRIVATE <pkgs>])
# Writes <name>.pc into <libdir>/pkgconfig. Its prefix is the one the files are installed to
# (also `cmake --install --prefix` and the .deb's /usr); libdir and includedir are the
# configured install folders below it (lib/x86_64-linux-gnu for /usr on Debian), so the
# file is right wherever it lands. No rpath: a user of another prefix sets LD_LIBRARY_PATH or
# adds one.
function(opc_install_pkgconfig)
  cmake_parse_arguments(P "" "NAME;DESCRIPTION" "LIBS;LIBS_PRIVATE;REQUIRES;REQUIRES_PRIVATE" ${ARGN})
  foreach(dir LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
      set(PC_${dir} "${CMAKE_INSTALL_${dir}}")
    else()
      set(PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
    endif()
  endforeach()
  string(REPLACE ";" " " PC_LIBS "${P_LIBS}")
  string(REPLACE ";" " " PC_LIBS_PRIVATE "${P_LIBS_PRIVATE}")
  string(REPLACE ";" ", " PC_REQUIRES "${P_REQUIRES}")
  string(REPLACE ";" ", " PC_REQUIRES_PRIVATE "${P_REQUIRES_PRIVATE}")
  set(PC_NAME "${P_NAME}")
  set(PC_DESCRIPTION "${P_DESCRIPTION}")
  set(PC_LAYER_INCLUDEDIR "\${includedir}/opccore")
  # The prefix is known only when installing: keep its placeholder through this first pass.
  set(PC_PREFIX "@PC_PREFIX@")
  set(template "${PROJECT_BINARY_DIR}/pkgconfig/${P_NAME}.pc.in")
  set(result "${PROJECT_BINARY_DIR}/pkgconfig/${P_NAME}.pc")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/pkgconfig.pc.in" "${template}" @ONLY)
  install(CODE "set(PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")\nconfigure_file(\"${template}\" \"${result}\" @ONLY)"
          COMPONENT Development)
  install(FILES "${result}" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT Development)
endfunction()

# The CMake package of every library installed above: find_package(opccore).
function(opc_install_cmake_package)
  include(CMakePackageConfigHelpers)
  set(dir "${CMAKE_INSTALL_LIBDIR}/cmake/opccore")
  install(EXPORT opccoreTargets NAMESPACE opccore:: DESTINATION "${dir}" COMPONENT Development)
  configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/opccoreConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/opccoreConfig.cmake" INSTALL_DESTINATION "${dir}")
  write_basic_package_version_file("${PROJECT_BINARY_DIR}/opccoreConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
  install(FILES "${PROJECT_BINARY_DIR}/opccoreConfig.cmake" "${PROJECT_BINARY_DIR}/opccoreConfigVersion.cmake"
          DESTINATION "${dir}" COMPONENT Development)
endfunction()
