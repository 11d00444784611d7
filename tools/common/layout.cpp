// Where the content of the synthetic stacks lies: the spots of the target on
// a jittered grid or at random with a least spacing, and the filaments and
// blobs of the specimen. All in the reference frame.
//
// Density. Calibration keeps as bright the pixels above the 99.5th
// percentile of a focus section, 0.5 % of the field, and accepts blobs of 16
// to 299 of them. With one spot per kSpotPitch x kSpotPitch pixels each spot
// gets about 0.005 * 85 * 85 = 36 bright pixels, well inside that range with
// room for the spread of brightness and for the wider spots of the red
// channels. The pitch also keeps neighbours more than twice the 15-pixel
// capture window of the spot fit apart.
#include <algorithm>
#include <cmath>

#include "tools/common/random.h"
#include "tools/common/synth.h"

namespace synth {

namespace {

constexpr double kSpotPitch = 85.0;
constexpr double kBrightnessSpread = 0.3;  // spot photons vary by +-30 %
constexpr int kMaxPlacementTries = 1000;   // per wanted spot, random layout

constexpr uint64_t kSpotStream = 2;
constexpr uint64_t kLayoutStream = 3;
constexpr uint64_t kFilamentStream = 4;
constexpr uint64_t kBlobStream = 5;

// Specimen content per 1024 x 1024 field, and its shapes.
constexpr double kReferenceField = 1024.0 * 1024.0;
constexpr double kFilamentsPerField = 40.0;
constexpr double kBlobsPerField = 150.0;
constexpr double kFilamentStep = 1.0;         // pixels between samples
constexpr double kFilamentBend = 0.03;        // radians of heading change per step, sigma
constexpr double kSpecimenDepth = 1.5;        // micrometres either side of focus
constexpr double kFilamentMinLength = 150.0;  // pixels
constexpr double kFilamentMaxLength = 700.0;

double spotPhotons(const Config& config, Random& rng) {
  return config.optics.spotPhotons * rng.uniform(1.0 - kBrightnessSpread, 1.0 + kBrightnessSpread);
}

std::vector<Spot> gridSpots(const Config& config) {
  const Geometry& g = config.geometry;
  const double pitchX = config.layout.pitch > 0.0 ? config.layout.pitch : autoGridPitch(g.numCols);
  const double pitchY = config.layout.pitch > 0.0 ? config.layout.pitch : autoGridPitch(g.numRows);
  const int nx = std::max(1, static_cast<int>(g.numCols / pitchX));
  const int ny = std::max(1, static_cast<int>(g.numRows / pitchY));
  // Centre the grid in the field.
  const double x0 = 0.5 * (g.numCols - nx * pitchX) + 0.5 * pitchX;
  const double y0 = 0.5 * (g.numRows - ny * pitchY) + 0.5 * pitchY;
  std::vector<Spot> spots;
  for (int j = 0; j < ny; ++j) {
    for (int i = 0; i < nx; ++i) {
      Random rng(mixKey(config.seed, kSpotStream, static_cast<uint64_t>(j * nx + i)));
      Spot s;
      s.x = x0 + i * pitchX + rng.symmetric(config.layout.jitter * pitchX);
      s.y = y0 + j * pitchY + rng.symmetric(config.layout.jitter * pitchY);
      s.photons = spotPhotons(config, rng);
      spots.push_back(s);
    }
  }
  return spots;
}

// Uniform positions, each kept only at least minSpacing from those before.
std::vector<Spot> randomSpots(const Config& config) {
  const Geometry& g = config.geometry;
  const SpotLayout& l = config.layout;
  const int wanted = l.count > 0 ? l.count : autoSpotCount(g);
  Random rng(mixKey(config.seed, kLayoutStream));
  std::vector<Spot> spots;
  const double minSq = l.minSpacing * l.minSpacing;
  for (long tries = 0; static_cast<int>(spots.size()) < wanted &&
                       tries < static_cast<long>(wanted) * kMaxPlacementTries;
       ++tries) {
    Spot s;
    s.x = rng.uniform(l.margin, g.numCols - 1 - l.margin);
    s.y = rng.uniform(l.margin, g.numRows - 1 - l.margin);
    s.photons = spotPhotons(config, rng);
    const bool crowded = std::any_of(spots.begin(), spots.end(), [&](const Spot& o) {
      return (o.x - s.x) * (o.x - s.x) + (o.y - s.y) * (o.y - s.y) < minSq;
    });
    if (!crowded) spots.push_back(s);
  }
  return spots;
}

int scaledCount(const Geometry& g, double perField, int atLeast) {
  return std::max(
      atLeast, static_cast<int>(std::lround(perField * g.numCols * g.numRows / kReferenceField)));
}

// Brightness of one structure in each channel: one channel carries it fully,
// the others a random share, as with stains that bleed into neighbours.
std::vector<double> channelWeights(int numW, Random& rng) {
  std::vector<double> w(numW);
  for (double& v : w) v = rng.uniform(0.1, 0.7);
  w[static_cast<int>(rng.uniform() * numW)] = 1.0;
  return w;
}

void addFilament(const Config& config, int index, Specimen& specimen) {
  const Geometry& g = config.geometry;
  const double focus = config.focusSection >= 0 ? config.focusSection : g.numZ / 2;
  const double depth = kSpecimenDepth / g.spacingZ;  // in sections
  Random rng(mixKey(config.seed, kFilamentStream, static_cast<uint64_t>(index)));
  const int structure = static_cast<int>(specimen.weights.size());
  specimen.weights.push_back(channelWeights(static_cast<int>(g.wavelengths.size()), rng));
  double x = rng.uniform(0.0, g.numCols - 1.0);
  double y = rng.uniform(0.0, g.numRows - 1.0);
  double z = focus + rng.symmetric(depth);
  double heading = rng.uniform(0.0, 6.283185307179586);
  const double climb = rng.symmetric(depth / kFilamentMaxLength);  // sections per pixel
  const double length = rng.uniform(kFilamentMinLength, kFilamentMaxLength);
  const double photons = rng.uniform(300.0, 900.0);
  for (double walked = 0.0; walked < length; walked += kFilamentStep) {
    specimen.points.push_back({x, y, z, 0.0, structure, photons});
    heading += kFilamentBend * rng.normal();
    x += kFilamentStep * std::cos(heading);
    y += kFilamentStep * std::sin(heading);
    z += climb * kFilamentStep;
    if (x < -20.0 || y < -20.0 || x > g.numCols + 20.0 || y > g.numRows + 20.0) break;
  }
}

void addBlob(const Config& config, int index, Specimen& specimen) {
  const Geometry& g = config.geometry;
  const double focus = config.focusSection >= 0 ? config.focusSection : g.numZ / 2;
  Random rng(mixKey(config.seed, kBlobStream, static_cast<uint64_t>(index)));
  const int structure = static_cast<int>(specimen.weights.size());
  specimen.weights.push_back(channelWeights(static_cast<int>(g.wavelengths.size()), rng));
  SpecimenPoint p;
  p.x = rng.uniform(0.0, g.numCols - 1.0);
  p.y = rng.uniform(0.0, g.numRows - 1.0);
  p.z = focus + rng.symmetric(kSpecimenDepth / g.spacingZ);
  p.radius = rng.uniform(1.5, 5.0);
  p.structure = structure;
  p.photons = rng.uniform(20000.0, 80000.0);
  specimen.points.push_back(p);
}

}  // namespace

double autoGridPitch(int extent) {
  const double count = std::max(1.0, std::round(extent / kSpotPitch));
  return extent / count;
}

int autoSpotCount(const Geometry& geometry) {
  return std::max(1, static_cast<int>(std::lround(geometry.numCols * geometry.numRows /
                                                  (kSpotPitch * kSpotPitch))));
}

std::vector<Spot> makeSpots(const Config& config) {
  return config.layout.layout == Layout::kGrid ? gridSpots(config) : randomSpots(config);
}

Specimen makeSpecimen(const Config& config) {
  Specimen specimen;
  const int filaments = scaledCount(config.geometry, kFilamentsPerField, 4);
  const int blobs = scaledCount(config.geometry, kBlobsPerField, 10);
  for (int i = 0; i < filaments; ++i) addFilament(config, i, specimen);
  for (int i = 0; i < blobs; ++i) addBlob(config, i, specimen);
  return specimen;
}

}  // namespace synth
