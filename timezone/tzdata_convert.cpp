// protozero hands out std::string_view for length-delimited fields.
#define PROTOZERO_USE_VIEW std::string_view
#include "timezone/tzdata_convert.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <nlohmann/json.hpp>
#include <protozero/pbf_reader.hpp>
#include <sstream>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "platform/file_system.h"
#include "timezone/boundary_format.h"

namespace zonara::timezone {
namespace {

namespace fmt = format;

// Every failure of the conversion ends up here; convertBoundaryData turns it into `error`.
struct ConvertError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Pt {
  int64_t x, y;  // longitude, latitude in micro-degrees
};

struct Ring {
  uint32_t feature, start, count;
};

// The polygons of one quadtree leaf: every ring of every feature, points in one array.
struct CellGeometry {
  std::vector<uint16_t> featureZones;
  std::vector<Pt> pts;
  std::vector<Ring> rings;
  std::vector<uint32_t> ringOf;  // ring of each point
  uint32_t next(uint32_t k) const {
    const Ring& r = rings[ringOf[k]];
    return k + 1 == r.start + r.count ? r.start : k + 1;
  }
};

struct Leaf {
  uint32_t depth, row, col;
  double lat0, lat1, lon0, lon1;
  bool blob = false;
  std::vector<uint16_t> zones;
  uint64_t pos = 0, len = 0;
};

std::string readWholeFile(const std::string& path) {
  std::optional<std::string> bytes = readFile(path);
  if (!bytes) throw ConvertError(path + ": cannot open");
  return std::move(*bytes);
}

// ---- the quadtree index ----

class IndexWalker {
 public:
  IndexWalker(size_t zoneCount, uint64_t geoSize) : zoneCount_(zoneCount), geoSize_(geoSize) {}

  void walk(const nlohmann::json& node, Leaf where) {
    if (node.is_array()) return addList(node, where);
    if (!node.is_object()) throw ConvertError("index: a quadtree node is neither a list nor an object");
    if (node.contains("pos") || node.contains("len")) return addBlob(node, where);
    if (where.depth >= fmt::kMaxGridBits) throw ConvertError("index: quadtree deeper than " + std::to_string(fmt::kMaxGridBits) + " levels");
    for (auto& [key, child] : node.items()) {
      if (key.size() != 1 || key[0] < 'a' || key[0] > 'd') throw ConvertError("index: unknown quadtree key '" + key + "'");
      if (!child.is_null()) walk(child, childOf(where, key[0]));
    }
  }

  std::vector<Leaf> leaves;

 private:
  static Leaf childOf(const Leaf& p, char quadrant) {
    Leaf c = p;
    c.depth = p.depth + 1;
    double latMid = (p.lat0 + p.lat1) / 2, lonMid = (p.lon0 + p.lon1) / 2;
    bool north = quadrant == 'a' || quadrant == 'b';
    bool east = quadrant == 'a' || quadrant == 'd';
    c.row = p.row * 2 + (north ? 1 : 0);
    c.col = p.col * 2 + (east ? 1 : 0);
    (north ? c.lat0 : c.lat1) = latMid;
    (east ? c.lon0 : c.lon1) = lonMid;
    return c;
  }

  void addList(const nlohmann::json& node, Leaf where) {
    for (const auto& z : node) {
      if (!z.is_number_unsigned() || z.get<uint64_t>() >= zoneCount_) throw ConvertError("index: zone number out of range in a quadtree leaf");
      where.zones.push_back(uint16_t(z.get<uint64_t>()));
    }
    leaves.push_back(std::move(where));
  }

  void addBlob(const nlohmann::json& node, Leaf where) {
    auto pos = node.find("pos");
    auto len = node.find("len");
    if (pos == node.end() || len == node.end() || !pos->is_number_unsigned() || !len->is_number_unsigned()) {
      throw ConvertError("index: a cell's pos/len are not unsigned numbers");
    }
    where.blob = true;
    where.pos = pos->get<uint64_t>();
    where.len = len->get<uint64_t>();
    if (where.pos > geoSize_ || where.len > geoSize_ - where.pos) throw ConvertError("index: a cell lies beyond the end of the geobuf file");
    leaves.push_back(std::move(where));
  }

