// The assessment's own spot code: focus measure, robust background and
// noise, detection of local maxima, a Levenberg-Marquardt fit of a symmetric
// Gaussian, nearest-neighbour pairing, and the error figures.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "tools/common/assess.h"

namespace assess {

namespace {

constexpr double kMadToSigma = 1.4826;  // MAD of a normal distribution times this is sigma
constexpr double kMinContrast = 0.05;   // of the brightest peak, for noise-free images
constexpr int kFitParameters = 5;       // x0, y0, sigma, amplitude, background
constexpr int kMaxFitIterations = 60;
constexpr double kStartSigma = 1.5;
constexpr double kMinSigma = 0.3;
constexpr double kMaxSigma = 8.0;
constexpr double kStepTolerance = 1e-7;  // pixels
constexpr double kMaxDamping = 1e12;

using Matrix = double[kFitParameters][kFitParameters];

// Solves a x = b by Gaussian elimination with partial pivoting; false when
// the matrix is singular to working precision.
bool solve(Matrix a, double* b, double* x) {
  constexpr int n = kFitParameters;
  for (int col = 0; col < n; ++col) {
    int pivot = col;
    for (int r = col + 1; r < n; ++r) {
      if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) pivot = r;
    }
    if (!(std::fabs(a[pivot][col]) > 1e-300)) return false;
    if (pivot != col) {
      std::swap(a[pivot], a[col]);
      std::swap(b[pivot], b[col]);
    }
    for (int r = col + 1; r < n; ++r) {
      const double f = a[r][col] / a[col][col];
      for (int c = col; c < n; ++c) a[r][c] -= f * a[col][c];
      b[r] -= f * b[col];
    }
  }
  for (int r = n - 1; r >= 0; --r) {
    double sum = b[r];
    for (int c = r + 1; c < n; ++c) sum -= a[r][c] * x[c];
    x[r] = sum / a[r][r];
  }
  return true;
}

struct Window {
  const float* pixels;
  int numCols;
  int x0, y0, size;  // top-left corner and side
};

// Sum of squared residuals; with `normal` and `gradient`, also J^T J and
// J^T r of the model A exp(-r^2 / 2 s^2) + b.
double residuals(const Window& w, const double* p, Matrix* normal, double* gradient) {
  if (normal != nullptr) {
    for (auto& row : *normal) std::fill(row, row + kFitParameters, 0.0);
    std::fill(gradient, gradient + kFitParameters, 0.0);
  }
  const double s2 = p[2] * p[2];
  double cost = 0.0;
  for (int j = 0; j < w.size; ++j) {
    const double dy = (w.y0 + j) - p[1];
    const float* row = w.pixels + static_cast<size_t>(w.y0 + j) * w.numCols + w.x0;
    for (int i = 0; i < w.size; ++i) {
      const double dx = (w.x0 + i) - p[0];
      const double r2 = dx * dx + dy * dy;
      const double e = std::exp(-0.5 * r2 / s2);
      const double r = p[3] * e + p[4] - row[i];
      cost += r * r;
      if (normal == nullptr) continue;
      const double jac[kFitParameters] = {p[3] * e * dx / s2, p[3] * e * dy / s2,
                                          p[3] * e * r2 / (s2 * p[2]), e, 1.0};
      for (int a = 0; a < kFitParameters; ++a) {
        gradient[a] += jac[a] * r;
        for (int b = 0; b <= a; ++b) (*normal)[a][b] += jac[a] * jac[b];
      }
    }
  }
  if (normal != nullptr) {
    for (int a = 0; a < kFitParameters; ++a) {
      for (int b = a + 1; b < kFitParameters; ++b) (*normal)[a][b] = (*normal)[b][a];
    }
  }
  return cost;
}

// Levenberg-Marquardt from `p`; false when no step could be taken at all.
bool levenbergMarquardt(const Window& w, double* p) {
  double damping = 1e-3;
  Matrix normal;
  double gradient[kFitParameters];
  double cost = residuals(w, p, &normal, gradient);
  for (int iteration = 0; iteration < kMaxFitIterations; ++iteration) {
    bool improved = false;
    double step[kFitParameters] = {};
    while (damping < kMaxDamping) {
      Matrix a;
      double b[kFitParameters];
      for (int r = 0; r < kFitParameters; ++r) {
        for (int c = 0; c < kFitParameters; ++c) a[r][c] = normal[r][c];
        a[r][r] += damping * (normal[r][r] + 1e-12);
        b[r] = -gradient[r];
      }
      double trial[kFitParameters];
      if (solve(a, b, step)) {
        for (int k = 0; k < kFitParameters; ++k) trial[k] = p[k] + step[k];
        const double trialCost = trial[2] != 0.0 ? residuals(w, trial, nullptr, nullptr) : cost;
        if (trialCost < cost) {
          std::copy(trial, trial + kFitParameters, p);
          cost = residuals(w, p, &normal, gradient);
          damping = std::max(damping / 3.0, 1e-9);
          improved = true;
          break;
        }
      }
      damping *= 4.0;
    }
    if (!improved) return iteration > 0;
    if (std::fabs(step[0]) < kStepTolerance && std::fabs(step[1]) < kStepTolerance) break;
  }
  return true;
}

bool isLocalMaximum(const float* pixels, int numCols, int x, int y) {
  const float v = pixels[static_cast<size_t>(y) * numCols + x];
  for (int dy = -1; dy <= 1; ++dy) {
    for (int dx = -1; dx <= 1; ++dx) {
      if (dx == 0 && dy == 0) continue;
      const float u = pixels[static_cast<size_t>(y + dy) * numCols + (x + dx)];
      // Of equal neighbours the first in raster order is the maximum.
      const bool before = dy < 0 || (dy == 0 && dx < 0);
      if (before ? u >= v : u > v) return false;
    }
  }
  return true;
}

bool windowHasNoData(const float* pixels, int numCols, int x, int y) {
  for (int j = y - kFitRadius; j <= y + kFitRadius; ++j) {
    for (int i = x - kFitRadius; i <= x + kFitRadius; ++i) {
      if (pixels[static_cast<size_t>(j) * numCols + i] == 0.0f) return true;
    }
  }
  return false;
}

struct Candidate {
  int x, y;
  float value;
};

}  // namespace

