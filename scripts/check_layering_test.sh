#!/usr/bin/env bash
# Tests scripts/check-layering on scratch trees: a tree that keeps the rules
# passes, and each kind of breach is reported as path:line and fails the check.
#
#   scripts/check_layering_test.sh        (CTest runs it as check_layering_test)
set -uo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
check=$here/check-layering
scratch=$(mktemp -d "${ZONARA_TEST_TMPDIR:-${TMPDIR:-/tmp}}/layering.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# put PATH TEXT: writes one file of the scratch tree.
put() { mkdir -p "$(dirname "$1")"; printf '%s\n' "$2" >"$1"; }

# A tree that keeps every rule.
clean_tree() {
  rm -rf "$scratch/tree"
  mkdir -p "$scratch/tree" && cd "$scratch/tree" || exit 1
  put wps/api/wpsapi.h $'#ifndef WPS_API_WPSAPI_H\n#define WPS_API_WPSAPI_H\n#ifdef __cplusplus\nextern "C" {\n#endif\nint WPS_x(void);\n#ifdef __cplusplus\n}\n#endif\n#endif'
  put wps/api/tiles/tile.h $'#pragma once\n#include "wps/spi/file.h"\n#include <vector>'
  put wps/api/tiles/tile.cpp $'#include "tile.h"\n#include "wps/api/tiles/tile.h"'
  put wps/spi/file.h $'#pragma once\n#ifdef __linux__\n#include <unistd.h>\n#endif'
  put platform/clock.h $'#pragma once\n#if defined(__linux__)\n#include <time.h>\n#endif'
  put sensors/sensor.h $'#pragma once\n#include "platform/clock.h"\n#include "wps/api/wpsapi.h"'
  put sensors/sensor_test.cpp $'#include "sensors/sensor.h"\n#include "wps/api/tiles/tile.h"'
  put timezone/zones.h $'#pragma once\n#include "platform/clock.h"'
  put prefs/prefs.h $'#pragma once\n#include "platform/clock.h"'
  put app/app.cpp $'#include "sensors/sensor.h"\n#include "timezone/zones.h"\n#include "prefs/prefs.h"\n#include <gtest/gtest.h>'
  put tools/tool.cpp $'#include "wps/api/tiles/tile.h"\n#include "app/app.h"'
  put system_tests/harness.cpp $'#include "app/app.h"\n#include "wps/api/tiles/tile.h"'
  # Build folders are not part of the tree.
  put build/generated.cpp $'#ifdef ANYTHING\n#endif'
}

# expect_clean: the check passes on the tree as it is.
expect_clean() {
  local out status
  out=$("$check" "$scratch/tree" 2>&1); status=$?
  [ "$status" = 0 ] && [ -z "$out" ] || fail "clean tree: status $status, output: $out"
}

# expect_breach NAME PATH TEXT EXPECTED: PATH written as TEXT into a clean
# tree makes the check fail with a line starting with EXPECTED.
expect_breach() {
  local name=$1 path=$2 text=$3 expected=$4 out status
  clean_tree
  put "$path" "$text"
  out=$("$check" "$scratch/tree" 2>&1); status=$?
  if [ "$status" != 1 ]; then
    fail "$name: status $status, expected 1; output: $out"
  elif ! grep -qF -- "$expected" <<<"$out"; then
    fail "$name: no line '$expected' in: $out"
  fi
}

clean_tree
expect_clean

#             name                           file                       text                                          report
expect_breach "wps includes platform"        wps/spi/log.cpp            $'#include <string>\n#include "platform/system_log.h"' "wps/spi/log.cpp:2: the positioning library includes platform/system_log.h"
expect_breach "wps test includes platform"   wps/api/tiles/tile_test.cpp $'#include "platform/testing/temp_dir.h"'        "wps/api/tiles/tile_test.cpp:1: the positioning library includes platform/testing/temp_dir.h"
expect_breach "wps includes beside, upward"  wps/api/x.cpp              $'#include "../../app/app.h"'                "wps/api/x.cpp:1: the positioning library includes app/app.h"
expect_breach "spi includes api"             wps/spi/http.cpp           $'#include "wps/api/tiles/tile.h"'            "wps/spi/http.cpp:1: wps/spi/ includes wps/api/tiles/tile.h"
expect_breach "sensors includes app"         sensors/aggregator.h       $'#pragma once\n\n#include "app/location_source.h"' "sensors/aggregator.h:3: sensors/ may not include app/"
expect_breach "sensors test includes app"    sensors/road_test.cpp      $'#include "app/app_controller.h"'            "sensors/road_test.cpp:1: sensors/ may not include app/"
expect_breach "timezone includes app"        timezone/match.cpp         $'#include "app/app.h"'                       "timezone/match.cpp:1: timezone/ may not include app/"
expect_breach "prefs includes app"           prefs/login.cpp            $'#include "app/app.h"'                       "prefs/login.cpp:1: prefs/ may not include app/"
expect_breach "platform includes sensors"    platform/x.cpp             $'#include "sensors/sensor.h"'                "platform/x.cpp:1: platform/ may not include sensors/"
expect_breach "platform includes prefs"      platform/x.cpp             $'#include "prefs/prefs.h"'                   "platform/x.cpp:1: platform/ may not include prefs/"
expect_breach "platform includes timezone"   platform/x.cpp             $'#include "timezone/zones.h"'                "platform/x.cpp:1: platform/ may not include timezone/"
expect_breach "platform includes app"        platform/x.cpp             $'#include "app/app.h"'                       "platform/x.cpp:1: platform/ may not include app/"
expect_breach "helper uses library inside"   app/main.cpp               $'#include "wps/spi/logger.h"'                "app/main.cpp:1: the helper reaches the library only through wps/api/wpsapi.h"
expect_breach "ifdef in app"                 app/main.cpp               $'int a;\n#ifdef ZONARA_WITH_WPS_API\nint b;\n#endif' "app/main.cpp:2: conditional compilation outside platform/ and wps/spi/: #ifdef ZONARA_WITH_WPS_API"
expect_breach "ifndef that is no guard"      sensors/x.h                $'#ifndef X_H\nint x;\n#endif'                 "sensors/x.h:1: conditional compilation outside platform/ and wps/spi/: #ifndef X_H"
expect_breach "if defined in a test"         system_tests/soak_test.cpp $'#if defined(__SANITIZE_ADDRESS__)\n#endif'  "system_tests/soak_test.cpp:1: conditional compilation outside platform/ and wps/spi/: #if defined(__SANITIZE_ADDRESS__)"
expect_breach "elif defined"                 wps/api/x.cpp              $'#if 1\n#elif defined X\n#endif'             "wps/api/x.cpp:2: conditional compilation outside platform/ and wps/spi/: #elif defined X"
expect_breach "ifdef in wps/api"             wps/api/x.h                $'#pragma once\n# ifdef __linux__\n#endif'    "wps/api/x.h:2: conditional compilation outside platform/ and wps/spi/: #ifdef __linux__"

# Usage errors are told apart from breaches.
"$check" "$scratch/no-such-folder" >/dev/null 2>&1; status=$?
[ "$status" = 2 ] || fail "missing folder: status $status, expected 2"

if [ "$failures" -gt 0 ]; then
  echo "check_layering_test: $failures failed"
  exit 1
fi
echo "check_layering_test: all passed"