  size_t zoneCount_;
  uint64_t geoSize_;
};

// ---- geobuf ----

class GeobufDecoder {
 public:
  explicit GeobufDecoder(const std::unordered_map<std::string, uint16_t>& zoneIds) : zoneIds_(zoneIds) {}

  CellGeometry decode(std::string_view blob) {
    CellGeometry cell;
    std::vector<std::string> keys;
    uint32_t dims = 2, precision = 6;
    std::string_view collection;
    bool haveCollection = false;
    protozero::pbf_reader data(blob);
    while (data.next()) {
      switch (data.tag()) {
        case 1: keys.emplace_back(data.get_string()); break;
        case 2: dims = data.get_uint32(); break;
        case 3: precision = data.get_uint32(); break;
        case 4: collection = data.get_view(); haveCollection = true; break;
        default: data.skip();
      }
    }
    if (!haveCollection) throw ConvertError("geobuf: a cell holds no feature collection");
    if (dims < 2 || dims > 4 || precision > 9) throw ConvertError("geobuf: unsupported dimensions or precision");
    dims_ = dims;
    scale_ = std::pow(10.0, 6 - int(precision));
    protozero::pbf_reader fc(collection);
    while (fc.next(1)) addFeature(fc.get_view(), keys, cell);
    if (cell.featureZones.size() > fmt::kMaxFeaturesPerCell) throw ConvertError("geobuf: more than 32 features in one cell");
    return cell;
  }

 private:
  void addFeature(std::string_view bytes, const std::vector<std::string>& keys, CellGeometry& cell) {
    std::string_view geometry;
    std::vector<std::string> values;
    std::vector<uint32_t> props;
    protozero::pbf_reader f(bytes);
    while (f.next()) {
      switch (f.tag()) {
        case 1: geometry = f.get_view(); break;
        case 13: values.push_back(stringValue(f.get_view())); break;
        case 14: {
          auto r = f.get_packed_uint32();
          props.assign(r.begin(), r.end());
          break;
        }
        default: f.skip();
      }
    }
    std::string tzid;
    for (size_t i = 0; i + 1 < props.size(); i += 2) {
      if (props[i] < keys.size() && keys[props[i]] == "tzid" && props[i + 1] < values.size()) tzid = values[props[i + 1]];
    }
    auto zone = zoneIds_.find(tzid);
    if (zone == zoneIds_.end()) throw ConvertError("geobuf: feature with unknown tzid '" + tzid + "'");
    uint32_t feature = uint32_t(cell.featureZones.size());
    cell.featureZones.push_back(zone->second);
    addGeometry(geometry, feature, cell);
  }

  static std::string stringValue(std::string_view bytes) {
    protozero::pbf_reader v(bytes);
    while (v.next()) {
      if (v.tag() == 1) return std::string(v.get_view());
      v.skip();
    }
    return {};
  }

  void addGeometry(std::string_view bytes, uint32_t feature, CellGeometry& cell) {
    uint32_t type = 0;
    std::vector<uint32_t> lengths;
    std::vector<int64_t> coords;
    protozero::pbf_reader g(bytes);
    while (g.next()) {
      switch (g.tag()) {
        case 1: type = g.get_enum(); break;
        case 2: { auto r = g.get_packed_uint32(); lengths.assign(r.begin(), r.end()); break; }
        case 3: { auto r = g.get_packed_sint64(); coords.assign(r.begin(), r.end()); break; }
        default: g.skip();
      }
    }
    if (coords.size() % dims_ != 0) throw ConvertError("geobuf: coordinates not a multiple of the dimensions");
    std::vector<uint32_t> ringLengths = ringLengthsOf(type, lengths, coords.size() / dims_);
    size_t at = 0;
    for (uint32_t n : ringLengths) {
      if (n > (coords.size() - at) / dims_) throw ConvertError("geobuf: ring lengths exceed the coordinates");
      addRing(coords, at, n, feature, cell);
      at += size_t(n) * dims_;
    }
    if (at != coords.size()) throw ConvertError("geobuf: coordinates left over after the rings");
  }

