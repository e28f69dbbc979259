#include "timezone/boundary_index.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "platform/file_system.h"
#include "timezone/boundary_format.h"

namespace zonara::timezone {

namespace fmt = format;

namespace {

constexpr double kMetresPerDegree = 6371008.8 * M_PI / 180;
constexpr double kMetresPerUnit = kMetresPerDegree / fmt::kUnitsPerDegree;
constexpr double kMaxBorderDistance = 100000;
constexpr double kMaxRadius = 1000000;
constexpr int64_t kFullTurn = 360'000'000;

// The ocean zone names of the 15-degree bands, UTC-12 .. UTC+12 (POSIX signs).
const std::array<std::string, 25>& oceanNames() {
  static const std::array<std::string, 25> names = [] {
    std::array<std::string, 25> n;
    for (int offset = -12; offset <= 12; ++offset) {
      n[size_t(offset + 12)] = offset == 0 ? "Etc/GMT" : offset > 0 ? "Etc/GMT-" + std::to_string(offset) : "Etc/GMT+" + std::to_string(-offset);
    }
    return n;
  }();
  return names;
}

// The band of a longitude in [-180, 180]: UTC offset in hours.
int oceanBand(double lon) { return std::clamp(int(std::floor((lon + 7.5) / 15)), -12, 12); }

struct Span {
  const uint8_t* data = nullptr;
  size_t size = 0;
};

// A rectangle in micro-degrees.
struct Box {
  double x0, x1, y0, y1;
};

// Zone ids at a point; ocean when empty.
struct ZoneIds {
  std::array<uint16_t, fmt::kMaxFeaturesPerCell> ids;
  size_t count = 0;
  void add(uint16_t id) {
    for (size_t i = 0; i < count; ++i) {
      if (ids[i] == id) return;
    }
    if (count < ids.size()) ids[count++] = id;
  }
};

}  // namespace

// The mapped file, its validated sections and decoded names.
class MappedBoundaryFile {
 public:
  std::unique_ptr<MappedFile> mapping;
  Span section[fmt::kSectionCount];
  uint32_t gridBits = 0;
  std::vector<std::string> names;
  std::string release;

  // A view of a mixed cell's record, valid once open() has checked it.
  struct Cell {
    Box box;  // micro-degrees
    uint32_t n;
    uint32_t featureCount;
    const uint8_t* zones;    // featureCount u16
    const uint8_t* entries;  // n * n u32
    uint16_t zone(uint32_t f) const { return fmt::load<uint16_t>(zones + 2 * f); }
    uint32_t entry(uint32_t i, uint32_t j) const { return fmt::load<uint32_t>(entries + 4 * (size_t(j) * n + i)); }
    Box subBox(uint32_t i, uint32_t j) const {
      double w = (box.x1 - box.x0) / n, h = (box.y1 - box.y0) / n;
      return {box.x0 + i * w, box.x0 + (i + 1) * w, box.y0 + j * h, box.y0 + (j + 1) * h};
    }
  };

  std::vector<bool> listStarts;  // zone list offsets that begin a list
  bool isListStart(uint32_t offset) const { return offset < listStarts.size() && listStarts[offset]; }

  // Is a sub-entry or grid entry usable: a zone, a list start, or (mixed) inside `mixedLimit`?
  bool validEntry(uint32_t e, size_t mixedLimit) const {
    switch (fmt::entryTag(e)) {
      case fmt::kOcean: return fmt::entryValue(e) == 0;
      case fmt::kZone: return fmt::entryValue(e) < names.size();
      case fmt::kList: return isListStart(fmt::entryValue(e));
      default: return fmt::entryValue(e) < mixedLimit;
    }
  }