double focusScore(const float* pixels, size_t n) {
  double sum = 0.0;
  for (size_t i = 0; i < n; ++i) sum += pixels[i];
  const double mean = sum / static_cast<double>(n);
  double energy = 0.0;
  for (size_t i = 0; i < n; ++i) energy += (pixels[i] - mean) * (pixels[i] - mean);
  return energy / static_cast<double>(n);
}

Focus bestFocus(const std::vector<double>& scores) {
  Focus f{0, 0.0};
  if (scores.empty()) return f;
  for (size_t z = 1; z < scores.size(); ++z) {
    if (scores[z] > scores[f.section]) f.section = static_cast<int>(z);
  }
  f.position = f.section;
  if (f.section > 0 && f.section + 1 < static_cast<int>(scores.size())) {
    const double a = scores[f.section - 1], b = scores[f.section], c = scores[f.section + 1];
    const double curvature = a - 2.0 * b + c;
    if (curvature < 0.0) f.position += 0.5 * (a - c) / curvature;
  }
  return f;
}

void backgroundAndNoise(const float* pixels, size_t n, double* background, double* noise) {
  std::vector<float> copy(pixels, pixels + n);
  const size_t middle = n / 2;
  std::nth_element(copy.begin(), copy.begin() + middle, copy.end());
  const float median = copy[middle];
  for (float& v : copy) v = std::fabs(v - median);
  std::nth_element(copy.begin(), copy.begin() + middle, copy.end());
  *background = median;
  *noise = kMadToSigma * copy[middle];
}

bool fitSpot(const float* pixels, int numCols, int numRows, int px, int py, double background,
             Spot* spot) {
  if (px < kFitRadius || py < kFitRadius || px + kFitRadius >= numCols ||
      py + kFitRadius >= numRows) {
    return false;
  }
  const Window w{pixels, numCols, px - kFitRadius, py - kFitRadius, 2 * kFitRadius + 1};
  const double peak = pixels[static_cast<size_t>(py) * numCols + px];
  double p[kFitParameters] = {static_cast<double>(px), static_cast<double>(py), kStartSigma,
                              peak - background, background};
  if (!levenbergMarquardt(w, p)) return false;
  const double sigma = std::fabs(p[2]);
  if (!(std::fabs(p[0] - px) <= kMaxShift && std::fabs(p[1] - py) <= kMaxShift &&
        sigma >= kMinSigma && sigma <= kMaxSigma && p[3] > 0.0)) {
    return false;
  }
  *spot = {p[0], p[1], sigma, p[3]};
  return true;
}

