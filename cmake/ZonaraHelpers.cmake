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

# zonara_add_manual_page(<source> [ALIASES <names...>])
#   A roff manual page <source> (named NAME.SECTION), compressed at build time
#   into build/share/man/manSECTION/NAME.SECTION.gz and installed into
#   <prefix>/share/man/manSECTION/. Each alias is a page that includes it
#   (".so"), for a program known under two names.
function(zonara_add_manual_page source)
  cmake_parse_arguments(ARG "" "" "ALIASES" ${ARGN})
  get_filename_component(page ${source} NAME)
  string(REGEX REPLACE "^.*\\.([0-9])$" "\\1" section ${page})
  set(dir ${CMAKE_BINARY_DIR}/share/man/man${section})
  set(pages ${dir}/${page}.gz)
  # gzip -n: no name or time stamp inside, so the package is reproducible.
  add_custom_command(OUTPUT ${dir}/${page}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
    COMMAND gzip -9 -n -c ${CMAKE_CURRENT_SOURCE_DIR}/${source} > ${dir}/${page}.gz
    DEPENDS ${source}
    COMMENT "Compressing the manual page ${page}"
    VERBATIM)
  foreach(alias ${ARG_ALIASES})
    file(WRITE ${dir}/${alias}.${section}.so ".so man${section}/${page}\n")
    add_custom_command(OUTPUT ${dir}/${alias}.${section}.gz
      COMMAND gzip -9 -n -c ${dir}/${alias}.${section}.so > ${dir}/${alias}.${section}.gz
      DEPENDS ${dir}/${alias}.${section}.so
      VERBATIM)
    list(APPEND pages ${dir}/${alias}.${section}.gz)
  endforeach()
  string(REPLACE "." "_" target "manual_page_${page}")
  add_custom_target(${target} ALL DEPENDS ${pages})
  install(FILES ${pages} DESTINATION share/man/man${section})
endfunction()