  static std::vector<uint32_t> ringLengthsOf(uint32_t type, const std::vector<uint32_t>& lengths, size_t points) {
    if (type != 4 && type != 5) throw ConvertError("geobuf: geometry type " + std::to_string(type) + " is not a polygon");
    if (lengths.empty()) return {uint32_t(points)};
    if (type == 4) return lengths;
    std::vector<uint32_t> rings;
    size_t i = 1;
    for (uint32_t p = 0; p < lengths[0]; ++p) {
      if (i >= lengths.size()) throw ConvertError("geobuf: multipolygon lengths cut short");
      uint32_t ringCount = lengths[i++];
      for (uint32_t r = 0; r < ringCount; ++r) {
        if (i >= lengths.size()) throw ConvertError("geobuf: multipolygon lengths cut short");
        rings.push_back(lengths[i++]);
      }
    }
    return rings;
  }

  void addRing(const std::vector<int64_t>& coords, size_t at, uint32_t n, uint32_t feature, CellGeometry& cell) {
    uint32_t start = uint32_t(cell.pts.size());
    int64_t x = 0, y = 0;
    for (uint32_t i = 0; i < n; ++i) {
      x += coords[at + size_t(i) * dims_];
      y += coords[at + size_t(i) * dims_ + 1];
      Pt p{std::llround(double(x) * scale_), std::llround(double(y) * scale_)};
      if (std::abs(p.x) > 180'000'000 || std::abs(p.y) > 90'000'000) throw ConvertError("geobuf: coordinate outside the globe");
      if (cell.pts.size() > start && p.x == cell.pts.back().x && p.y == cell.pts.back().y) continue;
      cell.pts.push_back(p);
    }
    uint32_t count = uint32_t(cell.pts.size()) - start;
    if (count > 1 && cell.pts.back().x == cell.pts[start].x && cell.pts.back().y == cell.pts[start].y) {
      cell.pts.pop_back();
      --count;
    }
    if (count < 3) {  // no area: nothing to look up
      cell.pts.resize(start);
      return;
    }
    uint32_t ring = uint32_t(cell.rings.size());
    cell.rings.push_back({feature, start, count});
    cell.ringOf.resize(cell.pts.size(), ring);
  }

  const std::unordered_map<std::string, uint16_t>& zoneIds_;
  uint32_t dims_ = 2;
  double scale_ = 1;
};

// ---- the sections being written ----

struct Sections {
  std::string meta, grid, lists, cells, chains;
  std::map<std::vector<uint16_t>, uint32_t> listOffsets;

  // A uniform answer as an entry: ocean, one zone, or an interned list.
  uint32_t entryFor(const std::vector<uint16_t>& zones) {
    if (zones.empty()) return fmt::entry(fmt::kOcean, 0);
    if (zones.size() == 1) return fmt::entry(fmt::kZone, zones[0]);
    auto [it, added] = listOffsets.emplace(zones, uint32_t(lists.size() / 2));
    if (added) {
      fmt::append<uint16_t>(lists, uint16_t(zones.size()));
      for (uint16_t z : zones) fmt::append<uint16_t>(lists, z);
      if (lists.size() / 2 > fmt::kValueMask) throw ConvertError("zone lists too large");
    }
    return fmt::entry(fmt::kList, it->second);
  }
};

// ---- one mixed cell ----

struct Rect {
  double x0, y0, x1, y1;
};

bool segmentTouchesRect(const Pt& a, const Pt& b, const Rect& r) {
  if (std::max(a.x, b.x) < r.x0 || std::min(a.x, b.x) > r.x1 || std::max(a.y, b.y) < r.y0 || std::min(a.y, b.y) > r.y1) return false;
  // The bounding boxes overlap: the segment meets the rectangle unless all four corners lie strictly on one side of its line.
  double dx = double(b.x - a.x), dy = double(b.y - a.y);
  int pos = 0, neg = 0;
  for (double cx : {r.x0, r.x1}) {
    for (double cy : {r.y0, r.y1}) {
      double s = dx * (cy - double(a.y)) - dy * (cx - double(a.x));
      if (s > 0) ++pos; else if (s < 0) ++neg; else return true;
    }
  }
  return pos > 0 && neg > 0;
}

class MixedCellBuilder {
 public:
  MixedCellBuilder(const Leaf& leaf, const CellGeometry& cell, Sections& out)
      : leaf_(leaf), cell_(cell), out_(out) {
    x0_ = leaf.lon0 * fmt::kUnitsPerDegree;
    x1_ = leaf.lon1 * fmt::kUnitsPerDegree;
    y0_ = leaf.lat0 * fmt::kUnitsPerDegree;
    y1_ = leaf.lat1 * fmt::kUnitsPerDegree;
    size_t edges = cell.pts.size();
    n_ = 1;
    while (n_ < fmt::kMaxSubGrid && n_ * n_ * fmt::kEdgesPerSubCell < edges) n_ *= 2;
  }