  // Checks a mixed cell's record before use (the cell records are not checksummed at open).
  bool validCell(uint32_t offset) const {
    Span c = section[fmt::kCells];
    if (offset % 8 || offset > c.size || c.size - offset < fmt::kCellFixed) return false;
    const uint8_t* p = c.data + offset;
    uint32_t n = fmt::load<uint16_t>(p + 32), rows = fmt::load<uint16_t>(p + 34), features = fmt::load<uint16_t>(p + 36);
    if (n == 0 || n != rows || n > fmt::kMaxSubGrid || features == 0 || features > fmt::kMaxFeaturesPerCell) return false;
    double lat0 = fmt::load<double>(p), lat1 = fmt::load<double>(p + 8), lon0 = fmt::load<double>(p + 16), lon1 = fmt::load<double>(p + 24);
    if (!(lat0 >= -90 && lat0 < lat1 && lat1 <= 90 && lon0 >= -180 && lon0 < lon1 && lon1 <= 180)) return false;
    if (fmt::kCellFixed + ((2 * features + 3) & ~size_t(3)) + 4 * size_t(n) * n > c.size - offset) return false;
    Cell cell = this->cell(offset);
    for (uint32_t k = 0; k < features; ++k) {
      if (cell.zone(k) >= names.size()) return false;
    }
    return true;
  }

  uint32_t gridEntry(uint32_t row, uint32_t col) const {
    return fmt::load<uint32_t>(section[fmt::kGrid].data + 4 * ((size_t(row) << gridBits) + col));
  }
  Cell cell(uint32_t offset) const {
    const uint8_t* p = section[fmt::kCells].data + offset;
    Cell c;
    c.box = {fmt::load<double>(p + 16) * fmt::kUnitsPerDegree, fmt::load<double>(p + 24) * fmt::kUnitsPerDegree,
             fmt::load<double>(p) * fmt::kUnitsPerDegree, fmt::load<double>(p + 8) * fmt::kUnitsPerDegree};
    c.n = fmt::load<uint16_t>(p + 32);
    c.featureCount = fmt::load<uint16_t>(p + 36);
    c.zones = p + fmt::kCellFixed;
    c.entries = c.zones + ((2 * c.featureCount + 3) & ~size_t(3));
    return c;
  }
  // Adds the zones of a uniform entry (zone or list).
  void addUniform(uint32_t e, ZoneIds& out) const {
    if (fmt::entryTag(e) == fmt::kZone) {
      out.add(uint16_t(fmt::entryValue(e)));
    } else if (fmt::entryTag(e) == fmt::kList) {
      const uint8_t* list = section[fmt::kLists].data + 2 * size_t(fmt::entryValue(e));
      uint16_t count = fmt::load<uint16_t>(list);
      for (uint16_t i = 0; i < count; ++i) out.add(fmt::load<uint16_t>(list + 2 + 2 * i));
    }
  }
};

namespace {

// ---- validation at open ----

class Validator {
 public:
  Validator(MappedBoundaryFile& f, std::string* error) : f_(f), error_(error) {}

  bool run() {
    return header() && meta() && lists() && grid();
  }

 private:
  bool fail(const std::string& what) {
    if (error_) *error_ = "corrupt time-zone boundary file: " + what;
    return false;
  }

  bool header() {
    const uint8_t* d = f_.mapping->data();
    size_t size = f_.mapping->size();
    if (std::memcmp(d, fmt::kMagic, sizeof fmt::kMagic) != 0) {
      if (error_) *error_ = "not a time-zone boundary file (wrong magic)";
      return false;
    }
    uint32_t version = fmt::load<uint32_t>(d + 8);
    if (version != fmt::kVersion) {
      if (error_) *error_ = "time-zone boundary file of version " + std::to_string(version) + ", this program reads version " + std::to_string(fmt::kVersion);
      return false;
    }
    if (fmt::load<uint32_t>(d + 12) != fmt::kHeaderSize) return fail("unexpected header size");
    size_t crcAt = fmt::kHeaderSize - 8;
    if (fmt::load<uint32_t>(d + crcAt) != uint32_t(crc32(0, d, uInt(crcAt)))) return fail("header checksum mismatch");
    if (fmt::load<uint64_t>(d + 16) != size) return fail("file is " + std::to_string(size) + " bytes, header says " + std::to_string(fmt::load<uint64_t>(d + 16)) + " (truncated?)");
    for (uint32_t i = 0; i < fmt::kSectionCount; ++i) {
      const uint8_t* rec = d + 24 + i * fmt::kSectionRecord;
      uint64_t offset = fmt::load<uint64_t>(rec), length = fmt::load<uint64_t>(rec + 8);
      if (offset < fmt::kHeaderSize || offset > size || length > size - offset || offset % fmt::kSectionAlignment) return fail("section " + std::to_string(i) + " outside the file");
      f_.section[i] = {d + offset, size_t(length)};
      // The cell records and edge chains are large and read only where asked: each cell is
      // checked when first looked at (validCell), every read of the chains is bounds-checked.
      if (i != fmt::kChains && i != fmt::kCells && fmt::load<uint32_t>(rec + 16) != uint32_t(crc32(0, d + offset, uInt(length)))) return fail("section " + std::to_string(i) + " checksum mismatch");
    }
    return true;
  }

