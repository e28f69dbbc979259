// Files and folders, for the helper's code outside the platform layer.
//
// Paths are absolute or relative to the working folder. Failures are
// reported as errno values (0 = success) or empty results, never thrown.
//
// Thread safety: any thread; concurrent changes to the same files are the
// callers' affair.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zonara {

// Makes the folder when nothing exists at `path` (a file or a dangling link
// there is left alone); its parent must exist. 0, or the errno of mkdir.
int createFolderIfAbsent(const std::string& path);
// Makes the folder and every missing parent (mode 0755). 0 when the folder
// exists afterwards, else the errno of the failing step.
int createFolders(const std::string& path);

// Whether something exists at `path` (links followed).
[[nodiscard]] bool pathExists(const std::string& path);
[[nodiscard]] bool isFolder(const std::string& path);
[[nodiscard]] bool isRegularFile(const std::string& path);
// A file or folder this process may read.
[[nodiscard]] bool isReadable(const std::string& path);
// A regular file this process may execute.
[[nodiscard]] bool isExecutableFile(const std::string& path);
// The path with links, "." and ".." resolved; nullopt when it does not exist.
[[nodiscard]] std::optional<std::string> resolvedPath(const std::string& path);

// The whole content of a file; nullopt when it cannot be read.
[[nodiscard]] std::optional<std::string> readFile(const std::string& path);
// Replaces the file's content through a temporary file beside it and a
// rename, so readers see the old or the new content, never a part. 0, or
// the errno of the failing step (the temporary file is removed then).
int writeFileAtomically(const std::string& path, const std::string& content, unsigned mode = 0644);
// Adds `content` at the end of the file (made with `mode` when absent) in
// one write to a descriptor opened for appending, then flushes it to the
// disk, so concurrent appenders do not interleave and a crash loses at most
// this content. 0, or the errno of the failing step.
int appendToFile(const std::string& path, const std::string& content, unsigned mode = 0644);
// 0, or the errno of unlink.
int removeFile(const std::string& path);

// Fills `names` with the names in a folder (without "." and ".."), sorted.
// 0, or the errno of opendir (ENOENT: no such folder).
int folderEntries(const std::string& path, std::vector<std::string>* names);
// The paths of the folders under `path` (at any depth, not following links,
// skipping what cannot be read, not looking inside a folder found) whose
// name ends with `suffix` and is longer than it, sorted.
[[nodiscard]] std::vector<std::string> findFolders(const std::string& path, const std::string& suffix);

// A regular file mapped into memory, read-only, for as long as the object
// lives. The file may be replaced (renamed over) meanwhile: the mapping keeps
// the old content.
class MappedFile {
 public:
  // Maps the file; null with the reason in `*error` (when given) when it
  // does not exist, is not a regular file or cannot be mapped. An empty
  // file gives size 0 and no data.
  [[nodiscard]] static std::unique_ptr<MappedFile> open(const std::string& path, std::string* error);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  [[nodiscard]] const uint8_t* data() const { return data_; }
  [[nodiscard]] size_t size() const { return size_; }

 private:
  MappedFile(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  const uint8_t* const data_;
  const size_t size_;
};

}  // namespace zonara