  // Appends the cell record to CELLS (and its sub-cells to CHAINS); returns its offset.
  uint32_t build(size_t* subCellsWithEdges) {
    markClipEdges();
    assignEdgesToSubCells();
    chooseReferencePoints();
    markCoastEdges();
    return writeRecord(subCellsWithEdges);
  }

 private:
  Rect subRect(uint32_t i, uint32_t j, double margin) const {
    double w = (x1_ - x0_) / n_, h = (y1_ - y0_) / n_;
    return {x0_ + i * w - margin, y0_ + j * h - margin, x0_ + (i + 1) * w + margin, y0_ + (j + 1) * h + margin};
  }

  Pt center(uint32_t i, uint32_t j) const {
    auto [x, y] = fmt::subCellCenter(x0_, x1_, y0_, y1_, n_, i, j);
    return {x, y};
  }

  // Edges along the cell's border exist only because the polygons were clipped to the cell.
  void markClipEdges() {
    flags_.assign(cell_.pts.size(), 0);
    auto near = [](double v, double line) { return std::abs(v - line) <= 1.5; };
    for (uint32_t k = 0; k < cell_.pts.size(); ++k) {
      const Pt& a = cell_.pts[k];
      const Pt& b = cell_.pts[cell_.next(k)];
      for (double line : {x0_, x1_}) {
        if (near(double(a.x), line) && near(double(b.x), line)) flags_[k] = fmt::kChainClip;
      }
      for (double line : {y0_, y1_}) {
        if (near(double(a.y), line) && near(double(b.y), line)) flags_[k] = fmt::kChainClip;
      }
    }
  }

  void assignEdgesToSubCells() {
    sub_.assign(size_t(n_) * n_, {});
    const double margin = 2;
    for (uint32_t k = 0; k < cell_.pts.size(); ++k) {
      const Pt& a = cell_.pts[k];
      const Pt& b = cell_.pts[cell_.next(k)];
      uint32_t i0 = fmt::subIndex(double(std::min(a.x, b.x)) - margin, x0_, x1_, n_);
      uint32_t i1 = fmt::subIndex(double(std::max(a.x, b.x)) + margin, x0_, x1_, n_);
      uint32_t j0 = fmt::subIndex(double(std::min(a.y, b.y)) - margin, y0_, y1_, n_);
      uint32_t j1 = fmt::subIndex(double(std::max(a.y, b.y)) + margin, y0_, y1_, n_);
      for (uint32_t j = j0; j <= j1; ++j) {
        for (uint32_t i = i0; i <= i1; ++i) {
          if (segmentTouchesRect(a, b, subRect(i, j, margin))) sub_[size_t(j) * n_ + i].push_back(k);
        }
      }
    }
  }

  bool onAnyEdge(const Pt& r, const std::vector<uint32_t>& edges) const {
    for (uint32_t k : edges) {
      const Pt& a = cell_.pts[k];
      const Pt& b = cell_.pts[cell_.next(k)];
      if (r.x < std::min(a.x, b.x) || r.x > std::max(a.x, b.x) || r.y < std::min(a.y, b.y) || r.y > std::max(a.y, b.y)) continue;
      if ((b.x - a.x) * (r.y - a.y) - (b.y - a.y) * (r.x - a.x) == 0) return true;
    }
    return false;
  }

  // Features containing r, by even-odd ray casting over every ring of the cell.
  uint32_t maskByRayCasting(const Pt& r) const {
    uint32_t mask = 0;
    for (const Ring& ring : cell_.rings) {
      bool inside = false;
      for (uint32_t k = ring.start; k < ring.start + ring.count; ++k) {
        const Pt& a = cell_.pts[k];
        const Pt& b = cell_.pts[cell_.next(k)];
        if ((a.y > r.y) != (b.y > r.y)) {
          double xi = double(a.x) + double(r.y - a.y) * double(b.x - a.x) / double(b.y - a.y);
          if (xi > double(r.x)) inside = !inside;
        }
      }
      if (inside) mask ^= 1u << ring.feature;
    }
    return mask;
  }

