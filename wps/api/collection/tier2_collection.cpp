#include "wps/api/collection/tier2_collection.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "wps/spi/file.h"

namespace WPS {
namespace API {

namespace {

constexpr char kBase36Digits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
// Room kept free in the quota for the file being written.
constexpr long kMinCloseSize = 256;

// The time a collection file name stands for, or false for other names.
bool parseFilename(const std::string& name, uint64_t& seconds) {
  if (name.size() < 2 || name.size() > 14 || name[0] != 'T') return false;
  uint64_t value = 0;
  for (size_t i = 1; i < name.size(); ++i) {
    const char c = name[i];
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'A' && c <= 'Z') {
      digit = c - 'A' + 10;
    } else {
      return false;
    }
    value = value * 36 + static_cast<uint64_t>(digit);
  }
  seconds = value;
  return true;
}

// How every collection line begins: the local time "%Y/%m/%d %I:%M:%S %p"
// and a tab; '0' stands for a digit and 'X' for A or P.
constexpr char kLineHead[] = "0000/00/00 00:00:00 XM\t";
constexpr size_t kLineHeadLength = sizeof kLineHead - 1;

bool matchesLineHead(const char* text) {
  for (size_t i = 0; i < kLineHeadLength; ++i) {
    const char want = kLineHead[i];
    const char c = text[i];
    const bool ok = want == '0' ? c >= '0' && c <= '9' : want == 'X' ? c == 'A' || c == 'P' : c == want;
    if (!ok) return false;
  }
  return true;
}

struct GzCloser {
  void operator()(gzFile_s* file) const { gzclose(file); }
};

// True when `path` is a collection file this library wrote: gzip data whose
// text begins like a collection line. A user's file whose name happens to
// look like one ("TODO") is neither counted nor ever deleted.
bool isCollectionFile(const std::string& path) {
  if (!CompressedFile::isCompressedFile(path)) return false;
  std::unique_ptr<gzFile_s, GzCloser> file(gzopen(path.c_str(), "rb"));
  if (!file) return false;
  char head[kLineHeadLength];
  return gzread(file.get(), head, static_cast<unsigned>(kLineHeadLength)) == static_cast<int>(kLineHeadLength) &&
         matchesLineHead(head);
}

uint64_t sizeOnDisk(const std::string& path) {
  const int64_t size = SPI::File::size(path);
  return size < 0 ? 0 : static_cast<uint64_t>(size);
}

}  // namespace

// ---------------------------------------------------------------------------
// CompressedFile

std::unique_ptr<CompressedFile> CompressedFile::newInstance() { return std::make_unique<GzipCompressedFile>(); }

bool CompressedFile::isCompressedFile(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  unsigned char magic[2] = {0, 0};
  if (!in.read(reinterpret_cast<char*>(magic), 2)) return false;
  return magic[0] == 0x1f && magic[1] == 0x8b;
}

GzipCompressedFile::~GzipCompressedFile() { close(); }

int GzipCompressedFile::open(const std::string& name) {
  close();
  gzFile file = gzopen(name.c_str(), "ab");
  if (file == nullptr) return -1;
  file_ = file;
  startOffset_ = 0;
  const long start = static_cast<long>(gztell(file));
  if (start > 0) startOffset_ = start;
  return 0;
}

int GzipCompressedFile::write(const void* data, size_t size) {
  if (file_ == nullptr) return -1;
  if (size == 0) return 0;
  const int written = gzwrite(static_cast<gzFile>(file_), data, static_cast<unsigned>(size));
  return written == static_cast<int>(size) ? 0 : -1;
}

long GzipCompressedFile::tell() {
  if (file_ == nullptr) return -1;
  return static_cast<long>(gztell(static_cast<gzFile>(file_))) - startOffset_;
}

int GzipCompressedFile::close() {
  if (file_ == nullptr) return 0;
  const int rc = gzclose(static_cast<gzFile>(file_));
  file_ = nullptr;
  return rc == Z_OK ? 0 : -1;
}

// ---------------------------------------------------------------------------
// BoundedFileQueue

BoundedFileQueue::BoundedFileQueue(std::string directory, uint64_t quotaBytes)
    : logger_(SPI::Logger::getLogger("WPS.API.BoundedFileQueue")), directory_(std::move(directory)), quota_(quotaBytes) {
  std::vector<std::pair<uint64_t, std::string>> found;
  std::unique_ptr<SPI::Directory> dir = SPI::Directory::newInstance();
  if (dir && dir->open(directory_) == 0) {
    std::string name;
    uint64_t seconds = 0;
    while (dir->next(name)) {
      if (parseFilename(name, seconds) && isCollectionFile(directory_ + "/" + name)) {
        found.emplace_back(seconds, name);
      }
    }
    dir->close();
  }
  std::sort(found.begin(), found.end());
  for (const auto& [seconds, name] : found) {
    const uint64_t size = sizeOnDisk(directory_ + "/" + name);
    files_.emplace_back(name, size);
    total_ += size;
  }
  logger_.info("found %lu collection files (%llu bytes) in %s, quota %llu bytes",
               static_cast<unsigned long>(files_.size()), static_cast<unsigned long long>(total_),
               directory_.c_str(), static_cast<unsigned long long>(quota_));
  enforceQuota();
}

void BoundedFileQueue::push(const std::string& name) {
  const uint64_t size = sizeOnDisk(directory_ + "/" + name);
  auto it = std::find_if(files_.begin(), files_.end(), [&name](const auto& f) { return f.first == name; });
  if (it != files_.end()) {
    total_ -= it->second;
    it->second = size;
  } else {
    files_.emplace_back(name, size);
  }
  total_ += size;
  logger_.debug("queued %s (%llu bytes), total %llu of %llu bytes", name.c_str(),
                static_cast<unsigned long long>(size), static_cast<unsigned long long>(total_),
                static_cast<unsigned long long>(quota_));
  enforceQuota();
}

void BoundedFileQueue::enforceQuota() {
  while (total_ > quota_ && !files_.empty()) {
    const auto [name, size] = files_.front();
    files_.pop_front();
    total_ -= size;
    logger_.info("quota of %llu bytes exceeded, removing %s (%llu bytes)", static_cast<unsigned long long>(quota_),
                 name.c_str(), static_cast<unsigned long long>(size));
    (void)SPI::File::remove(directory_ + "/" + name);
  }
}

std::vector<std::string> BoundedFileQueue::names() const {
  std::vector<std::string> out;
  for (const auto& f : files_) out.push_back(f.first);
  return out;
}

// ---------------------------------------------------------------------------
// Tier2Collection

Tier2Collection::Tier2Collection(const SimpleAuthentication& authentication, std::string directory)
    : logger_(SPI::Logger::getLogger("WPS.API.Tier2Collection")),
      user_(authentication.username),
      directory_(std::move(directory)) {}

std::unique_ptr<Tier2Collection> Tier2Collection::newInstance(const SimpleAuthentication& authentication,
                                                              const std::string& directory, unsigned long quotaKb) {
  SPI::Logger& logger = SPI::Logger::getLogger("WPS.API.Tier2Collection");
  if (!SPI::Directory::isDirectory(directory) && SPI::Directory::create(directory) != 0) {
    logger.error("cannot create tier2 area %s", directory.c_str());
    return nullptr;
  }
  logger.info("tier2 area set to %s with quota = %u kb", directory.c_str(), static_cast<unsigned>(quotaKb));
  return std::make_unique<Tier2CollectionCompressed>(authentication, directory, uint64_t{quotaKb} * 1024);
}

std::string Tier2Collection::format_ap_record(const SPI::ScannedAccessPoint& ap) {
  unsigned char b[6];
  ap.mac.copy(b);  // least significant octet first
  char text[64];
  std::snprintf(text, sizeof text, "\t%02X%02X%02X%02X%02X%02X\t%d", b[5], b[4], b[3], b[2], b[1], b[0],
                static_cast<int>(ap.rssi));
  return text;
}

std::string Tier2Collection::filenameForTime(uint64_t seconds) {
  std::string digits;
  do {
    digits.push_back(kBase36Digits[seconds % 36]);
    seconds /= 36;
  } while (seconds != 0);
  std::reverse(digits.begin(), digits.end());
  return "T" + digits;
}

std::string Tier2Collection::generate_filename() {
  const SPI::Time now = SPI::Time::now();
  return filenameForTime(now.seconds < 0 ? 0 : static_cast<uint64_t>(now.seconds));
}

void Tier2Collection::put(double latitude, double longitude, const SPI::AccessPointList& /*scan*/,
                          const SPI::AccessPointList& known, const SPI::AccessPointList& unknown) {
  if (unknown.empty()) return;
  std::string head = SPI::Time::strftime("%Y/%m/%d %I:%M:%S %p\t", SPI::Time::now());
  head += user_;
  head += '\t';
  char position[96];
  std::snprintf(position, sizeof position, "%.6f\t%.6f", latitude, longitude);
  head += position;
  std::string knownRecords;
  for (const auto& ap : known) knownRecords += format_ap_record(ap);
  for (size_t i = 0; i < unknown.size(); ++i) {
    std::string line = head + format_ap_record(unknown[i]) + knownRecords;
    for (size_t j = 0; j < unknown.size(); ++j) {
      if (j != i) line += format_ap_record(unknown[j]);
    }
    line += '\n';
    if (write(line) != 0) return;
  }
}

// ---------------------------------------------------------------------------
// Tier2CollectionCompressed

Tier2CollectionCompressed::Tier2CollectionCompressed(const SimpleAuthentication& authentication,
                                                     const std::string& directory, uint64_t quotaBytes)
    : Tier2Collection(authentication, directory),
      file_(CompressedFile::newInstance()),
      closeSize_(std::max(kMinCloseSize, std::min<long>(kCloseSize, static_cast<long>(quotaBytes / 8)))),
      // The file being written may grow to about closeSize_ before it is
      // queued, so the closed files keep that much of the quota free.
      queue_(directory, quotaBytes > static_cast<uint64_t>(closeSize_) ? quotaBytes - closeSize_ : 0) {}

Tier2CollectionCompressed::~Tier2CollectionCompressed() { flush(); }

int Tier2CollectionCompressed::write(const std::string& line) {
  if (!file_->isOpen()) {
    fileName_ = generate_filename();
    if (file_->open(directory_ + "/" + fileName_) != 0) {
      logger_.error("cannot open collection file %s/%s", directory_.c_str(), fileName_.c_str());
      return -1;
    }
  }
  if (file_->write(line.data(), line.size()) != 0) {
    logger_.error("cannot write to collection file %s/%s", directory_.c_str(), fileName_.c_str());
    flush();
    return -1;
  }
  if (file_->tell() >= closeSize_) flush();
  return 0;
}

void Tier2CollectionCompressed::flush() {
  if (!file_->isOpen()) return;
  if (file_->close() != 0) logger_.error("cannot close collection file %s/%s", directory_.c_str(), fileName_.c_str());
  queue_.push(fileName_);
}

}  // namespace API
}  // namespace WPS
