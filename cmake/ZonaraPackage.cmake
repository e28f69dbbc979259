# The Debian package: `cpack -G DEB` in the build folder (or `cmake --build
# build --target package`) writes build/zonara_VERSION_ARCH.deb from the
# install rules of the project, installed under /usr:
#
#   /usr/bin/zonara, zonara-helper            links into the bundles (cmake/ZonaraInstall.cmake)
#   /usr/bin/wps-tool, wps-scan, zonara-tzdata
#   /usr/lib/zonara/PreferencePanes/...       the pane and helper bundles
#   /usr/share/zonara/timezone-boundaries.dat the boundary file, when the build made it
#   /usr/share/doc/zonara/                    README.md, TIMEZONE-BOUNDARIES
#   /usr/share/polkit-1/rules.d/50-zonara-timezone.rules
#   /usr/lib/systemd/user/zonara-helper.service
#   /usr/share/applications/org.quillon.Zonara.desktop, the icon
#   /usr/share/man/man1/zonara.1.gz, ZonaraHelper.1.gz, zonara-helper.1.gz
#   /usr/share/bash-completion/completions/zonara
#
# Depends is what dpkg-shlibdeps finds for the installed programs (the Debian
# packages of the shared libraries they link), plus the programs the helper
# runs. A build without the boundary data still packages, without the file;
# scripts/check-package refuses such a package unless told it may lack it.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zonara)
set(CPACK_PACKAGE_VENDOR "Zonara")
set(CPACK_PACKAGE_CONTACT "Zonara developers <zonara@quillon.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "keeps the system time zone equal to where the computer is")
set(CPACK_PACKAGE_DESCRIPTION
    "A background helper watches the network; whenever the Wi-Fi joins a network it
finds the computer's position (learned places on the computer, else a Wi-Fi
positioning server, by default BeaconDB), finds the time zone there in
boundary data kept on the computer, and sets it through timedatectl, with a
notification offering to undo the change. Near a border where the clocks
differ it keeps the zone it has; behind a VPN it ignores the position of the
Internet address. Includes the control program zonara and the Wi-Fi
positioning tools wps-tool and wps-scan.")
# The description is read from a file by CPack; keep it in the build tree.
file(WRITE "${CMAKE_BINARY_DIR}/package-description.txt" "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION_FILE "${CMAKE_BINARY_DIR}/package-description.txt")

# Install under /usr with DESTDIR, so files that name the prefix (the desktop
# entry, the user unit) say /usr and not the staging folder.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Run, not linked: timedatectl (systemd) sets the zone, the system's zone
# files (tzdata) are what an answer is matched to; polkit reads the rule, a
# session bus carries the helper's name and the notifications.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd, tzdata")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "polkitd, dbus-user-session | dbus-x11")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "network-manager")

set(CPACK_SOURCE_IGNORE_FILES "/build.*/" "/\\\\.git/" "/\\\\.cache/")

include(CPack)