  void chooseReferencePoints() {
    refs_.resize(sub_.size());
    refMasks_.resize(sub_.size());
    for (uint32_t j = 0; j < n_; ++j) {
      for (uint32_t i = 0; i < n_; ++i) {
        size_t s = size_t(j) * n_ + i;
        Pt ref = center(i, j);
        for (int tries = 0; onAnyEdge(ref, sub_[s]); ++tries) {
          if (tries > 1000) throw ConvertError("no reference point free of edges in a sub-cell");
          ref.x += 1 + tries % 3;
          ref.y += 1 + tries % 2;
        }
        refs_[s] = ref;
        refMasks_[s] = maskByRayCasting(ref);
      }
    }
  }

  // Features containing (x, y), answered from the sub-cells as the reader does.
  uint32_t maskAt(double x, double y) const {
    size_t s = size_t(fmt::subIndex(y, y0_, y1_, n_)) * n_ + fmt::subIndex(x, x0_, x1_, n_);
    uint32_t mask = refMasks_[s];
    const Pt& r = refs_[s];
    for (uint32_t k : sub_[s]) {
      const Pt& a = cell_.pts[k];
      const Pt& b = cell_.pts[cell_.next(k)];
      if (fmt::crossesPath(double(a.x), double(a.y), double(b.x), double(b.y), x, y, double(r.x), double(r.y))) {
        mask ^= 1u << cell_.rings[cell_.ringOf[k]].feature;
      }
    }
    return mask;
  }

  // A real edge with no zone on one side is a coast: the ocean lies beyond it.
  void markCoastEdges() {
    const double offset = 3;
    for (uint32_t k = 0; k < cell_.pts.size(); ++k) {
      if (flags_[k] & fmt::kChainClip) continue;
      const Pt& a = cell_.pts[k];
      const Pt& b = cell_.pts[cell_.next(k)];
      double dx = double(b.x - a.x), dy = double(b.y - a.y), len = std::hypot(dx, dy);
      double mx = (double(a.x) + double(b.x)) / 2, my = (double(a.y) + double(b.y)) / 2;
      for (double side : {-1.0, 1.0}) {
        double sx = mx - side * dy / len * offset, sy = my + side * dx / len * offset;
        if (sx < x0_ || sx > x1_ || sy < y0_ || sy > y1_) continue;
        if (maskAt(sx, sy) == 0) flags_[k] |= fmt::kChainCoast;
      }
    }
  }

  std::vector<uint16_t> zonesOfMask(uint32_t mask) const {
    std::vector<uint16_t> zones;
    for (uint32_t f = 0; f < cell_.featureZones.size(); ++f) {
      if (mask & (1u << f) && std::find(zones.begin(), zones.end(), cell_.featureZones[f]) == zones.end()) zones.push_back(cell_.featureZones[f]);
    }
    return zones;
  }

  uint32_t writeRecord(size_t* subCellsWithEdges) {
    while (out_.cells.size() % 8) out_.cells.push_back('\0');
    uint32_t offset = uint32_t(out_.cells.size());
    for (double v : {leaf_.lat0, leaf_.lat1, leaf_.lon0, leaf_.lon1}) fmt::append<double>(out_.cells, v);
    for (uint32_t v : {n_, n_, uint32_t(cell_.featureZones.size()), 0u}) fmt::append<uint16_t>(out_.cells, uint16_t(v));
    for (uint16_t z : cell_.featureZones) fmt::append<uint16_t>(out_.cells, z);
    while (out_.cells.size() % 4) out_.cells.push_back('\0');
    for (size_t s = 0; s < sub_.size(); ++s) {
      uint32_t e;
      if (sub_[s].empty()) {
        e = out_.entryFor(zonesOfMask(refMasks_[s]));
      } else {
        if (out_.chains.size() > fmt::kValueMask) throw ConvertError("edge data too large");
        e = fmt::entry(fmt::kMixed, uint32_t(out_.chains.size()));
        writeChains(s);
        ++*subCellsWithEdges;
      }
      fmt::append<uint32_t>(out_.cells, e);
    }
    return offset;
  }