  bool meta() {
    Span m = f_.section[fmt::kMeta];
    if (m.size < 12) return fail("metadata cut short");
    f_.gridBits = fmt::load<uint32_t>(m.data);
    uint32_t zoneCount = fmt::load<uint32_t>(m.data + 4), releaseLen = fmt::load<uint32_t>(m.data + 8);
    if (f_.gridBits < 1 || f_.gridBits > fmt::kMaxGridBits) return fail("grid size out of range");
    if (zoneCount == 0 || zoneCount > 0xffff) return fail("zone count out of range");
    size_t at = 12;
    if (releaseLen > m.size - at) return fail("release label cut short");
    f_.release.assign(reinterpret_cast<const char*>(m.data + at), releaseLen);
    at += releaseLen;
    for (uint32_t z = 0; z < zoneCount; ++z) {
      if (m.size - at < 2) return fail("zone names cut short");
      uint16_t len = fmt::load<uint16_t>(m.data + at);
      at += 2;
      if (len == 0 || len > m.size - at) return fail("zone names cut short");
      f_.names.emplace_back(reinterpret_cast<const char*>(m.data + at), len);
      at += len;
    }
    return true;
  }

  bool lists() {
    Span l = f_.section[fmt::kLists];
    if (l.size % 2) return fail("zone lists of odd length");
    for (size_t at = 0; at < l.size / 2;) {
      uint16_t count = fmt::load<uint16_t>(l.data + 2 * at);
      if (count == 0 || count > fmt::kMaxFeaturesPerCell || count > l.size / 2 - at - 1) return fail("zone list cut short");
      for (uint16_t i = 0; i < count; ++i) {
        if (fmt::load<uint16_t>(l.data + 2 * (at + 1 + i)) >= f_.names.size()) return fail("zone list names an unknown zone");
      }
      f_.listStarts.resize(at + 1);
      f_.listStarts[at] = true;
      at += 1 + count;
    }
    return true;
  }

  bool uniformEntry(uint32_t e) {
    switch (fmt::entryTag(e)) {
      case fmt::kOcean: return fmt::entryValue(e) == 0 || fail("ocean entry with a value");
      case fmt::kZone: return fmt::entryValue(e) < f_.names.size() || fail("entry names an unknown zone");
      case fmt::kList: return f_.isListStart(fmt::entryValue(e)) || fail("entry points into the middle of a zone list");
      default: return f_.section[fmt::kCells].size > fmt::entryValue(e) || fail("grid entry beyond the cell records");
    }
  }

  bool grid() {
    size_t cells = size_t(1) << (2 * f_.gridBits);
    if (f_.section[fmt::kGrid].size != 4 * cells) return fail("grid size does not match");
    for (size_t i = 0; i < cells; ++i) {
      if (!uniformEntry(fmt::load<uint32_t>(f_.section[fmt::kGrid].data + 4 * i))) return false;
    }
    return true;
  }

  MappedBoundaryFile& f_;
  std::string* error_;
};

// ---- reading a sub-cell's edge chains ----

// A zigzag-encoded coordinate step larger than a full turn: only a corrupt file has one.
constexpr uint64_t kMaxDelta = uint64_t(2) * 360'000'000 + 1;

// Walks the chains of one sub-cell; every read is bounds-checked.
class ChainReader {
 public:
  ChainReader(const MappedBoundaryFile& f, const MappedBoundaryFile::Cell& cell, uint32_t i, uint32_t j, uint32_t offset)
      : p_(f.section[fmt::kChains].data + offset), end_(f.section[fmt::kChains].data + f.section[fmt::kChains].size), cell_(cell) {
    auto [cx, cy] = fmt::subCellCenter(cell.box.x0, cell.box.x1, cell.box.y0, cell.box.y1, cell.n, i, j);
    uint64_t dx = 0, dy = 0, mask = 0, chains = 0;
    ok_ = fmt::getVarint(&p_, end_, &dx) && fmt::getVarint(&p_, end_, &dy) && fmt::getVarint(&p_, end_, &mask) &&
          fmt::getVarint(&p_, end_, &chains) && mask < (uint64_t(1) << cell.featureCount) && dx <= kMaxDelta && dy <= kMaxDelta;
    // A step beyond the limit would overflow the sum below: nothing more is read.
    if (!ok_) return;
    refX_ = cx + fmt::unzigzag(dx);
    refY_ = cy + fmt::unzigzag(dy);
    refMask_ = uint32_t(mask);
    chainsLeft_ = chains;
  }