std::vector<Spot> findSpots(const float* pixels, int numCols, int numRows) {
  const size_t n = static_cast<size_t>(numCols) * numRows;
  double background, noise;
  backgroundAndNoise(pixels, n, &background, &noise);
  const double brightest = *std::max_element(pixels, pixels + n);
  const double threshold =
      background + std::max(kDetectSigmas * noise, kMinContrast * (brightest - background));

  std::vector<Candidate> candidates;
  for (int y = kFitRadius; y < numRows - kFitRadius; ++y) {
    for (int x = kFitRadius; x < numCols - kFitRadius; ++x) {
      const float v = pixels[static_cast<size_t>(y) * numCols + x];
      if (v > threshold && isLocalMaximum(pixels, numCols, x, y)) candidates.push_back({x, y, v});
    }
  }
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Candidate& a, const Candidate& b) { return a.value > b.value; });

  std::vector<Candidate> kept;
  const double minSq = kMinSeparation * kMinSeparation;
  for (const Candidate& c : candidates) {
    const bool near = std::any_of(kept.begin(), kept.end(), [&](const Candidate& k) {
      return double(k.x - c.x) * (k.x - c.x) + double(k.y - c.y) * (k.y - c.y) < minSq;
    });
    if (near) continue;
    kept.push_back(c);
  }
  std::sort(kept.begin(), kept.end(), [](const Candidate& a, const Candidate& b) {
    return a.y != b.y ? a.y < b.y : a.x < b.x;
  });

  std::vector<Spot> spots;
  for (const Candidate& c : kept) {
    if (background != 0.0 && windowHasNoData(pixels, numCols, c.x, c.y)) continue;
    Spot s;
    if (fitSpot(pixels, numCols, numRows, c.x, c.y, background, &s)) spots.push_back(s);
  }
  return spots;
}

std::vector<std::pair<int, int>> pairSpots(const std::vector<Spot>& a, const std::vector<Spot>& b,
                                           double maxDistance) {
  auto nearest = [](const Spot& s, const std::vector<Spot>& set, double* distSq) {
    int best = -1;
    *distSq = 0.0;
    for (size_t k = 0; k < set.size(); ++k) {
      const double d = (set[k].x - s.x) * (set[k].x - s.x) + (set[k].y - s.y) * (set[k].y - s.y);
      if (best < 0 || d < *distSq) {
        best = static_cast<int>(k);
        *distSq = d;
      }
    }
    return best;
  };
  std::vector<std::pair<int, int>> pairs;
  for (size_t i = 0; i < a.size(); ++i) {
    double d;
    const int j = nearest(a[i], b, &d);
    if (j < 0 || d > maxDistance * maxDistance) continue;
    double back;
    if (nearest(b[j], a, &back) == static_cast<int>(i)) pairs.emplace_back(static_cast<int>(i), j);
  }
  return pairs;
}

ErrorStats errorStats(const std::vector<CorvanePoint2D>& displacements, double spacingX,
                      double spacingY) {
  ErrorStats s;
  s.count = static_cast<int>(displacements.size());
  if (s.count == 0) return s;
  std::vector<double> px, nm;
  double sumSqPx = 0.0, sumSqNm = 0.0;
  for (const CorvanePoint2D& d : displacements) {
    const double dPx = std::hypot(d.x, d.y);
    const double dNm = kNmPerMicrometre * std::hypot(d.x * spacingX, d.y * spacingY);
    px.push_back(dPx);
    nm.push_back(dNm);
    sumSqPx += dPx * dPx;
    sumSqNm += dNm * dNm;
    s.meanDx += d.x;
    s.meanDy += d.y;
  }
  s.meanDx /= s.count;
  s.meanDy /= s.count;
  s.rmsPx = std::sqrt(sumSqPx / s.count);
  s.rmsNm = std::sqrt(sumSqNm / s.count);
  // Nearest-rank 95th percentile.
  const size_t rank = static_cast<size_t>(std::ceil(0.95 * s.count)) - 1;
  std::sort(px.begin(), px.end());
  std::sort(nm.begin(), nm.end());
  s.p95Px = px[rank];
  s.p95Nm = nm[rank];
  return s;
}

}  // namespace assess
