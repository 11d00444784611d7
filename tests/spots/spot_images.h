// Synthetic planes for the spot measurement tests: Gaussian spots at known
// sub-pixel centres, Poisson noise from a fixed seed, and a scoped setting
// of the global gridThreshold.
#pragma once

#include <cmath>
#include <random>
#include <vector>

#include "app/settings.h"

namespace spottest {

// A row-major plane with its row table.
template <typename T>
struct PlaneOf {
  int rows, cols;
  std::vector<T> px;
  std::vector<T*> rowTable;

  PlaneOf(int r, int c, T value = 0) : rows(r), cols(c), px(std::size_t(r) * c, value) {
    for (int i = 0; i < r; ++i) rowTable.push_back(px.data() + std::size_t(i) * c);
  }
  PlaneOf(const PlaneOf& o) : PlaneOf(o.rows, o.cols) { px = o.px; }
  T& at(int r, int c) { return px[std::size_t(r) * cols + c]; }
  T** table() { return rowTable.data(); }
};
using Plane = PlaneOf<double>;

// Adds amplitude * exp(-d^2 / (2 sigma^2)), sampled at the pixel positions.
inline void addSpot(Plane& p, double row, double col, double sigma, double amplitude) {
  for (int r = 0; r < p.rows; ++r) {
    for (int c = 0; c < p.cols; ++c) {
      const double d2 = (r - row) * (r - row) + (c - col) * (c - col);
      p.at(r, c) += amplitude * std::exp(-d2 / (2.0 * sigma * sigma));
    }
  }
}

// Replaces every pixel by a Poisson count of that mean.
inline void poissonNoise(Plane& p, unsigned seed) {
  std::mt19937 rng(seed);
  for (double& v : p.px) v = std::poisson_distribution<int>(v)(rng);
}

// Sets gridThreshold for one scope.
class ScopedGridThreshold {
 public:
  explicit ScopedGridThreshold(double value) : saved_(gridThreshold) { gridThreshold = value; }
  ~ScopedGridThreshold() { gridThreshold = saved_; }

 private:
  double saved_;
};

}  // namespace spottest
