// The section transform: resamples one section through a model by pulling
// every output pixel from its mapped position in the input, with a
// Catmull-Rom cubic between the samples.
//
// The per-pixel loop is the hot spot of a correction. It evaluates the model
// through the inline per-point forms of the evaluators instead of one-element
// vectors, with the same arithmetic, so that its output is bit for bit the
// output of a per-pixel call of fradial, change or changeHigh (the tests hold
// the step-by-step version and compare). Rows are independent, so blocks of
// rows run on all the threads the run allows; no pixel depends on which
// thread computes it.
#include <emmintrin.h>
#include <omp.h>

#include <algorithm>
#include <vector>

#include "correction/correction.h"
#include "model/model.h"

namespace {

// Rows handed to a thread at a time: enough to amortise the model set-up of
// a block, few enough that the last blocks even out the threads' shares.
constexpr int kRowsPerBlock = 8;
// Below this many pixels a section is resampled on the calling thread alone:
// waking a team would cost more than it saves.
constexpr long kParallelMinPixels = 1L << 14;

// The Catmull-Rom cubic through samples at -1, 0, 1, 2, at position t. The
// association is fixed: results depend on it to the last bit.
inline double cubic(double p0, double p1, double p2, double p3, double t) {
  double a = ((p0 + p0) + p1 * (-5.0)) + p2 * 4.0;
  a = a - p3;
  const double b = (p3 + (p1 - p2) * 3.0) - p0;
  const double c = (p2 - p0) + (a + b * t) * t;
  return p1 + (t * 0.5) * c;
}

// The same cubic on two independent lanes. Every lane sees the scalar
// operations in the scalar order, so its result is the scalar one bit for
// bit (the build contracts no multiply-add: x86-64 without FMA).
inline __m128d cubic2(__m128d p0, __m128d p1, __m128d p2, __m128d p3, __m128d t) {
  __m128d a = _mm_add_pd(_mm_add_pd(_mm_add_pd(p0, p0), _mm_mul_pd(p1, _mm_set1_pd(-5.0))),
                         _mm_mul_pd(p2, _mm_set1_pd(4.0)));
  a = _mm_sub_pd(a, p3);
  const __m128d b =
      _mm_sub_pd(_mm_add_pd(p3, _mm_mul_pd(_mm_sub_pd(p1, p2), _mm_set1_pd(3.0))), p0);
  const __m128d c = _mm_add_pd(_mm_sub_pd(p2, p0), _mm_mul_pd(_mm_add_pd(a, _mm_mul_pd(b, t)), t));
  return _mm_add_pd(p1, _mm_mul_pd(_mm_mul_pd(t, _mm_set1_pd(0.5)), c));
}

// Cubics along two rows at once, at the four columns from c0 on.
inline __m128d acrossTwoRows(const double* upper, const double* lower, int c0, __m128d tx) {
  const __m128d upperLeft = _mm_loadu_pd(upper + c0);
  const __m128d upperRight = _mm_loadu_pd(upper + c0 + 2);
  const __m128d lowerLeft = _mm_loadu_pd(lower + c0);
  const __m128d lowerRight = _mm_loadu_pd(lower + c0 + 2);
  return cubic2(_mm_unpacklo_pd(upperLeft, lowerLeft), _mm_unpackhi_pd(upperLeft, lowerLeft),
                _mm_unpacklo_pd(upperRight, lowerRight), _mm_unpackhi_pd(upperRight, lowerRight),
                tx);
}

// The two-dimensional case away from every edge, where no index needs its
// clamp: the rows first, then the column of their results, as the general
// case does.
inline double bicubicInterior(double** input, int ix0, int iy0, double tx, double ty) {
  const __m128d t = _mm_set1_pd(tx);
  const __m128d top = acrossTwoRows(input[iy0 - 1], input[iy0], ix0 - 1, t);
  const __m128d bottom = acrossTwoRows(input[iy0 + 1], input[iy0 + 2], ix0 - 1, t);
  return cubic(_mm_cvtsd_f64(top), _mm_cvtsd_f64(_mm_unpackhi_pd(top, top)), _mm_cvtsd_f64(bottom),
               _mm_cvtsd_f64(_mm_unpackhi_pd(bottom, bottom)), ty);
}

// The value of the input at (sx, sy): 0.0 outside the section, with no fading
// towards the border; the pixel itself on a whole-number position; otherwise
// the cubic along the axes on which the position is fractional. Indices past
// an edge are replaced by the nearest one inside (no mirroring, no zeros).
double sampleAt(double** input, int numRows, int numCols, double sx, double sy) {
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

// Samples one output row from its mapped positions. Most positions of a
// calibration-like model are fractional on both axes and a pixel or more away
// from every edge; they take the unclamped path, inlined here, and give what
// sampleAt gives there. All others, NaN included, go through sampleAt.
void sampleRow(double** input, int numRows, int numCols, const CorvanePoint2D* sources,
               double* out) {
  const double xEnd = numCols - 2;
  const double yEnd = numRows - 2;
  for (int x = 0; x < numCols; ++x) {
    const double sx = sources[x].x;
    const double sy = sources[x].y;
    if (sx >= 1.0 && sx < xEnd && sy >= 1.0 && sy < yEnd) {
      const int ix0 = static_cast<int>(sx);
      const int iy0 = static_cast<int>(sy);
      if (static_cast<double>(ix0) != sx && static_cast<double>(iy0) != sy) {
        out[x] = bicubicInterior(input, ix0, iy0, sx - ix0, sy - iy0);
        continue;
      }
    }
    out[x] = sampleAt(input, numRows, numCols, sx, sy);
  }
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
void transformRows(double** input, const double* parameters, int numRows, int numCols, Model model,
                   double** output, int firstRow, int endRow) {
  // A local copy lets the compiler keep the parameters in registers: it
  // cannot alias the output rows.
  double p[kNumModelParameters];
  std::copy(parameters, parameters + kNumModelParameters, p);
  std::vector<CorvanePoint2D> sources(numCols);
  for (int y = firstRow; y < endRow; ++y) {
    for (int x = 0; x < numCols; ++x) {
      sources[x] = model(p, static_cast<double>(x), static_cast<double>(y));
    }
    sampleRow(input, numRows, numCols, sources.data(), output[y]);
  }
}

// True when the twelve high-order coefficients are all zero. The terms then
// add only zeros to a finite position, which leaves it as it was (a -0.0
// becomes +0.0, which samples alike), and a non-finite one stays outside the
// section either way: the linear model alone gives the same pixels.
bool highOrderTermsVanish(const double* parameters) {
  for (int k = kFirstHighOrderParameter; k < kNumModelParameters; ++k) {
    if (parameters[k] != 0.0) return false;
  }
  return true;
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

void imageTransformRows(double** input, double* parameters, int numRows, int numCols,
                        int linearFlag, int highOrderFlag, double** output, int firstRow,
                        int endRow) {
  if (numRows < 1 || numCols < 1) return;
  firstRow = std::max(firstRow, 0);
  endRow = std::min(endRow, numRows);
  if (firstRow >= endRow) return;
  // The high-order terms act only on top of the linear model: with a zero
  // linear flag they are ignored, even when a calibration filled them. This
  // is intended.
  if (linearFlag != 0 && highOrderFlag != 0 && !highOrderTermsVanish(parameters)) {
    transformRows(input, parameters, numRows, numCols, LinearHighOrderModel{}, output, firstRow,
                  endRow);
  } else if (linearFlag != 0) {
    transformRows(input, parameters, numRows, numCols, LinearModel{}, output, firstRow, endRow);
  } else {
    transformRows(input, parameters, numRows, numCols, RadialModel{}, output, firstRow, endRow);
  }
}

void imageTransform(double** input, double* parameters, int numRows, int numCols, int linearFlag,
                    int highOrderFlag, double** output) {
  if (numRows < 1 || numCols < 1) return;
  const int numBlocks = (numRows + kRowsPerBlock - 1) / kRowsPerBlock;
  // Inside a parallel region (a caller that already spreads its own work)
  // the section stays on the calling thread.
  const bool parallel = !omp_in_parallel() && omp_get_max_threads() > 1 &&
                        static_cast<long>(numRows) * numCols >= kParallelMinPixels;
  if (!parallel) {
    imageTransformRows(input, parameters, numRows, numCols, linearFlag, highOrderFlag, output, 0,
                       numRows);
    return;
  }
#pragma omp parallel for schedule(dynamic, 1)
  for (int block = 0; block < numBlocks; ++block) {
    imageTransformRows(input, parameters, numRows, numCols, linearFlag, highOrderFlag, output,
                       block * kRowsPerBlock, (block + 1) * kRowsPerBlock);
  }
}