  // The sub-cell's edges as chains of consecutive edges of one ring with the same flags.
  void writeChains(size_t s) {
    const std::vector<uint32_t>& edges = sub_[s];
    std::vector<std::pair<size_t, size_t>> runs;
    for (size_t e = 0; e < edges.size(); ++e) {
      uint32_t k = edges[e];
      bool extends = !runs.empty() && edges[e - 1] + 1 == k && cell_.ringOf[k] == cell_.ringOf[edges[e - 1]] && flags_[k] == flags_[edges[e - 1]];
      if (extends) ++runs.back().second; else runs.push_back({e, 1});
    }
    const Pt& ref = refs_[s];
    Pt c = center(uint32_t(s % n_), uint32_t(s / n_));
    fmt::putVarint(out_.chains, fmt::zigzag(ref.x - c.x));
    fmt::putVarint(out_.chains, fmt::zigzag(ref.y - c.y));
    fmt::putVarint(out_.chains, refMasks_[s]);
    fmt::putVarint(out_.chains, runs.size());
    for (auto [first, count] : runs) {
      uint32_t k = edges[first];
      fmt::putVarint(out_.chains, (uint64_t(cell_.rings[cell_.ringOf[k]].feature) << fmt::kChainFlagBits) | flags_[k]);
      fmt::putVarint(out_.chains, count + 1);
      Pt prev = ref;
      for (size_t v = 0; v <= count; ++v) {
        const Pt& p = v < count ? cell_.pts[edges[first + v]] : cell_.pts[cell_.next(edges[first + count - 1])];
        fmt::putVarint(out_.chains, fmt::zigzag(p.x - prev.x));
        fmt::putVarint(out_.chains, fmt::zigzag(p.y - prev.y));
        prev = p;
      }
    }
  }

