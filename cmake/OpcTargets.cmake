# Helpers shared by the library, its platform layers and their tests.

# opc_find_package(<package> <group> [find_package arguments...])
# find_package that, when the package is missing, names the command that installs it.
macro(opc_find_package name group)
  find_package(${name} ${ARGN})
  if(NOT ${name}_FOUND)
    message(FATAL_ERROR "${name} is missing: run ./scripts/setup-deps.sh ${group}")
  endif()
endmacro()

function(opc_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(OPC_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# opc_add_layer(NAME <target> DIR <dir> SOURCES <names...> [LINK_PUBLIC ...] [LINK_PRIVATE ...])
# A shared platform layer: the listed sources under <dir>/src, public headers under
# <dir>/include, hidden visibility, installed into the opccore export set with its headers
# under include/opccore.
function(opc_add_layer)
  cmake_parse_arguments(L "" "NAME;DIR" "SOURCES;LINK_PUBLIC;LINK_PRIVATE" ${ARGN})
  list(TRANSFORM L_SOURCES PREPEND "${L_DIR}/src/" OUTPUT_VARIABLE sources)
  add_library(${L_NAME} SHARED ${sources})
  add_library(opccore::${L_NAME} ALIAS ${L_NAME})
  target_include_directories(${L_NAME} PUBLIC
    "$<BUILD_INTERFACE:${L_DIR}/include>" "$<INSTALL_INTERFACE:${OPC_INSTALL_LAYER_INCLUDEDIR}>"
    PRIVATE "${L_DIR}/src")
  target_link_libraries(${L_NAME} PUBLIC ${L_LINK_PUBLIC} PRIVATE ${L_LINK_PRIVATE})
  set_target_properties(${L_NAME} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  opc_set_warnings(${L_NAME})
  opc_install_library(${L_NAME})
  install(DIRECTORY "${L_DIR}/include/" DESTINATION ${OPC_INSTALL_LAYER_INCLUDEDIR} COMPONENT Development)
endfunction()

# Every test of the current folder that runs a GoogleTest program writes its cases' results to
# <build>/test-results/<test>.xml, which the test command sums up; other programs ignore it.
function(opc_record_test_results)
  get_property(tests DIRECTORY PROPERTY TESTS)
  foreach(test IN LISTS tests)
    set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT_MODIFICATION
                 "GTEST_OUTPUT=set:xml:${PROJECT_BINARY_DIR}/test-results/${test}.xml")
  endforeach()
endfunction()

# opc_add_test_folder(PREFIX <prefix> DIR <dir> TESTS <names...> LINK <libs...>)
# Every <dir>/<name>.cpp of TESTS becomes one GoogleTest executable <prefix>_<name>, registered
# with CTest as one test (one process per file keeps the sanitizer run short). Helpers shared
# by the tests of a folder live in headers beside them or in tests/support. Each records its
# results (opc_record_test_results).
# A test whose source starts threads (mentions std::thread) gets the CTest label "threads"
# and joins the target opc_threaded_tests, which the ThreadSanitizer run builds alone.
function(opc_add_test_folder)
  cmake_parse_arguments(T "" "PREFIX;DIR" "TESTS;LINK" ${ARGN})
  if(NOT T_TESTS)
    message(FATAL_ERROR "opc_add_test_folder: name the tests of ${T_DIR}")
  endif()
  list(TRANSFORM T_TESTS PREPEND "${T_DIR}/" OUTPUT_VARIABLE tests)
  list(TRANSFORM tests APPEND ".cpp")
  foreach(src ${tests})
    get_filename_component(name ${src} NAME_WE)
    set(exe ${T_PREFIX}_${name})
    add_executable(${exe} ${src})
    target_link_libraries(${exe} PRIVATE ${T_LINK} GTest::gmock GTest::gtest_main Threads::Threads)
    opc_set_warnings(${exe})
    add_test(NAME ${exe} COMMAND ${exe})
    set_tests_properties(${exe} PROPERTIES TIMEOUT 900)
    file(READ ${src} text)
    if(text MATCHES "std::thread")
      set_tests_properties(${exe} PROPERTIES LABELS threads)
      if(NOT TARGET opc_threaded_tests)
        add_custom_target(opc_threaded_tests)
      endif()
      add_dependencies(opc_threaded_tests ${exe})
    endif()
  endforeach()
  # Once per folder, when the folder is done, so that tests it adds later record theirs too.
  get_property(deferred DIRECTORY PROPERTY OPC_RESULTS_RECORDED)
  if(NOT deferred)
    set_property(DIRECTORY PROPERTY OPC_RESULTS_RECORDED ON)
    cmake_language(DEFER CALL opc_record_test_results)
  endif()
endfunction()
