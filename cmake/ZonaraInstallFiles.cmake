# Run by `cmake --install`: the parts of the installed tree that name the
# install prefix. Expects ZONARA_SOURCE_DIR, ZONARA_PANE_DIR and
# ZONARA_HELPER_DIR; honours DESTDIR.
set(_root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
set(ZONARA_PREFIX "${CMAKE_INSTALL_PREFIX}")

file(MAKE_DIRECTORY "${_root}/bin")
foreach(_link "zonara=../${ZONARA_PANE_DIR}/Contents/MacOS/zonara"
              "zonara-helper=../${ZONARA_HELPER_DIR}/Contents/MacOS/ZonaraHelper")
  string(REPLACE "=" ";" _parts "${_link}")
  list(GET _parts 0 _name)
  list(GET _parts 1 _target)
  message(STATUS "Installing: ${_root}/bin/${_name} -> ${_target}")
  file(CREATE_LINK "${_target}" "${_root}/bin/${_name}" SYMBOLIC)
endforeach()

message(STATUS "Installing: ${_root}/share/applications/org.quillon.Zonara.desktop")
configure_file("${ZONARA_SOURCE_DIR}/tools/resources/org.quillon.Zonara.desktop.in"
               "${_root}/share/applications/org.quillon.Zonara.desktop" @ONLY)
message(STATUS "Installing: ${_root}/lib/systemd/user/zonara-helper.service")
configure_file("${ZONARA_SOURCE_DIR}/app/resources/zonara-helper.service.in"
               "${_root}/lib/systemd/user/zonara-helper.service" @ONLY)
