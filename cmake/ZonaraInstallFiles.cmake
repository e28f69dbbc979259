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

# polkit reads rules only from /etc/polkit-1/rules.d and
# /usr/share/polkit-1/rules.d: under any other prefix the rule that lets the
# user set the time zone without a password is put into /etc/polkit-1/rules.d
# as well (below DESTDIR when staging; the environment variable
# ZONARA_POLKIT_RULES_DIR names another folder, for tests). When that folder
# cannot be written -- an install without root -- the install goes on and
# says how to put the rule there.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(_rules_dir "/etc/polkit-1/rules.d")
  if(DEFINED ENV{ZONARA_POLKIT_RULES_DIR})
    set(_rules_dir "$ENV{ZONARA_POLKIT_RULES_DIR}")
  endif()
  set(_rules_target "$ENV{DESTDIR}${_rules_dir}")
  set(_rule "${ZONARA_SOURCE_DIR}/app/resources/50-zonara-timezone.rules")
  execute_process(COMMAND ${CMAKE_COMMAND} -E make_directory "${_rules_target}"
                  RESULT_VARIABLE _made OUTPUT_QUIET ERROR_QUIET)
  set(_copied 1)
  if(_made EQUAL 0)
    execute_process(COMMAND ${CMAKE_COMMAND} -E copy "${_rule}" "${_rules_target}/50-zonara-timezone.rules"
                    RESULT_VARIABLE _copied OUTPUT_QUIET ERROR_QUIET)
  endif()
  if(_copied EQUAL 0)
    message(STATUS "Installing: ${_rules_target}/50-zonara-timezone.rules")
  else()
    message(WARNING "polkit reads its rules only from /etc/polkit-1/rules.d and /usr/share/polkit-1/rules.d, "
                    "and ${_rules_target} cannot be written by this install. Without the rule, the helper "
                    "cannot set the time zone without an administrator password. Put it there with:\n"
                    "  sudo install -m 644 ${CMAKE_INSTALL_PREFIX}/share/polkit-1/rules.d/50-zonara-timezone.rules "
                    "${_rules_dir}/")
  endif()
endif()
