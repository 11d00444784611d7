// Synthetic calibration targets written with the image stream library: a
// grid of Gaussian spots per channel, sharp at the channel's focus section and
// spreading away from it, placed in each channel through a known model of the
// reference frame. Noise comes from a hash of the position, so a target is
// the same on every run. Used by the calibration benchmark and by the
// calibration tests.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"
#include "model/model.h"
#include "bench/stack_writer.h"

namespace targettest {

using Model = std::array<double, kNumModelParameters>;

// Which evaluator carries the reference frame into a channel.
enum class ModelKind { kRadial, kLinear, kRadialHigh, kLinearHigh };

struct ChannelTruth {
  float wavelength;
  int focusSection;
  ModelKind kind;
  Model model;
};

struct TargetSpec {
  int numCols = 512;
  int numRows = 512;
  int numZ = 5;
  int numTimes = 1;
  float spacingX = 0.1f;
  float spacingY = 0.1f;
  float spacingZ = 0.25f;
  // Spot grid in the reference frame, with a fixed sub-pixel jitter per spot.
  int firstSpot = 64;
  int spotPitch = 64;
  int spotsPerRow = 7;
  double sigma = 1.6;         // pixels, at focus
  double amplitude = 3000.0;  // at focus
  double depthOfField = 1.2;  // sections over which the spread grows by sqrt(2)
  double background = 100.0;
  double noise = 20.0;                 // half-width of the uniform noise
  std::vector<ChannelTruth> channels;  // channel 0 first, in file order
  bool spots = true;                   // false: background and noise only
};

// Identity about the section's middle for a model kind.
inline Model identityModel(const TargetSpec& s, ModelKind kind) {
  Model p{};
  p[0] = std::floor(s.numCols * 0.5);
  p[1] = std::floor(s.numRows * 0.5);
  p[2] = 1.0;
  if (kind == ModelKind::kLinear || kind == ModelKind::kLinearHigh) p[3] = 1.0;
  return p;
}

inline std::vector<CorvanePoint2D> applyModel(ModelKind kind, const double* p,
                                              const std::vector<CorvanePoint2D>& points) {
  std::vector<CorvanePoint2D> result;
  switch (kind) {
    case ModelKind::kRadial:
      fradial(points, p, result);
      break;
    case ModelKind::kLinear:
      change(points, p, result);
      break;
    case ModelKind::kRadialHigh:
      changeHigh(points, p, result, 0);
      break;
    case ModelKind::kLinearHigh:
      changeHigh(points, p, result, 1);
      break;
  }
  return result;
}

// A number in [-1, 1) from a position, the same on every run.
inline double hashNoise(uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
  uint64_t h = a * 0x9E3779B97F4A7C15ull ^ (b + 0x632BE59BD9B4E019ull) * 0xBF58476D1CE4E5B9ull;
  h ^= (c + 0x94D049BB133111EBull) * 0xD6E8FEEC8B5A1F3Dull ^ d * 0x2545F4914F6CDD1Dull;
  h ^= h >> 31;
  h *= 0x9E3779B97F4A7C15ull;
  h ^= h >> 29;
  return static_cast<double>(h >> 11) * (2.0 / 9007199254740992.0) - 1.0;
}

// Spot centres in the reference frame.
inline std::vector<CorvanePoint2D> referenceSpots(const TargetSpec& s) {
  std::vector<CorvanePoint2D> spots;
  for (int i = 0; i < s.spotsPerRow; ++i) {
    for (int j = 0; j < s.spotsPerRow; ++j) {
      const double jitterX = 0.45 * hashNoise(i, j, 1, 0);
      const double jitterY = 0.45 * hashNoise(i, j, 2, 0);
      spots.push_back(
          {s.firstSpot + j * s.spotPitch + jitterX, s.firstSpot + i * s.spotPitch + jitterY});
    }
  }
  return spots;
}

// Adds one sampled Gaussian to a float section, within five spreads.
inline void renderSpot(std::vector<float>& section, const TargetSpec& s, CorvanePoint2D centre,
                       double sigma, double amplitude) {
  const int reach = static_cast<int>(std::ceil(5.0 * sigma));
  const int c0 = static_cast<int>(std::floor(centre.x)) - reach;
  const int r0 = static_cast<int>(std::floor(centre.y)) - reach;
  const double a = -1.0 / (2.0 * sigma * sigma);
  for (int r = std::max(r0, 0); r <= std::min(r0 + 2 * reach + 1, s.numRows - 1); ++r) {
    for (int c = std::max(c0, 0); c <= std::min(c0 + 2 * reach + 1, s.numCols - 1); ++c) {
      const double dx = c - centre.x, dy = r - centre.y;
      section[static_cast<std::size_t>(r) * s.numCols + c] +=
          static_cast<float>(amplitude * std::exp(a * (dx * dx + dy * dy)));
    }
  }
}

// One section of channel w at z: noise, then the channel's spots with the
// spread of their distance from focus (constant flux).
inline void renderSection(std::vector<float>& section, const TargetSpec& s,
                          const std::vector<CorvanePoint2D>& channelSpots, int z, int w, int t) {
  for (int r = 0; r < s.numRows; ++r) {
    for (int c = 0; c < s.numCols; ++c) {
      section[static_cast<std::size_t>(r) * s.numCols + c] =
          static_cast<float>(s.background + s.noise * hashNoise(c, r, z * 64 + w, t + 7));
    }
  }
  if (!s.spots) return;
  const double defocus = (z - s.channels[w].focusSection) / s.depthOfField;
  const double sigma = s.sigma * std::sqrt(1.0 + defocus * defocus);
  const double amplitude = s.amplitude * (s.sigma * s.sigma) / (sigma * sigma);
  for (const CorvanePoint2D& spot : channelSpots) renderSpot(section, s, spot, sigma, amplitude);
}

// Writes the target; returns false on any failing library call.
inline bool writeTargetStack(const std::string& path, const TargetSpec& s, int stream = 9) {
  testutil::StackLayout layout;
  layout.nx = s.numCols, layout.ny = s.numRows, layout.nz = s.numZ, layout.nt = s.numTimes;
  layout.nw = static_cast<int>(s.channels.size());
  layout.dx = s.spacingX, layout.dy = s.spacingY, layout.dz = s.spacingZ;
  std::vector<std::vector<CorvanePoint2D>> channelSpots;
  for (const ChannelTruth& truth : s.channels) {
    layout.waves.push_back(truth.wavelength);
    channelSpots.push_back(applyModel(truth.kind, truth.model.data(), referenceSpots(s)));
  }
  return testutil::writeStack(
      path, layout,
      [&](std::vector<float>& section, int z, int w, int t) {
        renderSection(section, s, channelSpots[w], z, w, t);
      },
      stream);
}

}  // namespace targettest