  bool ok() const { return ok_; }
  double refX() const { return double(refX_); }
  double refY() const { return double(refY_); }
  uint32_t refMask() const { return refMask_; }

  // Calls edge(feature, flags, ax, ay, bx, by) for every edge; false when the data is corrupt.
  template <typename EdgeFn>
  bool forEachEdge(EdgeFn&& edge) {
    if (!ok_) return false;
    for (; chainsLeft_ > 0; --chainsLeft_) {
      uint64_t header, count;
      if (!fmt::getVarint(&p_, end_, &header) || !fmt::getVarint(&p_, end_, &count)) return false;
      uint32_t feature = uint32_t(header >> fmt::kChainFlagBits), flags = uint32_t(header & ((1u << fmt::kChainFlagBits) - 1));
      if (feature >= cell_.featureCount || count < 2 || count > uint64_t(end_ - p_)) return false;
      int64_t x = refX_, y = refY_;
      double px = 0, py = 0;
      for (uint64_t v = 0; v < count; ++v) {
        uint64_t dx, dy;
        if (!fmt::getVarint(&p_, end_, &dx) || !fmt::getVarint(&p_, end_, &dy) || dx > kMaxDelta || dy > kMaxDelta) return false;
        x += fmt::unzigzag(dx);
        y += fmt::unzigzag(dy);
        if (v > 0) edge(feature, flags, px, py, double(x), double(y));
        px = double(x);
        py = double(y);
      }
    }
    return true;
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
  const MappedBoundaryFile::Cell& cell_;
  bool ok_ = false;
  int64_t refX_ = 0, refY_ = 0;
  uint32_t refMask_ = 0;
  uint64_t chainsLeft_ = 0;
};

bool validPoint(double lat, double lon, std::string* error) {
  if (std::isfinite(lat) && std::isfinite(lon) && lat >= -90 && lat <= 90 && lon >= -180 && lon <= 180) return true;
  if (error) *error = "coordinates out of range (latitude must be within [-90, 90], longitude within [-180, 180]): " + std::to_string(lat) + " " + std::to_string(lon);
  return false;
}

void setError(std::string* error, const char* message) {
  if (error) *error = message;
}

constexpr const char* kCorruptChains = "corrupt time-zone boundary file: cell or edge data unreadable";

// Local flat metric around the query point: micro-degrees to metres.
struct Metric {
  double px, py, kx, ky;
  Metric(double lat, double lon)
      : px(lon * fmt::kUnitsPerDegree), py(lat * fmt::kUnitsPerDegree),
        kx(kMetresPerUnit * std::max(std::cos(lat * M_PI / 180), 1e-6)), ky(kMetresPerUnit) {}
  double dx(double x) const {
    double d = x - px;
    if (d > kFullTurn / 2) d -= kFullTurn;
    if (d < -kFullTurn / 2) d += kFullTurn;
    return d * kx;
  }
  double dy(double y) const { return (y - py) * ky; }
  double toBox(const Box& b) const {
    double ddy = py < b.y0 ? b.y0 - py : py > b.y1 ? py - b.y1 : 0;
    double ddx = 0;
    if (px < b.x0 || px > b.x1) ddx = std::min(std::abs(dx(b.x0)), std::abs(dx(b.x1))) / kx;
    return std::sqrt(ddx * kx * ddx * kx + ddy * ky * ddy * ky);
  }
  // Distance to a segment, with its nearest point's longitude (micro-degrees, relative to px) in *nearX.
  double toSegment(double ax, double ay, double bx, double by, double* nearX = nullptr) const {
    double x1 = dx(ax), y1 = dy(ay), x2 = dx(bx), y2 = dy(by);
    double vx = x2 - x1, vy = y2 - y1, len2 = vx * vx + vy * vy;
    double t = len2 > 0 ? std::clamp(-(x1 * vx + y1 * vy) / len2, 0.0, 1.0) : 0;
    double nx = x1 + t * vx, ny = y1 + t * vy;
    if (nearX) *nearX = nx / kx;
    return std::sqrt(nx * nx + ny * ny);
  }
};

}  // namespace

// ---- the look-up ----

namespace {

// Zone ids at a point inside the grid bounds; false when the edge data is corrupt.
bool zoneIdsAt(const MappedBoundaryFile& f, double lat, double lon, ZoneIds& out) {
  lat = std::clamp(lat, fmt::kLatMin, fmt::kLatMax);
  lon = std::clamp(lon, fmt::kLonMin, fmt::kLonMax);
  fmt::GridCell g = fmt::gridCellOf(lat, lon, f.gridBits);
  uint32_t e = f.gridEntry(g.row, g.col);
  if (fmt::entryTag(e) != fmt::kMixed) {
    f.addUniform(e, out);
    return true;
  }
  if (!f.validCell(fmt::entryValue(e))) return false;
  MappedBoundaryFile::Cell cell = f.cell(fmt::entryValue(e));
  double x = lon * fmt::kUnitsPerDegree, y = lat * fmt::kUnitsPerDegree;
  uint32_t i = fmt::subIndex(x, cell.box.x0, cell.box.x1, cell.n), j = fmt::subIndex(y, cell.box.y0, cell.box.y1, cell.n);
  uint32_t sub = cell.entry(i, j);
  if (!f.validEntry(sub, f.section[fmt::kChains].size)) return false;
  if (fmt::entryTag(sub) != fmt::kMixed) {
    f.addUniform(sub, out);
    return true;
  }
  ChainReader chains(f, cell, i, j, fmt::entryValue(sub));
  uint32_t mask = chains.refMask();
  double rx = chains.refX(), ry = chains.refY();
  bool ok = chains.forEachEdge([&](uint32_t feature, uint32_t, double ax, double ay, double bx, double by) {
    if (fmt::crossesPath(ax, ay, bx, by, x, y, rx, ry)) mask ^= 1u << feature;
  });
  for (uint32_t k = 0; k < cell.featureCount; ++k) {
    if (mask & (1u << k)) out.add(cell.zone(k));
  }
  return ok;
}

void addOceanZones(double lon, std::vector<std::string>& out) {
  const auto& names = oceanNames();
  if (std::abs(lon) == 180) {
    out.push_back(names[lon > 0 ? 24 : 0]);
    out.push_back(names[lon > 0 ? 0 : 24]);
  } else {
    out.push_back(names[size_t(oceanBand(lon) + 12)]);
  }
}

}  // namespace

BoundaryIndex::BoundaryIndex(std::unique_ptr<MappedBoundaryFile> file) : file_(std::move(file)) {}
BoundaryIndex::~BoundaryIndex() = default;

std::unique_ptr<BoundaryIndex> BoundaryIndex::open(const std::string& path, std::string* error) {
  auto file = std::make_unique<MappedBoundaryFile>();
  file->mapping = MappedFile::open(path, error);
  if (!file->mapping) return nullptr;
  if (file->mapping->size() < fmt::kHeaderSize) {
    if (error) {
      *error = path + ": too short for a time-zone boundary file (" + std::to_string(file->mapping->size()) + " bytes)";
    }
    return nullptr;
  }
  std::string why;
  if (!Validator(*file, &why).run()) {
    if (error) *error = path + ": " + why;
    return nullptr;
  }
  return std::unique_ptr<BoundaryIndex>(new BoundaryIndex(std::move(file)));
}

std::optional<std::vector<std::string>> BoundaryIndex::zonesAt(double lat, double lon, std::string* error) const {
  if (!validPoint(lat, lon, error)) return std::nullopt;
  ZoneIds ids;
  if (!zoneIdsAt(*file_, lat, lon, ids)) {
    setError(error, kCorruptChains);
    return std::nullopt;
  }
  std::vector<std::string> zones;
  if (ids.count == 0) {
    addOceanZones(lon, zones);
  } else {
    zones.reserve(ids.count);
    for (size_t k = 0; k < ids.count; ++k) zones.push_back(file_->names[ids.ids[k]]);
  }
  return zones;
}

// ---- the neighbourhood of a point ----

namespace {

// Visits, nearest first, every mixed cell and uniform grid entry within `radius` metres.
class Neighbourhood {
 public:
  Neighbourhood(const MappedBoundaryFile& f, const Metric& m, double radius) : f_(f), m_(m) { collect(radius); }