  const Leaf& leaf_;
  const CellGeometry& cell_;
  Sections& out_;
  double x0_, x1_, y0_, y1_;
  uint32_t n_;
  std::vector<uint8_t> flags_;
  std::vector<std::vector<uint32_t>> sub_;
  std::vector<Pt> refs_;
  std::vector<uint32_t> refMasks_;
};

// ---- putting the file together ----

std::string metaSection(uint32_t gridBits, const std::vector<std::string>& names, const std::string& release) {
  std::string m;
  fmt::append<uint32_t>(m, gridBits);
  fmt::append<uint32_t>(m, uint32_t(names.size()));
  fmt::append<uint32_t>(m, uint32_t(release.size()));
  m += release;
  for (const auto& n : names) {
    fmt::append<uint16_t>(m, uint16_t(n.size()));
    m += n;
  }
  return m;
}

std::string assemble(const Sections& s) {
  const std::string* parts[fmt::kSectionCount] = {&s.meta, &s.grid, &s.lists, &s.cells, &s.chains};
  std::string file(fmt::kHeaderSize, '\0');
  std::memcpy(file.data(), fmt::kMagic, sizeof fmt::kMagic);
  fmt::store<uint32_t>(file, 8, fmt::kVersion);
  fmt::store<uint32_t>(file, 12, uint32_t(fmt::kHeaderSize));
  for (uint32_t i = 0; i < fmt::kSectionCount; ++i) {
    while (file.size() % fmt::kSectionAlignment) file.push_back('\0');
    size_t rec = 24 + i * fmt::kSectionRecord;
    fmt::store<uint64_t>(file, rec, file.size());
    fmt::store<uint64_t>(file, rec + 8, parts[i]->size());
    fmt::store<uint32_t>(file, rec + 16, uint32_t(crc32(0, reinterpret_cast<const Bytef*>(parts[i]->data()), uInt(parts[i]->size()))));
    file += *parts[i];
  }
  fmt::store<uint64_t>(file, 16, file.size());
  size_t crcAt = fmt::kHeaderSize - 8;
  fmt::store<uint32_t>(file, crcAt, uint32_t(crc32(0, reinterpret_cast<const Bytef*>(file.data()), uInt(crcAt))));
  return file;
}

void writeAtomically(const std::string& path, const std::string& bytes) {
  if (int error = writeFileAtomically(path, bytes); error != 0) {
    throw ConvertError(path + ": cannot write: " + std::strerror(error));
  }
}

std::vector<std::string> zoneNames(const nlohmann::json& index) {
  if (!index.is_object() || !index.contains("timezones") || !index["timezones"].is_array() || !index.contains("lookup")) {
    throw ConvertError("index: expected an object with 'timezones' and 'lookup'");
  }
  std::vector<std::string> names;
  for (const auto& n : index["timezones"]) {
    if (!n.is_string() || n.get<std::string>().empty() || n.get<std::string>().size() > 255) throw ConvertError("index: a zone name is not a short string");
    names.push_back(n.get<std::string>());
  }
  if (names.empty() || names.size() > 0xffff) throw ConvertError("index: no zones, or too many");
  return names;
}

void convert(const std::string& indexPath, const std::string& geoPath, const std::string& outputPath,
             const std::string& release, ConvertStats& stats) {
  nlohmann::json index = nlohmann::json::parse(readWholeFile(indexPath), nullptr, false);
  if (index.is_discarded()) throw ConvertError(indexPath + ": not valid JSON");
  std::vector<std::string> names = zoneNames(index);
  std::unordered_map<std::string, uint16_t> zoneIds;
  for (size_t i = 0; i < names.size(); ++i) zoneIds.emplace(names[i], uint16_t(i));
  std::string geo = readWholeFile(geoPath);

  IndexWalker walker(names.size(), geo.size());
  Leaf world;
  world.depth = world.row = world.col = 0;
  world.lat0 = fmt::kLatMin;
  world.lat1 = fmt::kLatMax;
  world.lon0 = fmt::kLonMin;
  world.lon1 = fmt::kLonMax;
  walker.walk(index["lookup"], world);
  uint32_t bits = 1;
  for (const Leaf& l : walker.leaves) bits = std::max(bits, l.depth);

  Sections s;
  s.meta = metaSection(bits, names, release);
  std::vector<uint32_t> grid(size_t(1) << (2 * bits), fmt::entry(fmt::kOcean, 0));
  GeobufDecoder decoder(zoneIds);
  for (const Leaf& leaf : walker.leaves) {
    uint32_t e;
    if (!leaf.blob) {
      e = s.entryFor(leaf.zones);
    } else {
      CellGeometry cell = decoder.decode(std::string_view(geo).substr(leaf.pos, leaf.len));
      stats.vertices += cell.pts.size();
      if (cell.pts.empty()) {
        e = fmt::entry(fmt::kOcean, 0);
      } else {
        e = fmt::entry(fmt::kMixed, MixedCellBuilder(leaf, cell, s).build(&stats.subCells));
        ++stats.mixedCells;
      }
    }
    uint32_t shift = bits - leaf.depth;
    for (uint32_t r = leaf.row << shift; r < (leaf.row + 1) << shift; ++r) {
      for (uint32_t c = leaf.col << shift; c < (leaf.col + 1) << shift; ++c) grid[(size_t(r) << bits) + c] = e;
    }
  }
  if (s.cells.size() > fmt::kValueMask) throw ConvertError("cell records too large");
  s.grid.assign(reinterpret_cast<const char*>(grid.data()), grid.size() * sizeof(uint32_t));
  std::string file = assemble(s);
  writeAtomically(outputPath, file);
  stats.zones = names.size();
  stats.leaves = walker.leaves.size();
  stats.fileBytes = file.size();
}

}  // namespace

bool convertBoundaryData(const std::string& indexJsonPath, const std::string& geoDatPath,
                         const std::string& outputPath, const std::string& release,
                         ConvertStats* stats, std::string* error) {
  ConvertStats local;
  try {
    convert(indexJsonPath, geoDatPath, outputPath, release, local);
  } catch (const ConvertError& e) {
    if (error) *error = e.what();
    return false;
  } catch (const protozero::exception& e) {
    if (error) *error = geoDatPath + ": malformed geobuf (" + e.what() + ")";
    return false;
  } catch (const nlohmann::json::exception& e) {
    if (error) *error = indexJsonPath + ": unexpected JSON (" + e.what() + ")";
    return false;
  }
  if (stats) *stats = local;
  return true;
}

}  // namespace zonara::timezone
