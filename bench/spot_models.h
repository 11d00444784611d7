// Gaussian spot models of the sub-pixel fit (model minus data, one residual
// per pixel), synthetic noisy spots with a fixed-seed generator, and the
// wrapper loop that drives the free solver with djacobix, for the solver's
// benchmark.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "trsolver/trsolver.h"

namespace spotmodels {

struct OneDimensionData {
  const double* values;
  const int* positions;
};

struct TwoDimensionData {
  const double* pixels;
  const int* rowPositions;
  const int* colPositions;
  int numRows;
  int numCols;
};

// x = centre, sigma, amplitude, offset.
inline void residualOneDimension(int* m, int*, double* x, double* f, void* data) {
  const auto* d = static_cast<const OneDimensionData*>(data);
  const double a = -1.0 / ((x[1] + x[1]) * x[1]);
  for (int i = 0; i < *m; ++i) {
    const double t = static_cast<double>(d->positions[i]) - x[0];
    f[i] = x[2] * std::exp(a * t * t) + x[3] - d->values[i];
  }
}

// x = rowCentre, rowSigma, colCentre, colSigma, amplitude, offset.
inline void residualTwoDimension(int*, int*, double* x, double* f, void* data) {
  const auto* d = static_cast<const TwoDimensionData*>(data);
  const double a = -1.0 / ((x[1] + x[1]) * x[1]);
  const double b = -1.0 / ((x[3] + x[3]) * x[3]);
  for (int i = 0; i < d->numRows; ++i) {
    const double r = static_cast<double>(d->rowPositions[i]) - x[0];
    for (int j = 0; j < d->numCols; ++j) {
      const double c = static_cast<double>(d->colPositions[j]) - x[2];
      f[i * d->numCols + j] =
          x[4] * std::exp(b * c * c + a * r * r) + x[5] - d->pixels[i * d->numCols + j];
    }
  }
}

// Portable fixed-seed draws: the engine is fully defined by the C++ standard,
// the transforms are written here.
class Draws {
 public:
  explicit Draws(uint64_t seed) : engine_(seed) {}
  double uniform(double lo, double hi) {
    return lo + (hi - lo) * (static_cast<double>(engine_() >> 11) * 0x1.0p-53);
  }
  double normal() {  // Box-Muller
    const double u1 = 1.0 - uniform(0.0, 1.0), u2 = uniform(0.0, 1.0);
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
  }

 private:
  std::mt19937_64 engine_;
};

// The application's wrapper loop on the free solver: iter1 1000, iter2 100,
// rs 100, six eps of 1e-4 (eps[0] also the Jacobian step). Returns the last
// status; x holds the result.
inline int fitFree(TrResidualFunction f, void* data, int n, int m, double* x) {
  std::vector<double> fvec(m), fjac(static_cast<size_t>(m) * n), eps(6, 1e-4);
  const int iter1 = 1000, iter2 = 100;
  const double rs = 100.0;
  TrHandle handle = nullptr;
  if (DTRNLSP_INIT(&handle, &n, &m, x, eps.data(), &iter1, &iter2, &rs) != TRS_OK) return 1;
  int rci = 0;
  for (;;) {
    if (DTRNLSP_SOLVE(&handle, fvec.data(), fjac.data(), &rci) != TRS_OK) return 1;
    if (rci <= -1 && rci >= -6) break;
    if (rci == 1) f(&m, &n, x, fvec.data(), data);
    if (rci == 2) DJACOBIX(f, &n, &m, fjac.data(), x, eps.data(), data);
  }
  int iterations, reason;
  double r1, r2;
  DTRNLSP_GET(&handle, &iterations, &reason, &r1, &r2);
  DTRNLSP_DELETE(&handle);
  TRS_FREE_BUFFERS();
  return 0;
}

// A 2-D spot sampled at integer pixels of a numRows x numCols window, plus
// Gaussian noise of the given deviation.
inline std::vector<double> sampleSpot(const double* truth, int numRows, int numCols, double noise,
                                      Draws& draws) {
  std::vector<int> rows(numRows), cols(numCols);
  for (int i = 0; i < numRows; ++i) rows[i] = i;
  for (int j = 0; j < numCols; ++j) cols[j] = j;
  std::vector<double> zero(static_cast<size_t>(numRows) * numCols, 0.0), pixels(zero.size());
  TwoDimensionData d{zero.data(), rows.data(), cols.data(), numRows, numCols};
  int m = numRows * numCols, n = 6;
  std::vector<double> x(truth, truth + 6);
  residualTwoDimension(&m, &n, x.data(), pixels.data(), &d);
  for (double& p : pixels) p += noise * draws.normal();
  return pixels;
}

inline std::vector<double> sampleProfile(const double* truth, int length, double noise,
                                         Draws& draws) {
  std::vector<int> positions(length);
  for (int i = 0; i < length; ++i) positions[i] = i;
  std::vector<double> zero(length, 0.0), values(length);
  OneDimensionData d{zero.data(), positions.data()};
  int m = length, n = 4;
  std::vector<double> x(truth, truth + 4);
  residualOneDimension(&m, &n, x.data(), values.data(), &d);
  for (double& v : values) v += noise * draws.normal();
  return values;
}

}  // namespace spotmodels
