# The target `docs`: the README and the API reference of include/ as HTML, built by Doxygen. A warning fails it.
# With OPC_BUILD_DOCS it is part of the default build and installed under share/doc/opccore.

find_program(OPC_DOXYGEN doxygen)
if(OPC_BUILD_DOCS AND NOT OPC_DOXYGEN)
  message(FATAL_ERROR "OPC_BUILD_DOCS needs doxygen, which is not installed: run ./scripts/setup-deps.sh docs")
endif()

set(OPC_DOCS_DIR "${PROJECT_BINARY_DIR}/docs")
configure_file("${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in" "${PROJECT_BINARY_DIR}/Doxyfile" @ONLY)
file(GLOB_RECURSE opc_public_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/*.hpp")

if(OPC_DOXYGEN)
  set(run_doxygen "${OPC_DOXYGEN}" "${PROJECT_BINARY_DIR}/Doxyfile")
else()
  set(run_doxygen "${CMAKE_COMMAND}" -E echo "doxygen is not installed: run ./scripts/setup-deps.sh docs"
      COMMAND "${CMAKE_COMMAND}" -E false)
endif()
# The stamp is written only after a clean run, so a run that warned is repeated next time.
add_custom_command(OUTPUT "${OPC_DOCS_DIR}/docs.stamp"
  COMMAND "${CMAKE_COMMAND}" -E rm -rf "${OPC_DOCS_DIR}"
  COMMAND ${run_doxygen}
  COMMAND "${CMAKE_COMMAND}" -E touch "${OPC_DOCS_DIR}/docs.stamp"
  DEPENDS ${opc_public_headers} "${PROJECT_SOURCE_DIR}/README.md" "${PROJECT_BINARY_DIR}/Doxyfile"
  COMMENT "API reference (Doxygen, warnings are errors)"
  VERBATIM)

if(OPC_BUILD_DOCS)
  add_custom_target(docs ALL DEPENDS "${OPC_DOCS_DIR}/docs.stamp")
  install(DIRECTORY "${OPC_DOCS_DIR}/html" DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT Development)
else()
  add_custom_target(docs DEPENDS "${OPC_DOCS_DIR}/docs.stamp")
endif()
