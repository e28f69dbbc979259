# The time-zone boundary file, made at build time from the geo-tz package that
# scripts/setup keeps in .cache/geo-tz/ (product "timezones": the
# timezone-boundary-builder polygons as geobuf blobs over a quadtree index):
#
#   build/share/zonara/timezone-boundaries.dat      (part of ALL)
#   build/share/doc/zonara/TIMEZONE-BOUNDARIES      where the boundaries come from
#
# both installed under <prefix>/share/. Without the package the project still
# builds; the helper and `zonara timezone` then need a time-zone web service.
# Included after the subdirectories, so the converter's target exists.

set(ZONARA_GEO_TZ_DATA_DIR "${CMAKE_SOURCE_DIR}/.cache/geo-tz/package/data" CACHE PATH
    "Folder holding geo-tz's timezones.geojson.index.json and timezones.geojson.geo.dat")

set(_index "${ZONARA_GEO_TZ_DATA_DIR}/timezones.geojson.index.json")
set(_geo "${ZONARA_GEO_TZ_DATA_DIR}/timezones.geojson.geo.dat")

# The release the file holds. The package does not name the boundary release
# it carries; geo-tz 8.1.9 was published with timezone-boundary-builder 2026d.
set(_geo_tz_version "unknown")
if(EXISTS "${ZONARA_GEO_TZ_DATA_DIR}/../package.json")
  file(READ "${ZONARA_GEO_TZ_DATA_DIR}/../package.json" _package_json)
  string(JSON _geo_tz_version ERROR_VARIABLE _json_error GET "${_package_json}" version)
endif()
if(_geo_tz_version STREQUAL "8.1.9")
  set(_release_default "timezone-boundary-builder 2026d (geo-tz 8.1.9)")
else()
  set(_release_default "timezone-boundary-builder (geo-tz ${_geo_tz_version})")
endif()
set(ZONARA_TZ_DATA_RELEASE "${_release_default}" CACHE STRING
    "Release label stored in the time-zone boundary file")

set(ZONARA_HAVE_TZ_DATA OFF)
if(NOT EXISTS "${_index}" OR NOT EXISTS "${_geo}")
  message(WARNING
    "Time-zone boundary data not found in ${ZONARA_GEO_TZ_DATA_DIR}: building WITHOUT offline time zones. "
    "The helper and `zonara timezone` will find no zone unless TimezoneServiceURL names a service. "
    "Run scripts/setup (it obtains the data with npm), or set ZONARA_GEO_TZ_DATA_DIR.")
elseif(NOT TARGET zonara-tzdata)
  message(WARNING "The converter zonara-tzdata is not part of this build: building WITHOUT offline time zones.")
else()
  set(ZONARA_HAVE_TZ_DATA ON)
  message(STATUS "Time-zone boundary data: ${ZONARA_TZ_DATA_RELEASE} from ${ZONARA_GEO_TZ_DATA_DIR}")
  get_filename_component(_out_dir "${ZONARA_TZ_DATA_FILE}" DIRECTORY)
  # Written under a temporary name and renamed, so an interrupted build never
  # leaves a partial file where programs look for it.
  add_custom_command(
    OUTPUT "${ZONARA_TZ_DATA_FILE}"
    COMMAND ${CMAKE_COMMAND} -E make_directory "${_out_dir}"
    COMMAND zonara-tzdata "${_index}" "${_geo}" "${ZONARA_TZ_DATA_FILE}.part" --release "${ZONARA_TZ_DATA_RELEASE}"
    COMMAND ${CMAKE_COMMAND} -E rename "${ZONARA_TZ_DATA_FILE}.part" "${ZONARA_TZ_DATA_FILE}"
    DEPENDS zonara-tzdata "${_index}" "${_geo}"
    COMMENT "Converting the time-zone boundaries (${ZONARA_TZ_DATA_RELEASE})"
    VERBATIM)
  add_custom_target(timezone_boundaries_file ALL DEPENDS "${ZONARA_TZ_DATA_FILE}")
  install(FILES "${ZONARA_TZ_DATA_FILE}" DESTINATION share/zonara)

  set(ZONARA_TZ_NOTICE "${CMAKE_BINARY_DIR}/share/doc/zonara/TIMEZONE-BOUNDARIES")
  configure_file("${PROJECT_SOURCE_DIR}/timezone/resources/TIMEZONE-BOUNDARIES.in" "${ZONARA_TZ_NOTICE}" @ONLY)
  install(FILES "${ZONARA_TZ_NOTICE}" DESTINATION share/doc/zonara)
endif()
