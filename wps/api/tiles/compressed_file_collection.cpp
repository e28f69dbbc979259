#include "wps/api/tiles/compressed_file_collection.h"

#include <algorithm>

namespace WPS {
namespace API {

// ---------------------------------------------------------------------------
// CompressedFileList

CompressedFileList::CompressedFileList(std::string realm) : realm_(std::move(realm)) {}

CompressedFileList::~CompressedFileList() = default;

CompressedFileList::Handle CompressedFileList::add(const std::string& path) {
  std::unique_ptr<CompressedFileReader> reader = CompressedFileReader::newInstance();
  if (!reader || reader->open(realm_, path) != 0) return nullptr;
  return add(std::move(reader));
}

CompressedFileList::Handle CompressedFileList::add(std::unique_ptr<CompressedFileReader> reader) {
  if (!reader) return nullptr;
  files_.push_front(std::move(reader));
  return files_.front().get();
}

CompressedFileList::Handle CompressedFileList::get(const SPI::MAC& mac, LocatedAccessPoint& out) {
  for (auto it = files_.begin(); it != files_.end(); ++it) {
    LocatedAccessPoint found = (*it)->get(mac);
    if (found.empty()) continue;
    out = found;
    if (it != files_.begin()) files_.splice(files_.begin(), files_, it);
    return files_.front().get();
  }
  return nullptr;
}

std::unique_ptr<CompressedFileReader> CompressedFileList::pop() {
  if (files_.empty()) return nullptr;
  std::unique_ptr<CompressedFileReader> last = std::move(files_.back());
  files_.pop_back();
  return last;
}

std::unique_ptr<CompressedFileReader> CompressedFileList::remove(Handle handle) {
  auto it = std::find_if(files_.begin(), files_.end(), [handle](const auto& f) { return f.get() == handle; });
  if (it == files_.end()) return nullptr;
  std::unique_ptr<CompressedFileReader> reader = std::move(*it);
  files_.erase(it);
  return reader;
}

std::vector<CompressedFileList::Handle> CompressedFileList::handles() const {
  std::vector<Handle> out;
  out.reserve(files_.size());
  for (const auto& f : files_) out.push_back(f.get());
  return out;
}

// ---------------------------------------------------------------------------
// CompressedFileCollection

CompressedFileCollection::CompressedFileCollection(std::string realm)
    : logger_(SPI::Logger::getLogger("WPS.API.CompressedFileCollection")), files_(std::move(realm)) {}

CompressedFileList::Handle CompressedFileCollection::get(const SPI::MAC& mac, LocatedAccessPoint& lap) {
  if (CompressedFileList::Handle cached = find_in_cache(mac, lap)) return cached;
  LocatedAccessPoint found;
  CompressedFileList::Handle file = files_.get(mac, found);
  if (file == nullptr) return nullptr;
  lap = found;
  cache_ap(found, file);
  return file;
}

CompressedFileList::Handle CompressedFileCollection::find_in_cache(const SPI::MAC& mac, LocatedAccessPoint& lap) {
  for (auto it = cache_.begin(); it != cache_.end(); ++it) {
    if (!(it->lap.mac == mac)) continue;
    if (logger_.isEnabledFor(SPI::Logger::DEBUG)) logger_.debug("found mac %s in cache", mac.toString().c_str());
    lap = it->lap;
    if (it != cache_.begin()) cache_.splice(cache_.begin(), cache_, it);
    return cache_.front().file;
  }
  return nullptr;
}

void CompressedFileCollection::cache_ap(const LocatedAccessPoint& lap, CompressedFileList::Handle file) {
  if (free_ == 0) {
    if (!cache_.empty()) cache_.pop_back();
  } else {
    --free_;
  }
  cache_.push_front(CacheEntry{lap, file});
  if (logger_.isEnabledFor(SPI::Logger::DEBUG)) {
    logger_.debug("added mac %s to cache. remaining cache size is %lu", lap.mac.toString().c_str(),
                  static_cast<unsigned long>(free_));
  }
}

void CompressedFileCollection::remove_from_cache(CompressedFileList::Handle file) {
  for (auto it = cache_.begin(); it != cache_.end();) {
    if (it->file == file) {
      it = cache_.erase(it);
      ++free_;
    } else {
      ++it;
    }
  }
}

std::string CompressedFileCollection::pop() {
  const std::vector<CompressedFileList::Handle> handles = files_.handles();
  if (handles.empty()) return {};
  remove_from_cache(handles.back());
  std::unique_ptr<CompressedFileReader> reader = files_.pop();
  std::string name = reader->fileName();
  reader->close();
  return name;
}

bool CompressedFileCollection::remove(CompressedFileList::Handle handle) {
  std::unique_ptr<CompressedFileReader> reader = files_.remove(handle);
  if (!reader) return false;
  remove_from_cache(handle);
  reader->close();
  return true;
}

std::vector<SPI::MAC> CompressedFileCollection::cachedMACs() const {
  std::vector<SPI::MAC> out;
  out.reserve(cache_.size());
  for (const auto& e : cache_) out.push_back(e.lap.mac);
  return out;
}

}  // namespace API
}  // namespace WPS
