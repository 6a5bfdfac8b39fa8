# Debian packages from the install components (see OpcInstall.cmake): `cpack -G DEB` in the
# build folder writes libopccore<major>_<version>_<arch>.deb and libopccore-dev_<...>.deb.
# The build must be configured with -DCMAKE_INSTALL_PREFIX=/usr, so that the libraries go
# to Debian's multiarch folder and the .pc and CMake files name the folders the .deb fills.

set(OPC_DEB_RUNTIME "libopccore${PROJECT_VERSION_MAJOR}")
set(OPC_PACKAGE_MAINTAINER "opc-core developers <opc-core@example.org>" CACHE STRING
    "Maintainer field of the .deb files")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME opccore)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${OPC_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# Debug information stays in the build folder, as Debian's own library packages leave it out.
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${OPC_DEB_RUNTIME}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION} (shared libraries)
File-system operations over the local disk and storage named by IRIs, byte streams,
temporary-file guards and the commit of a package over an old one with a backup.")
# Depends on the Boost and ICU runtime packages, as dpkg-shlibdeps finds them.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# A shlibs file, so that programs packaged against these libraries depend on libopccore0.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libopccore-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION} (development files)
Headers, the CMake package (find_package(opccore)), opccore.pc, the API reference and
libopccore_testing, a fault-injecting back end for the tests of code built on the library.")
# The test double's library needs only what the runtime package (a dependency) needs.
# The installed headers and CMake package use Boost's and ICU's headers and CMake files.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${OPC_DEB_RUNTIME} (= ${PROJECT_VERSION}-1), libboost-system1.74-dev, libboost-date-time1.74-dev, libboost-filesystem1.74-dev, libboost-iostreams1.74-dev, libicu-dev")

# Checked when cpack runs, before anything is written.
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_BINARY_DIR}/OpcCPackChecks.cmake")
file(CONFIGURE OUTPUT "${CPACK_PROJECT_CONFIG_FILE}" @ONLY CONTENT [[
if(NOT "@CMAKE_INSTALL_PREFIX@" STREQUAL "/usr")
  message(FATAL_ERROR "The .deb files install into /usr, but this build is configured for "
    "@CMAKE_INSTALL_PREFIX@: configure it with -DCMAKE_INSTALL_PREFIX=/usr")
endif()
if(NOT EXISTS "@PROJECT_BINARY_DIR@/docs/docs.stamp")
  message(FATAL_ERROR "The .deb files carry the API reference: configure with -DOPC_BUILD_DOCS=ON and build")
endif()
foreach(tool dpkg-shlibdeps file)
  find_program(found_${tool} ${tool})
  if(NOT found_${tool})
    message(FATAL_ERROR "${tool} is missing: run ./scripts/setup-deps.sh package")
  endif()
endforeach()
]])

include(CPack)
