#include "timezone/boundary_test_data.h"

#include <cmath>
#include <fstream>
#include <protozero/pbf_writer.hpp>
#include <zlib.h>

#include "timezone/boundary_format.h"

namespace zonara::timezone::testing {

namespace {

void writeGeometry(protozero::pbf_writer& feature, const TestFeature& f) {
  std::string geometry;
  protozero::pbf_writer g(geometry);
  bool multi = f.polygons.size() > 1;
  g.add_enum(1, multi ? 5 : 4);
  std::vector<uint32_t> lengths;
  if (multi) lengths.push_back(uint32_t(f.polygons.size()));
  std::vector<int64_t> coords;
  for (const auto& polygon : f.polygons) {
    if (multi) lengths.push_back(uint32_t(polygon.size()));
    for (const auto& ring : polygon) {
      lengths.push_back(uint32_t(ring.size()));
      int64_t px = 0, py = 0;
      for (auto [lon, lat] : ring) {
        int64_t x = std::llround(lon * 1e6), y = std::llround(lat * 1e6);
        coords.push_back(x - px);
        coords.push_back(y - py);
        px = x;
        py = y;
      }
    }
  }
  g.add_packed_uint32(2, lengths.begin(), lengths.end());
  g.add_packed_sint64(3, coords.begin(), coords.end());
  feature.add_message(1, geometry);
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace

std::string geobufOf(const std::vector<TestFeature>& features) {
  std::string collection;
  {
    protozero::pbf_writer fc(collection);
    for (const auto& f : features) {
      std::string feature;
      protozero::pbf_writer fw(feature);
      writeGeometry(fw, f);
      std::string value;
      protozero::pbf_writer(value).add_string(1, f.tzid);
      fw.add_message(13, value);
      std::vector<uint32_t> props{0, 0};
      fw.add_packed_uint32(14, props.begin(), props.end());
      fc.add_message(1, feature);
    }
  }
  std::string data;
  protozero::pbf_writer d(data);
  d.add_string(1, "tzid");
  d.add_message(4, collection);
  return data;
}

std::pair<std::string, std::string> writeSmallWorld(const std::string& dir) {
  TestRing square1{{-100, 10}, {-90, 10}, {-90, 20}, {-100, 20}};
  TestRing square2{{-50, 30}, {-40, 30}, {-40, 40}, {-50, 40}};
  TestRing hole{{-46, 34}, {-46, 36}, {-44, 36}, {-44, 34}};
  std::string blob = geobufOf({{"Test/B", {{square1}}}, {"Test/C", {{square2, hole}}}});
  std::string pad = "padding";  // the blob need not start the file
  std::string index = R"({"timezones":["Test/A","Test/B","Test/C"],"lookup":{"a":[0],"b":{"pos":)" +
                      std::to_string(pad.size()) + R"(,"len":)" + std::to_string(blob.size()) + R"(},"d":[1,2]}})";
  std::pair<std::string, std::string> paths{dir + "/small.index.json", dir + "/small.geo.dat"};
  writeFile(paths.first, index);
  writeFile(paths.second, pad + blob);
  return paths;
}

void fixHeader(std::string& file) {
  namespace fmt = zonara::timezone::format;
  if (file.size() < fmt::kHeaderSize) return;
  const auto* bytes = reinterpret_cast<const uint8_t*>(file.data());
  fmt::store<uint64_t>(file, 16, file.size());
  for (uint32_t i = 0; i < fmt::kSectionCount; ++i) {
    const size_t rec = 24 + i * fmt::kSectionRecord;
    const uint64_t offset = fmt::load<uint64_t>(bytes + rec);
    const uint64_t length = fmt::load<uint64_t>(bytes + rec + 8);
    if (offset > file.size() || length > file.size() - offset) continue;
    fmt::store<uint32_t>(file, rec + 16, uint32_t(crc32(0, bytes + offset, uInt(length))));
  }
  const size_t crcAt = fmt::kHeaderSize - 8;
  fmt::store<uint32_t>(file, crcAt, uint32_t(crc32(0, bytes, uInt(crcAt))));
}

}  // namespace zonara::timezone::testing
