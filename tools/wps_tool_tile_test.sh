#!/bin/sh
# End-to-end check of "wps-tool tile": build a file from CSV, then info and
# lookup through the program, for a bound realm.
# Usage: wps_tool_tile_test.sh WPS_TOOL TMPDIR
set -eu
tool=$1
dir=$2
mkdir -p "$dir"
csv=$dir/aps.csv
file=$dir/aps.wps
fail() { echo "FAIL: $*" >&2; exit 1; }

cat > "$csv" <<'CSV'
MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT
00:12:A3:B4:C5:D6,48.8566,2.3522,40,0.5
00:12:A3:B4:C5:D7,48.8570,2.3530,18,0.1666666666666667
AA:BB:CC:DD:EE:01,-33.8688,151.2093,145,0.5
CSV

"$tool" tile build "$csv" "$file" --realm demo >/dev/null || fail "build"
"$tool" tile info "$file" --realm demo > "$dir/info.txt" || fail "info"
grep -q '2 tiles, 3 access points' "$dir/info.txt" || fail "info summary: $(cat "$dir/info.txt")"
[ "$(grep -c '^tile ' "$dir/info.txt")" = 2 ] || fail "info tile lines"

"$tool" tile lookup "$file" --realm demo 0012A3B4C5D6 aa:bb:cc:dd:ee:01 001122334455 > "$dir/lookup.txt" || fail "lookup"
expected='0012A3B4C5D6 48.8566017 2.3521996 40 0.500000
AABBCCDDEE01 -33.8688011 151.2093010 145 0.500000
001122334455 absent'
[ "$(cat "$dir/lookup.txt")" = "$expected" ] || fail "lookup output: $(cat "$dir/lookup.txt")"

# Another realm, or no realm, cannot use the file.
if "$tool" tile lookup "$file" --realm other 0012A3B4C5D6 >/dev/null 2>&1; then fail "other realm accepted"; fi
if "$tool" tile info "$file" >/dev/null 2>&1; then fail "unbound reader accepted a bound file"; fi
# Usage errors exit with 2.
set +e
"$tool" tile lookup "$file" --realm demo not-a-mac >/dev/null 2>&1; [ $? = 2 ] || fail "bad MAC status"
"$tool" tile frobnicate >/dev/null 2>&1; [ $? = 2 ] || fail "unknown command status"
printf 'nonsense\n' > "$dir/bad.csv"
"$tool" tile build "$dir/bad.csv" "$dir/bad.wps" >/dev/null 2>&1; [ $? = 1 ] || fail "bad CSV status"
echo "wps-tool tile: ok"
