# Third-party libraries, all from Debian packages (see scripts/setup).
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

pkg_check_modules(LOG4CPP REQUIRED IMPORTED_TARGET log4cpp)
pkg_check_modules(NETTLE REQUIRED IMPORTED_TARGET nettle)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(LIBXML2 REQUIRED IMPORTED_TARGET libxml-2.0)
pkg_check_modules(LIBCURL REQUIRED IMPORTED_TARGET libcurl)
pkg_check_modules(ZLIB REQUIRED IMPORTED_TARGET zlib)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0 gio-2.0 gio-unix-2.0)
pkg_check_modules(LIBNL_GENL REQUIRED IMPORTED_TARGET libnl-genl-3.0)
pkg_check_modules(LIBNL_ROUTE REQUIRED IMPORTED_TARGET libnl-route-3.0)
# date/tz must be used with the system's zoneinfo (USE_OS_TZDB=1); the
# exported target carries that definition.
find_package(date REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
if(ZONARA_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
