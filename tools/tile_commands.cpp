#include "tools/tile_commands.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/scan.h"

namespace zonara {
namespace tools {
namespace {

using WPS::API::CompressedFileReaderProtected;
using WPS::API::LocatedAccessPoint;

// The command line after the sub-command: positional arguments and options.
struct Parsed {
  std::vector<std::string> positional;
  std::string realm;
  std::string precision, tileSize, blockRecords;
};

// Splits "--name value" options from positional arguments. Returns false on an
// option without its value or an unknown option.
bool parse(const std::vector<std::string>& args, size_t from, Parsed& out) {
  for (size_t i = from; i < args.size(); ++i) {
    const std::string& a = args[i];
    std::string* target = nullptr;
    if (a == "--realm") target = &out.realm;
    else if (a == "--precision") target = &out.precision;
    else if (a == "--tile-size") target = &out.tileSize;
    else if (a == "--block-records") target = &out.blockRecords;
    else if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
      std::fprintf(stderr, "wps-tool: unknown option %s\n", a.c_str());
      return false;
    } else {
      out.positional.push_back(a);
      continue;
    }
    if (i + 1 >= args.size()) {
      std::fprintf(stderr, "wps-tool: %s needs a value\n", a.c_str());
      return false;
    }
    *target = args[++i];
  }
  return true;
}

bool parseUnsigned(const std::string& text, unsigned& out) {
  if (text.empty()) return true;
  char* end = nullptr;
  const unsigned long v = std::strtoul(text.c_str(), &end, 10);
  if (*end != '\0' || text[0] == '-') return false;
  out = static_cast<unsigned>(v);
  return true;
}

int build(const Parsed& p) {
  if (p.positional.size() != 2) return 2;
  WPS::API::TileWriterOptions options;
  options.realm = p.realm;
  if (!parseUnsigned(p.precision, options.precisionCode) || options.precisionCode < 1 || options.precisionCode > 7 ||
      !parseUnsigned(p.blockRecords, options.blockRecords) || options.blockRecords > 256) {
    std::fprintf(stderr, "wps-tool: --precision takes 1..7 and --block-records 1..256 (0: automatic)\n");
    return 2;
  }
  if (!p.tileSize.empty()) {
    char* end = nullptr;
    options.tileSizeDegrees = std::strtod(p.tileSize.c_str(), &end);
    if (*end != '\0') {
      std::fprintf(stderr, "wps-tool: --tile-size takes degrees\n");
      return 2;
    }
  }
  std::ifstream in(p.positional[0]);
  if (!in) {
    std::fprintf(stderr, "wps-tool: cannot read %s\n", p.positional[0].c_str());
    return 1;
  }
  std::vector<LocatedAccessPoint> aps;
  std::string error;
  std::vector<unsigned char> bytes;
  unsigned tiles = 0;
  if (!WPS::API::parseAccessPointsCSV(in, aps, error) ||
      !WPS::API::buildTileFile(aps, options, bytes, error, &tiles) ||
      !WPS::API::writeTileFile(p.positional[1], bytes, error)) {
    std::fprintf(stderr, "wps-tool: %s: %s\n", p.positional[0].c_str(), error.c_str());
    return 1;
  }
  std::printf("%s: %zu access points in %u tiles, %zu bytes, realm \"%s\"\n", p.positional[1].c_str(), aps.size(),
              tiles, bytes.size(), p.realm.c_str());
  return 0;
}

bool openFile(CompressedFileReaderProtected& reader, const Parsed& p) {
  if (reader.open(p.realm, p.positional[0]) != 0) {
    std::fprintf(stderr, "wps-tool: cannot use %s for realm \"%s\" (missing, empty, broken or another realm)\n",
                 p.positional[0].c_str(), p.realm.c_str());
    return false;
  }
  return true;
}

int info(const Parsed& p) {
  if (p.positional.size() != 1) return 2;
  CompressedFileReaderProtected reader;
  if (!openFile(reader, p)) return 1;
  unsigned long total = 0;
  for (const auto* tile : reader.tiles()) total += tile->accessPointCount();
  std::printf("%s: realm \"%s\", %zu tiles, %lu access points, absent-MAC capacity %u\n", p.positional[0].c_str(),
              p.realm.c_str(), reader.tiles().size(), total, reader.absentLimit());
  for (const auto* tile : reader.tiles()) {
    std::printf(
        "tile %d: precision %u (2^-%d deg), origin %d %d (%.7f %.7f), widths lat %u lon %u count %u exponent %u, "
        "%u access points, %u index keys, index at %u (%u bytes)\n",
        tile->tileNumber(), tile->precisionCode(), tile->precision(), tile->originLatitude(),
        tile->originLongitude(), tile->originLatitude() * tile->scale(), tile->originLongitude() * tile->scale(),
        tile->latitudeWidth(), tile->longitudeWidth(), tile->countWidth(), tile->exponentWidth(),
        tile->accessPointCount(), tile->indexEntries(), tile->dataOffset(), tile->dataLength());
  }
  return 0;
}

int lookup(const Parsed& p) {
  if (p.positional.size() < 2) return 2;
  std::vector<WPS::SPI::MAC> macs;
  for (size_t i = 1; i < p.positional.size(); ++i) {
    WPS::SPI::MAC mac;
    if (!WPS::SPI::MAC::parse(p.positional[i], mac)) {
      std::fprintf(stderr, "wps-tool: not a MAC address: %s\n", p.positional[i].c_str());
      return 2;
    }
    macs.push_back(mac);
  }
  CompressedFileReaderProtected reader;
  if (!openFile(reader, p)) return 1;
  for (const auto& mac : macs) {
    const LocatedAccessPoint ap = reader.get(mac);
    if (ap.empty()) {
      std::printf("%s absent\n", mac.toString().c_str());
    } else {
      std::printf("%s %.7f %.7f %u %.6f\n", mac.toString().c_str(), ap.latitude, ap.longitude, ap.reliabilityCount,
                  ap.signalExponent);
    }
  }
  return 0;
}

}  // namespace

const char* tileUsage() {
  return "  wps-tool tile build CSV OUT [--realm R] [--precision 1..7] [--tile-size DEGREES] [--block-records N]\n"
         "      CSV lines: MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT\n"
         "  wps-tool tile info FILE [--realm R]\n"
         "  wps-tool tile lookup FILE [--realm R] MAC...\n"
         "      prints MAC LATITUDE LONGITUDE COUNT EXPONENT, or MAC absent\n"
         "  Without --realm the file is unbound (keyed by plain MACs).\n";
}

int runTileCommand(const std::vector<std::string>& args) {
  if (args.empty()) return 2;
  Parsed p;
  if (!parse(args, 1, p)) return 2;
  int status = 2;
  if (args[0] == "build") status = build(p);
  else if (args[0] == "info") status = info(p);
  else if (args[0] == "lookup") status = lookup(p);
  return status;
}

}  // namespace tools
}  // namespace zonara
