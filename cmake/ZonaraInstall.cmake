# The pane and helper bundles, in the build tree and in the installed tree.
#
#   <prefix>/lib/zonara/PreferencePanes/Zonara.prefPane/
#     Contents/Info.plist                      org.quillon.Zonara
#     Contents/MacOS/zonara                    the control program
#     Contents/Resources/ZonaraHelper.app/
#       Contents/Info.plist                    org.quillon.ZonaraHelper
#       Contents/MacOS/ZonaraHelper            the helper
#       Contents/Resources/Zonara.png          its notification icon
#   <prefix>/bin/zonara, <prefix>/bin/zonara-helper   symbolic links into the bundles
#   <prefix>/bin/wps-tool
#   <prefix>/share/applications/org.quillon.Zonara.desktop
#   <prefix>/share/icons/hicolor/64x64/apps/zonara.png
#   <prefix>/share/polkit-1/rules.d/50-zonara-timezone.rules   (app/)
#   <prefix>/lib/systemd/user/zonara-helper.service
#   <prefix>/share/man/man1/zonara.1.gz, ZonaraHelper.1.gz, zonara-helper.1.gz   (tools/, app/)
#   <prefix>/share/bash-completion/completions/zonara                          (tools/)
#   <prefix>/share/doc/zonara/README.md
#
# A process is recognised as the helper by the bundle its executable lives
# in, so the commands on PATH are links (which /proc resolves), not copies.
# The build tree gets the same bundles under build/lib/zonara, refreshed on
# every build by the target zonara_bundles, so build/bin/zonara finds its
# helper the way an installed one does.

set(_pane ${CMAKE_BINARY_DIR}/${ZONARA_PANE_DIR})
set(_helper ${CMAKE_BINARY_DIR}/${ZONARA_HELPER_DIR})
configure_file(${PROJECT_SOURCE_DIR}/tools/resources/Zonara.prefPane.Info.plist.in ${_pane}/Contents/Info.plist @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/app/resources/ZonaraHelper.Info.plist.in ${_helper}/Contents/Info.plist @ONLY)

add_custom_target(zonara_bundles ALL
  COMMAND ${CMAKE_COMMAND} -E make_directory ${_pane}/Contents/MacOS ${_helper}/Contents/MacOS
          ${_helper}/Contents/Resources
  COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:zonara> ${_pane}/Contents/MacOS/zonara
  COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:ZonaraHelper> ${_helper}/Contents/MacOS/ZonaraHelper
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${PROJECT_SOURCE_DIR}/app/resources/Zonara.png
          ${_helper}/Contents/Resources/Zonara.png
  COMMENT "Assembling Zonara.prefPane and ZonaraHelper.app in the build tree"
  VERBATIM)
add_dependencies(zonara_bundles zonara ZonaraHelper)

# Installed tree. The programs themselves are installed by their targets
# (zonara_add_program with INSTALL_DESTINATION inside the bundles).
install(FILES ${_pane}/Contents/Info.plist DESTINATION ${ZONARA_PANE_DIR}/Contents)
install(FILES ${_helper}/Contents/Info.plist DESTINATION ${ZONARA_HELPER_DIR}/Contents)
install(FILES ${PROJECT_SOURCE_DIR}/app/resources/Zonara.png DESTINATION ${ZONARA_HELPER_DIR}/Contents/Resources)
install(FILES ${PROJECT_SOURCE_DIR}/app/resources/Zonara.png
        DESTINATION share/icons/hicolor/64x64/apps RENAME zonara.png)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION share/doc/zonara)

# Links, the desktop entry and the user unit name the final prefix, which is
# only known when installing (cmake --install --prefix P).
install(CODE "set(ZONARA_SOURCE_DIR \"${PROJECT_SOURCE_DIR}\")
set(ZONARA_PANE_DIR \"${ZONARA_PANE_DIR}\")
set(ZONARA_HELPER_DIR \"${ZONARA_HELPER_DIR}\")")
install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/ZonaraInstallFiles.cmake)

if(ZONARA_BUILD_TESTS)
  # Installs into a fresh prefix and checks the layout and the installed
  # commands (on a private session bus).
  add_test(NAME install_test
    COMMAND sh ${PROJECT_SOURCE_DIR}/tools/install_test.sh ${CMAKE_COMMAND} ${CMAKE_BINARY_DIR}
            ${CMAKE_BINARY_DIR}/test-tmp/install_test)
  set_tests_properties(install_test PROPERTIES TIMEOUT 120)
endif()