  struct Candidate {
    double distance;
    uint32_t entry;
    Box box;
  };
  const std::vector<Candidate>& candidates() const { return candidates_; }
  bool corrupt() const { return corrupt_; }

 private:
  Box gridBox(uint32_t row, uint32_t col) const {
    double lat0 = fmt::kLatMin, lat1 = fmt::kLatMax, lon0 = fmt::kLonMin, lon1 = fmt::kLonMax;
    for (int level = int(f_.gridBits) - 1; level >= 0; --level) {
      double latMid = (lat0 + lat1) / 2, lonMid = (lon0 + lon1) / 2;
      ((row >> level) & 1 ? lat0 : lat1) = latMid;
      ((col >> level) & 1 ? lon0 : lon1) = lonMid;
    }
    return {lon0 * fmt::kUnitsPerDegree, lon1 * fmt::kUnitsPerDegree, lat0 * fmt::kUnitsPerDegree, lat1 * fmt::kUnitsPerDegree};
  }

  void collect(double radius) {
    uint32_t cols = 1u << f_.gridBits;
    double latSpan = radius / m_.ky / fmt::kUnitsPerDegree, lonSpan = radius / m_.kx / fmt::kUnitsPerDegree;
    double lat = m_.py / fmt::kUnitsPerDegree, lon = m_.px / fmt::kUnitsPerDegree;
    uint32_t rowLo = fmt::gridCellOf(std::max(lat - latSpan, fmt::kLatMin), 0, f_.gridBits).row;
    uint32_t rowHi = fmt::gridCellOf(std::min(lat + latSpan, fmt::kLatMax), 0, f_.gridBits).row;
    uint32_t colLo = 0, colCount = cols;
    if (lonSpan < 179) {
      double west = lon - lonSpan, east = lon + lonSpan;
      if (west < -180) west += 360;
      if (east > 180) east -= 360;
      colLo = fmt::gridCellOf(0, std::clamp(west, fmt::kLonMin, fmt::kLonMax), f_.gridBits).col;
      uint32_t colHi = fmt::gridCellOf(0, std::clamp(east, fmt::kLonMin, fmt::kLonMax), f_.gridBits).col;
      colCount = std::min(cols, (colHi + cols - colLo) % cols + 1);
    }
    for (uint32_t row = rowLo; row <= rowHi; ++row) {
      for (uint32_t k = 0; k < colCount; ++k) {
        uint32_t col = (colLo + k) % cols;
        uint32_t e = f_.gridEntry(row, col);
        bool mixed = fmt::entryTag(e) == fmt::kMixed;
        if (mixed && std::any_of(candidates_.begin(), candidates_.end(), [&](const Candidate& c) { return c.entry == e; })) continue;
        if (mixed && !f_.validCell(fmt::entryValue(e))) {
          corrupt_ = true;
          continue;
        }
        Box box = mixed ? f_.cell(fmt::entryValue(e)).box : gridBox(row, col);
        double d = m_.toBox(box);
        if (d <= radius) candidates_.push_back({d, e, box});
      }
    }
    std::sort(candidates_.begin(), candidates_.end(), [](const Candidate& a, const Candidate& b) { return a.distance < b.distance; });
  }

