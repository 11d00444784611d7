// Image formation of the synthetic stacks: a Gaussian point spread function
// whose width grows with defocus, integrated over each pixel, on a uniform
// background, with photon shot noise and camera read noise.
//
// Each emitter is drawn only in a small window around it, and each section
// draws its noise from its own generator, so sections can be rendered on any
// thread in any order with the same result.
#include <algorithm>
#include <cmath>
#include <vector>

#include "tools/common/random.h"
#include "tools/common/synth.h"

namespace synth {

namespace {

constexpr uint64_t kTargetNoiseStream = 6;
constexpr uint64_t kSpecimenNoiseStream = 7;

// A Gaussian holds all but 6e-5 of its light within 4 sigma of its centre;
// far out of focus the window is capped, the tail being lost in the noise.
constexpr double kWindowSigmas = 4.0;
constexpr int kMaxWindowRadius = 48;

// Specimen points further out of focus than this many focus depths add
// nothing but a faint haze and are left out.
constexpr double kSpecimenDepthCut = 3.0;

constexpr double kInvSqrt2 = 0.70710678118654752440;

// Fraction of a unit Gaussian of `sigma` centred at `centre` that falls on
// each pixel first..last of one axis (pixel k spans k - 0.5 to k + 0.5).
void pixelShares(double centre, double sigma, int first, int last, std::vector<double>& shares) {
  shares.resize(static_cast<size_t>(last - first + 1));
  const double scale = kInvSqrt2 / sigma;
  double lower = std::erf((first - 0.5 - centre) * scale);
  for (int k = first; k <= last; ++k) {
    const double upper = std::erf((k + 0.5 - centre) * scale);
    shares[k - first] = 0.5 * (upper - lower);
    lower = upper;
  }
}

// Adds `photons` spread by a Gaussian of `sigma` at (cx, cy) to `image`.
void addGaussian(float* image, int numCols, int numRows, double cx, double cy, double sigma,
                 double photons) {
  if (!(photons > 0.0) || !std::isfinite(cx) || !std::isfinite(cy)) return;
  const int radius = std::min(kMaxWindowRadius, static_cast<int>(std::ceil(kWindowSigmas * sigma)));
  const int x0 = std::max(0, static_cast<int>(std::floor(cx)) - radius);
  const int x1 = std::min(numCols - 1, static_cast<int>(std::floor(cx)) + radius + 1);
  const int y0 = std::max(0, static_cast<int>(std::floor(cy)) - radius);
  const int y1 = std::min(numRows - 1, static_cast<int>(std::floor(cy)) + radius + 1);
  if (x0 > x1 || y0 > y1) return;
  thread_local std::vector<double> sharesX, sharesY;
  pixelShares(cx, sigma, x0, x1, sharesX);
  pixelShares(cy, sigma, y0, y1, sharesY);
  for (int y = y0; y <= y1; ++y) {
    const double rowPhotons = photons * sharesY[y - y0];
    float* row = image + static_cast<size_t>(y) * numCols;
    for (int x = x0; x <= x1; ++x) row[x] += static_cast<float>(rowPhotons * sharesX[x - x0]);
  }
}

// Turns expected photons per pixel into camera counts: background, shot
// noise, read noise and offset.
void addNoise(const Config& config, uint64_t stream, int channel, int time, int section,
              float* image) {
  const Optics& o = config.optics;
  const size_t n = static_cast<size_t>(config.geometry.numCols) * config.geometry.numRows;
  Random rng(mixKey(config.seed, stream, static_cast<uint64_t>(channel),
                    static_cast<uint64_t>(time), static_cast<uint64_t>(section)));
  const double readVariance = o.readNoise * o.readNoise;
  for (size_t i = 0; i < n; ++i) {
    const double mean = o.background + image[i];
    double value;
    if (mean >= Random::kPoissonNormalMean) {
      // Shot and read noise are both close to normal here: draw them as one.
      value = mean + std::sqrt(mean + readVariance) * rng.normal();
    } else {
      value = rng.poisson(mean) + o.readNoise * rng.normal();
    }
    image[i] = static_cast<float>(value + o.cameraOffset);
  }
}

double micrometresFromFocus(const Config& config, int section, double focusSection) {
  return (section - focusSection) * config.geometry.spacingZ;
}

}  // namespace

double psfSigma(const Config& config, int channel) {
  return config.optics.psfSigma * config.geometry.wavelengths[channel] / kSigmaWavelength;
}

double defocusedSigma(const Config& config, int channel, double defocusMicrometres) {
  const double ratio = defocusMicrometres / config.optics.focusDepth;
  return psfSigma(config, channel) * std::sqrt(1.0 + ratio * ratio);
}

void renderTargetSection(const Config& config, const Truth& truth, const std::vector<Spot>& spots,
                         int channel, int time, int section, float* out) {
  const Geometry& g = config.geometry;
  std::fill(out, out + static_cast<size_t>(g.numCols) * g.numRows, 0.0f);
  const double focus = truth.focusSection + truth.channels[channel].zOffset;
  const double sigma =
      defocusedSigma(config, channel, micrometresFromFocus(config, section, focus));
  for (const Spot& s : spots) {
    const CorvanePoint2D q = mapToChannel(truth, channel, s.x, s.y);
    addGaussian(out, g.numCols, g.numRows, q.x, q.y, sigma, s.photons);
  }
  addNoise(config, kTargetNoiseStream, channel, time, section, out);
}

void renderSpecimenSection(const Config& config, const Truth& truth, const Specimen& specimen,
                           int channel, int time, int section, float* out) {
  const Geometry& g = config.geometry;
  std::fill(out, out + static_cast<size_t>(g.numCols) * g.numRows, 0.0f);
  const double cut = kSpecimenDepthCut * config.optics.focusDepth;
  const int zOffset = truth.channels[channel].zOffset;
  for (const SpecimenPoint& p : specimen.points) {
    const double defocus = micrometresFromFocus(config, section, p.z + zOffset);
    if (std::fabs(defocus) > cut) continue;
    const double optical = defocusedSigma(config, channel, defocus);
    // A blob of radius r looks like a Gaussian of sigma r / 2 before blurring.
    const double sigma = std::sqrt(optical * optical + 0.25 * p.radius * p.radius);
    const CorvanePoint2D q = mapToChannel(truth, channel, p.x, p.y);
    addGaussian(out, g.numCols, g.numRows, q.x, q.y, sigma,
                p.photons * specimen.weights[p.structure][channel]);
  }
  addNoise(config, kSpecimenNoiseStream, channel, time, section, out);
}

}  // namespace synth
