// The section transform: resamples one section through a model by pulling
// every output pixel from its mapped position in the input, with a
// Catmull-Rom cubic between the samples.
//
// The per-pixel loop is the hot spot of a correction. It evaluates the model
// through the inline per-point forms of the evaluators instead of one-element
// vectors, with the same arithmetic, so that its output is bit for bit the
// output of a per-pixel call of fradial, change or changeHigh (the tests hold
// the step-by-step version and compare).
#include <algorithm>
#include <vector>

#include "correction/correction.h"
#include "model/model.h"

namespace {

// The Catmull-Rom cubic through samples at -1, 0, 1, 2, at position t. The
// association is fixed: results depend on it to the last bit.
inline double cubic(double p0, double p1, double p2, double p3, double t) {
  double a = ((p0 + p0) + p1 * (-5.0)) + p2 * 4.0;
  a = a - p3;
  const double b = (p3 + (p1 - p2) * 3.0) - p0;
  const double c = (p2 - p0) + (a + b * t) * t;
  return p1 + (t * 0.5) * c;
}

// The value of the input at (sx, sy): 0.0 outside the section, with no fading
// towards the border; the pixel itself on a whole-number position; otherwise
// the cubic along the axes on which the position is fractional. Indices past
// an edge are replaced by the nearest one inside (no mirroring, no zeros).
inline double sampleAt(double** input, int numRows, int numCols, double sx, double sy) {
  // Written so that a NaN coordinate fails the test and counts as outside.
  if (!(sx >= 0.0 && sx <= numCols - 1 && sy >= 0.0 && sy <= numRows - 1)) return 0.0;

  // Both coordinates are non-negative here, so truncation is the floor, and
  // the ceiling differs from it only for a fractional coordinate.
  const int ix0 = static_cast<int>(sx);
  const int iy0 = static_cast<int>(sy);
  const bool xWhole = static_cast<double>(ix0) == sx;
  const bool yWhole = static_cast<double>(iy0) == sy;

  if (xWhole && yWhole) return input[iy0][ix0];

  // A fractional coordinate lies strictly inside, so index0 + 1 is in range
  // and only index0 - 1 and index0 + 2 can need the clamp.
  const int lastRow = numRows - 1;
  const int lastCol = numCols - 1;
  if (xWhole) {
    const int r0 = std::max(iy0 - 1, 0);
    const int r3 = std::min(iy0 + 2, lastRow);
    return cubic(input[r0][ix0], input[iy0][ix0], input[iy0 + 1][ix0], input[r3][ix0], sy - iy0);
  }
  const int c0 = std::max(ix0 - 1, 0);
  const int c3 = std::min(ix0 + 2, lastCol);
  const double tx = sx - ix0;
  if (yWhole) {
    const double* row = input[iy0];
    return cubic(row[c0], row[ix0], row[ix0 + 1], row[c3], tx);
  }
  const double* rows[4] = {input[std::max(iy0 - 1, 0)], input[iy0], input[iy0 + 1],
                           input[std::min(iy0 + 2, lastRow)]};
  double across[4];
  for (int k = 0; k < 4; ++k) {
    across[k] = cubic(rows[k][c0], rows[k][ix0], rows[k][ix0 + 1], rows[k][c3], tx);
  }
  return cubic(across[0], across[1], across[2], across[3], sy - iy0);
}

// The three models in their per-point form, as chosen by imageTransform.
struct RadialModel {
  CorvanePoint2D operator()(const double* p, double x, double y) const {
    return radialPoint(p, x, y);
  }
};
struct LinearModel {
  CorvanePoint2D operator()(const double* p, double x, double y) const {
    return linearPoint(p, x, y);
  }
};
struct LinearHighOrderModel {
  CorvanePoint2D operator()(const double* p, double x, double y) const {
    return highOrderPoint(p, linearPoint(p, x, y));
  }
};

// Maps a whole row first and samples it afterwards: the radial model's calls
// into the maths library then no longer break up the interpolation, which
// keeps its values in registers. The order of the arithmetic of each pixel is
// unchanged.
template <typename Model>
void transformSection(double** input, const double* parameters, int numRows, int numCols,
                      Model model, double** output) {
  if (numRows < 1 || numCols < 1) return;
  // A local copy lets the compiler keep the parameters in registers: it
  // cannot alias the output rows.
  double p[kNumModelParameters];
  std::copy(parameters, parameters + kNumModelParameters, p);
  std::vector<CorvanePoint2D> sources(numCols);
  for (int y = 0; y < numRows; ++y) {
    for (int x = 0; x < numCols; ++x) {
      sources[x] = model(p, static_cast<double>(x), static_cast<double>(y));
    }
    double* out = output[y];
    for (int x = 0; x < numCols; ++x) {
      out[x] = sampleAt(input, numRows, numCols, sources[x].x, sources[x].y);
    }
  }
}

}  // namespace

double cubicInterpolation(double* values, double t) {
  return cubic(values[0], values[1], values[2], values[3], t);
}

double bicubicInterpolation(double (*values)[4], double tx, double ty) {
  double across[4];
  for (int k = 0; k < 4; ++k) across[k] = cubicInterpolation(values[k], tx);
  return cubicInterpolation(across, ty);
}

void imageTransform(double** input, double* parameters, int numRows, int numCols, int linearFlag,
                    int highOrderFlag, double** output) {
  // The high-order terms act only on top of the linear model: with a zero
  // linear flag they are ignored, even when a calibration filled them. This
  // is intended.
  if (linearFlag != 0 && highOrderFlag != 0) {
    transformSection(input, parameters, numRows, numCols, LinearHighOrderModel{}, output);
  } else if (linearFlag != 0) {
    transformSection(input, parameters, numRows, numCols, LinearModel{}, output);
  } else {
    transformSection(input, parameters, numRows, numCols, RadialModel{}, output);
  }
}