  const MappedBoundaryFile& f_;
  const Metric& m_;
  std::vector<Candidate> candidates_;
  bool corrupt_ = false;
};

struct SubCell {
  double distance;
  uint32_t i, j, entry;
};

// The sub-cells of a mixed cell within `radius`, nearest first (only those with
// edges when `edgesOnly`); nullopt when an entry is corrupt.
std::optional<std::vector<SubCell>> subCellsWithin(const MappedBoundaryFile& f, const MappedBoundaryFile::Cell& cell, const Metric& m,
                                                   double radius, bool edgesOnly) {
  // Only the sub-cells whose rows and columns can lie within the radius.
  double spanX = radius / m.kx, spanY = radius / m.ky;
  uint32_t i0 = 0, i1 = cell.n - 1;
  double px = m.px;
  if (px < cell.box.x0 - kFullTurn / 2) px += kFullTurn;  // the cell lies across the date line from the point
  if (px > cell.box.x1 + kFullTurn / 2) px -= kFullTurn;
  if (spanX < kFullTurn / 4) {
    i0 = fmt::subIndex(px - spanX, cell.box.x0, cell.box.x1, cell.n);
    i1 = fmt::subIndex(px + spanX, cell.box.x0, cell.box.x1, cell.n);
  }
  uint32_t j0 = fmt::subIndex(m.py - spanY, cell.box.y0, cell.box.y1, cell.n);
  uint32_t j1 = fmt::subIndex(m.py + spanY, cell.box.y0, cell.box.y1, cell.n);
  std::vector<SubCell> out;
  for (uint32_t j = j0; j <= j1; ++j) {
    for (uint32_t i = i0; i <= i1; ++i) {
      uint32_t e = cell.entry(i, j);
      if (edgesOnly && fmt::entryTag(e) != fmt::kMixed) continue;
      double d = m.toBox(cell.subBox(i, j));
      if (d > radius) continue;
      if (!f.validEntry(e, f.section[fmt::kChains].size)) return std::nullopt;
      out.push_back({d, i, j, e});
    }
  }
  std::sort(out.begin(), out.end(), [](const SubCell& a, const SubCell& b) { return a.distance < b.distance; });
  return out;
}

// Distance from the point to the nearest meridian between two ocean bands.
double oceanBandBorderDistance(const Metric& m) {
  double lon = m.px / fmt::kUnitsPerDegree;
  double nearest = std::abs(180 - std::abs(lon));
  double k = std::round((lon - 7.5) / 15);
  nearest = std::min(nearest, std::abs(lon - (7.5 + 15 * k)));
  return nearest * fmt::kUnitsPerDegree * m.kx;
}

}  // namespace

std::optional<double> BoundaryIndex::borderDistance(double lat, double lon, std::string* error) const {
  if (!validPoint(lat, lon, error)) return std::nullopt;
  ZoneIds here;
  if (!zoneIdsAt(*file_, lat, lon, here)) {
    setError(error, kCorruptChains);
    return std::nullopt;
  }
  Metric m(lat, lon);
  double best = kMaxBorderDistance;
  if (here.count == 0) best = std::min(best, oceanBandBorderDistance(m));
  Neighbourhood near(*file_, m, best);
  if (near.corrupt()) {
    setError(error, kCorruptChains);
    return std::nullopt;
  }
  for (const auto& c : near.candidates()) {
    if (c.distance >= best) break;
    if (fmt::entryTag(c.entry) != fmt::kMixed) continue;
    MappedBoundaryFile::Cell cell = file_->cell(fmt::entryValue(c.entry));
    auto subCells = subCellsWithin(*file_, cell, m, best, true);
    if (!subCells) {
      setError(error, kCorruptChains);
      return std::nullopt;
    }
    for (const SubCell& s : *subCells) {
      if (s.distance >= best) break;
      if (fmt::entryTag(s.entry) != fmt::kMixed) continue;
      ChainReader chains(*file_, cell, s.i, s.j, fmt::entryValue(s.entry));
      bool ok = chains.forEachEdge([&](uint32_t, uint32_t flags, double ax, double ay, double bx, double by) {
        if (!(flags & fmt::kChainClip)) best = std::min(best, m.toSegment(ax, ay, bx, by));
      });
      if (!ok) {
        setError(error, kCorruptChains);
        return std::nullopt;
      }
    }
  }
  return best;
}

namespace {

// Zones found near a point, each with the distance at which it was found.
class NearbyZones {
 public:
  void add(uint32_t key, double distance) {
    for (auto& f : found_) {
      if (f.first == key) {
        f.second = std::min(f.second, distance);
        return;
      }
    }
    found_.push_back({key, distance});
  }
  // Ocean bands over the longitudes [x0, x1] (micro-degrees).
  void addOcean(double x0, double x1, double distance) {
    int b0 = oceanBand(std::clamp(x0 / fmt::kUnitsPerDegree, -180.0, 180.0));
    int b1 = oceanBand(std::clamp(x1 / fmt::kUnitsPerDegree, -180.0, 180.0));
    for (int b = b0; b <= b1; ++b) add(kOcean + uint32_t(b + 12), distance);
    if (x1 >= fmt::kLonMax * fmt::kUnitsPerDegree || x0 <= fmt::kLonMin * fmt::kUnitsPerDegree) {
      add(kOcean + 0, distance);
      add(kOcean + 24, distance);
    }
  }
  std::vector<std::pair<uint32_t, double>> sorted() const {
    auto out = found_;
    std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
    return out;
  }
  static constexpr uint32_t kOcean = 0x10000;

