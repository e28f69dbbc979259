// Test support: a tiny hand-made boundary data set (quadtree index JSON and
// geobuf blobs), written with protozero, for the converter and the look-up.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace zonara::timezone::testing {

// A polygon ring in degrees, (longitude, latitude) pairs, closing point left out.
using TestRing = std::vector<std::pair<double, double>>;

struct TestFeature {
  std::string tzid;
  std::vector<std::vector<TestRing>> polygons;  // each polygon: outer ring, then holes
};

// A geobuf FeatureCollection of the features (precision 6, two dimensions).
std::string geobufOf(const std::vector<TestFeature>& features);

// Writes INDEX_JSON and GEO_DAT of a small world into `dir`:
//   zones Test/A, Test/B, Test/C;
//   north-east quadrant (lat >= 0, lon >= 0): Test/A everywhere;
//   north-west quadrant: a blob with Test/B on lon [-100, -90] x lat [10, 20] and
//     Test/C on lon [-50, -40] x lat [30, 40] with a hole lon [-46, -44] x lat [34, 36];
//   south-east quadrant: Test/B and Test/C overlapping everywhere (a list of two);
//   south-west quadrant: absent (ocean).
// Returns {index path, geo path}.
std::pair<std::string, std::string> writeSmallWorld(const std::string& dir);

// Rewrites a boundary file's recorded size and the checksums the reader
// verifies at open (the header's and each section's that lies within the
// file), so that bytes changed inside a section reach the reader's later
// checks. A file shorter than the header is left as it is.
void fixHeader(std::string& file);

}  // namespace zonara::timezone::testing
