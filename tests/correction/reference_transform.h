// The section transform written step by step, one evaluator call on a
// one-element vector per pixel and every index clamped by itself: the
// reference that the fast loop of correction/ must match bit for bit.
#pragma once

#include <cmath>
#include <vector>

#include "correction/correction.h"
#include "model/model.h"

namespace reference {

// The cubic in the association it is defined with, step by step.
inline double cubicInterpolation(const double* values, double t) {
  const double p0 = values[0], p1 = values[1], p2 = values[2], p3 = values[3];
  double a = ((p0 + p0) + p1 * (-5.0)) + p2 * 4.0;
  a = a - p3;
  const double b = (p3 + (p1 - p2) * 3.0) - p0;
  const double c = (p2 - p0) + (a + b * t) * t;
  return p1 + (t * 0.5) * c;
}

inline double bicubicInterpolation(const double (*values)[4], double tx, double ty) {
  const double across[4] = {cubicInterpolation(values[0], tx), cubicInterpolation(values[1], tx),
                            cubicInterpolation(values[2], tx), cubicInterpolation(values[3], tx)};
  return cubicInterpolation(across, ty);
}

inline int clampIndex(int index, int count) {
  if (index < 0) return 0;
  if (index >= count) return count - 1;
  return index;
}

inline double interpolate(double** input, int numRows, int numCols, double sx, double sy) {
  if (!(sx >= 0 && sx <= numCols - 1 && sy >= 0 && sy <= numRows - 1)) return 0.0;
  const int ix0 = static_cast<int>(std::floor(sx));
  const int ix1 = static_cast<int>(std::ceil(sx));
  const int iy0 = static_cast<int>(std::floor(sy));
  const int iy1 = static_cast<int>(std::ceil(sy));
  if (ix0 == ix1 && iy0 == iy1) return input[iy0][ix0];
  if (ix0 == ix1) {
    double v[4] = {input[iy0 - 1 < 0 ? iy0 : iy0 - 1][ix0], input[iy0][ix0], input[iy1][ix0],
                   input[iy1 + 1 >= numRows ? iy1 : iy1 + 1][ix0]};
    return cubicInterpolation(v, sy - iy0);
  }
  if (iy0 == iy1) {
    const double* row = input[iy0];
    double v[4] = {row[ix0 - 1 < 0 ? ix0 : ix0 - 1], row[ix0], row[ix1],
                   row[ix1 + 1 >= numCols ? ix1 : ix1 + 1]};
    return cubicInterpolation(v, sx - ix0);
  }
  const int rowIndex[4] = {iy0 - 1, iy0, iy1, iy1 + 1};
  const int colIndex[4] = {ix0 - 1, ix0, ix1, ix1 + 1};
  double n[4][4];
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      n[i][j] = input[clampIndex(rowIndex[i], numRows)][clampIndex(colIndex[j], numCols)];
    }
  }
  return bicubicInterpolation(n, sx - ix0, sy - iy0);
}

inline void imageTransform(double** input, double* parameters, int numRows, int numCols,
                           int linearFlag, int highOrderFlag, double** output) {
  std::vector<CorvanePoint2D> point;
  std::vector<CorvanePoint2D> mapped;
  for (int y = 0; y < numRows; ++y) {
    for (int x = 0; x < numCols; ++x) {
      point.push_back({static_cast<double>(x), static_cast<double>(y)});
      if (linearFlag != 0 && highOrderFlag != 0) {
        changeHigh(point, parameters, mapped, linearFlag);
      } else if (linearFlag != 0) {
        change(point, parameters, mapped);
      } else {
        fradial(point, parameters, mapped);
      }
      output[y][x] = interpolate(input, numRows, numCols, mapped[0].x, mapped[0].y);
      point.clear();
      mapped.clear();
    }
  }
}

}  // namespace reference