 private:
  std::vector<std::pair<uint32_t, double>> found_;
};

}  // namespace

std::optional<std::vector<std::string>> BoundaryIndex::zonesWithin(double lat, double lon, double radiusMetres, std::string* error) const {
  if (!validPoint(lat, lon, error)) return std::nullopt;
  if (!std::isfinite(radiusMetres) || radiusMetres < 0 || radiusMetres > kMaxRadius) {
    if (error) *error = "radius out of range (0 to " + std::to_string(int(kMaxRadius)) + " metres): " + std::to_string(radiusMetres);
    return std::nullopt;
  }
  std::optional<std::vector<std::string>> result = zonesAt(lat, lon, error);
  if (!result) return std::nullopt;
  Metric m(lat, lon);
  double span = radiusMetres / m.kx;
  NearbyZones found;
  Neighbourhood near(*file_, m, radiusMetres);
  if (near.corrupt()) {
    setError(error, kCorruptChains);
    return std::nullopt;
  }
  for (const auto& c : near.candidates()) {
    if (fmt::entryTag(c.entry) == fmt::kOcean) {
      found.addOcean(std::max(c.box.x0, m.px - span), std::min(c.box.x1, m.px + span), c.distance);
      continue;
    }
    if (fmt::entryTag(c.entry) != fmt::kMixed) {
      ZoneIds ids;
      file_->addUniform(c.entry, ids);
      for (size_t k = 0; k < ids.count; ++k) found.add(ids.ids[k], c.distance);
      continue;
    }
    MappedBoundaryFile::Cell cell = file_->cell(fmt::entryValue(c.entry));
    auto subCells = subCellsWithin(*file_, cell, m, radiusMetres, false);
    if (!subCells) {
      setError(error, kCorruptChains);
      return std::nullopt;
    }
    for (const SubCell& s : *subCells) {
      if (fmt::entryTag(s.entry) != fmt::kMixed) {
        Box b = cell.subBox(s.i, s.j);
        if (fmt::entryTag(s.entry) == fmt::kOcean) found.addOcean(std::max(b.x0, m.px - span), std::min(b.x1, m.px + span), s.distance);
        ZoneIds ids;
        file_->addUniform(s.entry, ids);
        for (size_t k = 0; k < ids.count; ++k) found.add(ids.ids[k], s.distance);
        continue;
      }
      ChainReader chains(*file_, cell, s.i, s.j, fmt::entryValue(s.entry));
      bool ok = chains.forEachEdge([&](uint32_t feature, uint32_t flags, double ax, double ay, double bx, double by) {
        double nearX;
        double d = m.toSegment(ax, ay, bx, by, &nearX);
        if (d > radiusMetres) return;
        found.add(cell.zone(feature), d);
        if (flags & fmt::kChainCoast) found.addOcean(m.px + nearX, m.px + nearX, d);
      });
      if (!ok) {
        setError(error, kCorruptChains);
        return std::nullopt;
      }
    }
  }
  const auto& ocean = oceanNames();
  for (const auto& [key, distance] : found.sorted()) {
    const std::string& name = key >= NearbyZones::kOcean ? ocean[key - NearbyZones::kOcean] : file_->names[key];
    if (std::find(result->begin(), result->end(), name) == result->end()) result->push_back(name);
  }
  return result;
}

const std::string& BoundaryIndex::release() const { return file_->release; }
size_t BoundaryIndex::zoneCount() const { return file_->names.size(); }

}  // namespace zonara::timezone
