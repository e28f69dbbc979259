# zonara_add_library(<name> SOURCES <files...> [DEPS <targets...>] [PRIVATE_DEPS <targets...>])
#   A static library of the project. DEPS are linked publicly (users of the
#   library see them), PRIVATE_DEPS only by the library itself.
function(zonara_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# zonara_add_test(<name> SOURCES <files...> [DEPS <targets...>] [TIMEOUT <seconds>]
#                 [LABELS <labels...>])
#   A GoogleTest executable registered with CTest under <name>. Tests run with
#   ZONARA_TEST_TMPDIR set to a private folder inside the build tree.
function(zonara_add_test name)
  if(NOT ZONARA_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  set(tmp ${CMAKE_BINARY_DIR}/test-tmp/${name})
  file(MAKE_DIRECTORY ${tmp})
  # Tests that wait for other processes stretch their time-outs by
  # ZONARA_TEST_TIMEOUT_SCALE; sanitized programs run several times slower.
  set(timeout_scale 1)
  if(ZONARA_SANITIZE)
    set(timeout_scale 4)
  endif()
  set_tests_properties(${name} PROPERTIES
    TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "ZONARA_TEST_TMPDIR=${tmp};ZONARA_SOURCE_DIR=${PROJECT_SOURCE_DIR};ZONARA_TEST_TIMEOUT_SCALE=${timeout_scale}"
    LABELS "${ARG_LABELS}")
endfunction()

# zonara_add_program(<name> SOURCES <files...> [DEPS <targets...>]
#                    [INSTALL_DESTINATION <dir> | NO_INSTALL])
#   A command-line program built into build/bin and installed into
#   <prefix>/bin, or into <prefix>/<dir> when given (a program that lives
#   inside a bundle). NO_INSTALL: built only (programs for the build tree,
#   such as the demonstration's stand-in services).
function(zonara_add_program name)
  cmake_parse_arguments(ARG "NO_INSTALL" "INSTALL_DESTINATION" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
  if(ARG_NO_INSTALL)
    return()
  endif()
  if(NOT ARG_INSTALL_DESTINATION)
    set(ARG_INSTALL_DESTINATION bin)
  endif()
  install(TARGETS ${name} RUNTIME DESTINATION ${ARG_INSTALL_DESTINATION})
endfunction()
