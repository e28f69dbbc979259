#!/bin/sh
# Installs the build into a fresh prefix, checks the installed layout, and
# runs the installed commands the way a user would (login item, start,
# status, stop) on a private session bus.
#   install_test.sh CMAKE BUILD_DIR SCRATCH_DIR
set -eu
CMAKE=$1
BUILD=$2
TMP=$3
rm -rf "$TMP"
mkdir -p "$TMP"
P=$TMP/prefix
PANE=$P/lib/zonara/PreferencePanes/Zonara.prefPane
HELPER=$PANE/Contents/Resources/ZonaraHelper.app
HELPER_EXE=$HELPER/Contents/MacOS/ZonaraHelper

fail() {
  echo "install_test: $*" >&2
  exit 1
}

# Ends helpers started from the installed tree (by process id).
stop_installed_helpers() {
  for exe in /proc/[0-9]*/exe; do
    if [ "$(readlink "$exe" 2>/dev/null)" = "$HELPER_EXE" ]; then
      pid=${exe#/proc/}
      kill "${pid%/exe}" 2>/dev/null || true
    fi
  done
}
trap stop_installed_helpers EXIT

# The rule polkit must read goes to /etc/polkit-1/rules.d under any prefix
# but /usr; here to a folder of the test's own instead.
RULES="$TMP/etc-polkit-rules.d"
rm -rf "$RULES"
ZONARA_POLKIT_RULES_DIR="$RULES" "$CMAKE" --install "$BUILD" --prefix "$P" >"$TMP/install.log" 2>&1 ||
  fail "cmake --install failed (see $TMP/install.log)"
cmp -s "$RULES/50-zonara-timezone.rules" "$P/share/polkit-1/rules.d/50-zonara-timezone.rules" ||
  fail "the polkit rule is not where polkit reads it"
# A folder that cannot be written: the install still succeeds and says what to do.
mkdir -p "$TMP/locked" && touch "$TMP/locked/not-a-folder"
ZONARA_POLKIT_RULES_DIR="$TMP/locked/not-a-folder/rules.d" "$CMAKE" --install "$BUILD" --prefix "$P" \
  >"$TMP/install-locked.log" 2>&1 || fail "cmake --install failed without the rule folder (see $TMP/install-locked.log)"
grep -q "sudo install -m 644 $P/share/polkit-1/rules.d/50-zonara-timezone.rules" "$TMP/install-locked.log" ||
  fail "no advice on putting the polkit rule in place (see $TMP/install-locked.log)"

# --- Layout ---------------------------------------------------------------
for f in "$PANE/Contents/Info.plist" "$HELPER/Contents/Info.plist" "$HELPER/Contents/Resources/Zonara.png" \
         "$P/share/applications/org.quillon.Zonara.desktop" "$P/share/icons/hicolor/64x64/apps/zonara.png" \
         "$P/share/polkit-1/rules.d/50-zonara-timezone.rules" "$P/lib/systemd/user/zonara-helper.service" \
         "$P/share/man/man1/zonara.1.gz" "$P/share/man/man1/ZonaraHelper.1.gz" "$P/share/man/man1/zonara-helper.1.gz" \
         "$P/share/bash-completion/completions/zonara" "$P/share/doc/zonara/README.md"; do
  [ -f "$f" ] || fail "missing $f"
done
for f in "$PANE/Contents/MacOS/zonara" "$HELPER_EXE" "$P/bin/wps-tool"; do
  [ -f "$f" ] && [ -x "$f" ] || fail "missing program $f"
done
grep -q '<string>org.quillon.Zonara</string>' "$PANE/Contents/Info.plist" || fail "pane identifier"
grep -q '<string>org.quillon.ZonaraHelper</string>' "$HELPER/Contents/Info.plist" || fail "helper identifier"
# The commands on PATH lead into the bundles, so /proc shows the bundled programs.
for pair in "zonara:$PANE/Contents/MacOS/zonara" "zonara-helper:$HELPER_EXE"; do
  link=$P/bin/${pair%%:*}
  [ -L "$link" ] || fail "$link is not a link into its bundle"
  [ "$(readlink -f "$link")" = "$(readlink -f "${pair#*:}")" ] || fail "$link leads to $(readlink -f "$link")"
done
[ ! -e "$P/bin/ZonaraHelper" ] || fail "a loose copy of the helper in bin/"
grep -qx "Exec=$P/bin/zonara start" "$P/share/applications/org.quillon.Zonara.desktop" || fail "desktop entry Exec"
grep -qx "ExecStart=$P/bin/zonara-helper" "$P/lib/systemd/user/zonara-helper.service" || fail "unit ExecStart"

# --- Time-zone boundary data ---------------------------------------------------
# Installed with its attribution when the build made it; the installed
# control program finds it beside its prefix and answers without any service.
if [ -f "$BUILD/share/zonara/timezone-boundaries.dat" ]; then
  [ -f "$P/share/zonara/timezone-boundaries.dat" ] || fail "boundary data not installed"
  notice=$P/share/doc/zonara/TIMEZONE-BOUNDARIES
  [ -f "$notice" ] || fail "missing $notice"
  grep -q "OpenStreetMap contributors" "$notice" && grep -q "ODbL" "$notice" &&
    grep -q "timezone-boundary-builder" "$notice" || fail "$notice lacks the attribution"
  mkdir -p "$TMP/noprefs"
  zone=$(env -u ZONARA_TZ_DATA HOME="$TMP/nohome" XDG_CONFIG_HOME="$TMP/noprefs" XDG_DATA_HOME="$TMP/nodata" \
         XDG_DATA_DIRS="$TMP/nowhere" "$P/bin/zonara" timezone 50.85 4.35) || fail "installed zonara timezone failed"
  [ "$zone" = Europe/Brussels ] || fail "installed zonara timezone answered '$zone'"
elif [ -n "${ZONARA_REQUIRE_TZ_DATA:-}" ] && [ "${ZONARA_REQUIRE_TZ_DATA}" != 0 ]; then
  fail "the build made no time-zone boundary data, and ZONARA_REQUIRE_TZ_DATA is set"
fi

# --- The installed commands ---------------------------------------------------
export HOME="$TMP/home" XDG_CONFIG_HOME="$TMP/config" XDG_DATA_HOME="$TMP/data"
export PATH="$P/bin:$PATH" HELPER_EXE TMP
mkdir -p "$HOME" "$XDG_CONFIG_HOME"
# A helper under test must never touch the machine's zone or the network.
cat >"$XDG_CONFIG_HOME/org.quillon.ZonaraHelper.plist" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>SetTimezoneCommand</key><array><string>/bin/true</string></array>
<key>TimezoneServiceURL</key><string>http://127.0.0.1:9</string>
</dict></plist>
PLIST

cat >"$TMP/session.sh" <<'SESSION'
set -u
fail() { echo "install_test: $*" >&2; exit 1; }
zonara login on >/dev/null || fail "zonara login on"
[ "$(zonara login status)" = on ] || fail "login status after on"
grep -qF "Exec=\"$HELPER_EXE\"" "$XDG_CONFIG_HOME"/autostart/*.desktop || fail "login item does not run the bundled helper"
zonara status >"$TMP/status1" && fail "status said running before start"
grep -qx "ZonaraHelper: not running" "$TMP/status1" || fail "status before start: $(cat "$TMP/status1")"
zonara start >/dev/null || fail "zonara start"
zonara status >"$TMP/status2" || fail "status after start: $(cat "$TMP/status2")"
grep -qx "ZonaraHelper: running" "$TMP/status2" || fail "status after start: $(cat "$TMP/status2")"
grep -qx "Current location: Unknown" "$TMP/status2" || fail "no location in status: $(cat "$TMP/status2")"
[ "$(zonara get ZonaraEnabled)" = true ] || fail "ZonaraEnabled after start"
zonara stop >/dev/null || fail "zonara stop"
zonara status >/dev/null && fail "status said running after stop"
zonara login off >/dev/null || fail "zonara login off"
[ "$(zonara login status)" = off ] || fail "login status after off"
exit 0
SESSION
dbus-run-session -- sh "$TMP/session.sh" 2>"$TMP/session.err" || { cat "$TMP/session.err" >&2; exit 1; }
echo "install_test: ok"
