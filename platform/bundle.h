// Application bundles: a directory "<name>.<ext>" with "Contents/Info.plist"
// (a property-list dictionary; "CFBundleIdentifier" names the bundle,
// "CFBundleExecutable" its program in "Contents/MacOS") and resources in
// "Contents/Resources". The preference pane "Zonara.prefPane" carries the
// helper "ZonaraHelper.app" as one of its resources, so either can find the
// other from where it runs.
//
// Thread safety: a `Bundle` is immutable once made; any thread may read it.
#pragma once

#include <memory>
#include <string>

#include "platform/preferences_store.h"

namespace zonara {

class Bundle {
 public:
  // The bundle at `path`: nullptr unless `path` is a directory whose
  // "Contents/Info.plist" reads as a property-list dictionary. The bundle's
  // path is made absolute with symbolic links resolved, so two bundles made
  // from different spellings of one folder compare equal by path.
  [[nodiscard]] static std::unique_ptr<Bundle> bundleWithPath(const std::string& path);

  [[nodiscard]] const std::string& bundlePath() const { return path_; }
  // "CFBundleIdentifier", or "" when absent or not a string.
  [[nodiscard]] std::string bundleIdentifier() const;
  [[nodiscard]] const PrefValue::Dictionary& infoDictionary() const { return info_; }
  // "<bundle>/Contents/Resources/<name>.<type>" when that exists, else "".
  [[nodiscard]] std::string pathForResource(const std::string& name, const std::string& type) const;
  // "<bundle>/Contents/MacOS/<CFBundleExecutable>" when that is an executable
  // file, else "".
  [[nodiscard]] std::string executablePath() const;

  // The bundle folder an executable lives in, from the layout
  // "<bundle>/Contents/MacOS/<program>", or "" for any other path.
  [[nodiscard]] static std::string bundlePathForExecutable(const std::string& executable);
  // The extension of the last path component ("prefPane" for
  // "/x/Zonara.prefPane/"), or "".
  [[nodiscard]] static std::string pathExtension(const std::string& path);

 private:
  Bundle(std::string path, PrefValue::Dictionary info) : path_(std::move(path)), info_(std::move(info)) {}
  const std::string path_;
  const PrefValue::Dictionary info_;
};

}  // namespace zonara
