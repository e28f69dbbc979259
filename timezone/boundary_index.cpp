#include "timezone/boundary_index.h"

namespace zonara::timezone {

class MappedBoundaryFile {
 public:
  std::string release;
};

BoundaryIndex::BoundaryIndex(std::unique_ptr<MappedBoundaryFile> file) : file_(std::move(file)) {}
BoundaryIndex::~BoundaryIndex() = default;

std::unique_ptr<BoundaryIndex> BoundaryIndex::open(const std::string& path, std::string* error) {
  if (error) *error = path + ": boundary data reader not built yet";
  return nullptr;
}

std::optional<std::vector<std::string>> BoundaryIndex::zonesAt(double, double, std::string* error) const {
  if (error) *error = "boundary data reader not built yet";
  return std::nullopt;
}

std::optional<double> BoundaryIndex::borderDistance(double, double, std::string* error) const {
  if (error) *error = "boundary data reader not built yet";
  return std::nullopt;
}

std::optional<std::vector<std::string>> BoundaryIndex::zonesWithin(double, double, double, std::string* error) const {
  if (error) *error = "boundary data reader not built yet";
  return std::nullopt;
}

const std::string& BoundaryIndex::release() const { return file_->release; }
size_t BoundaryIndex::zoneCount() const { return 0; }

}  // namespace zonara::timezone
