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
#include <immintrin.h>
#include <omp.h>

#include <algorithm>
#include <cstddef>
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

// Two neighbouring samples as doubles. Sections come as doubles or as floats;
// a float widens exactly, so the arithmetic that follows sees the same
// values either way.
inline __m128d loadTwo(const double* p) {
  return _mm_loadu_pd(p);
}
inline __m128d loadTwo(const float* p) {
  return _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
}

// Cubics along two rows at once, at the four columns from c0 on.
template <typename Pixel>
inline __m128d acrossTwoRows(const Pixel* upper, const Pixel* lower, int c0, __m128d tx) {
  const __m128d upperLeft = loadTwo(upper + c0);
  const __m128d upperRight = loadTwo(upper + c0 + 2);
  const __m128d lowerLeft = loadTwo(lower + c0);
  const __m128d lowerRight = loadTwo(lower + c0 + 2);
  return cubic2(_mm_unpacklo_pd(upperLeft, lowerLeft), _mm_unpackhi_pd(upperLeft, lowerLeft),
                _mm_unpacklo_pd(upperRight, lowerRight), _mm_unpackhi_pd(upperRight, lowerRight),
                tx);
}

// The four cubics along the rows of the 4 x 4 neighbourhood of (ix0, iy0),
// away from every edge where no index needs its clamp: rows iy0 - 1 and iy0
// in `top`, rows iy0 + 1 and iy0 + 2 in `bottom`.
template <typename Pixel>
inline void acrossFourRows(Pixel** input, int ix0, int iy0, double tx, __m128d* top,
                           __m128d* bottom) {
  const __m128d t = _mm_set1_pd(tx);
  *top = acrossTwoRows(input[iy0 - 1], input[iy0], ix0 - 1, t);
  *bottom = acrossTwoRows(input[iy0 + 1], input[iy0 + 2], ix0 - 1, t);
}

// The two-dimensional case away from every edge: the rows first, then the
// column of their results, as the general case does.
template <typename Pixel>
inline double bicubicInterior(Pixel** input, int ix0, int iy0, double tx, double ty) {
  __m128d top, bottom;
  acrossFourRows(input, ix0, iy0, tx, &top, &bottom);
  return cubic(_mm_cvtsd_f64(top), _mm_cvtsd_f64(_mm_unpackhi_pd(top, top)), _mm_cvtsd_f64(bottom),
               _mm_cvtsd_f64(_mm_unpackhi_pd(bottom, bottom)), ty);
}

// Two pixels of the two-dimensional interior case at once: their cubics down
// the column run on the two lanes.
template <typename Pixel>
inline void bicubicInteriorPair(Pixel** input, const int* ix0, const int* iy0, const double* tx,
                                const double* ty, double* out) {
  __m128d topA, bottomA, topB, bottomB;
  acrossFourRows(input, ix0[0], iy0[0], tx[0], &topA, &bottomA);
  acrossFourRows(input, ix0[1], iy0[1], tx[1], &topB, &bottomB);
  _mm_storeu_pd(out, cubic2(_mm_unpacklo_pd(topA, topB), _mm_unpackhi_pd(topA, topB),
                            _mm_unpacklo_pd(bottomA, bottomB), _mm_unpackhi_pd(bottomA, bottomB),
                            _mm_loadu_pd(ty)));
}

// The value of the input at (sx, sy): 0.0 outside the section, with no fading
// towards the border; the pixel itself on a whole-number position; otherwise
// the cubic along the axes on which the position is fractional. Indices past
// an edge are replaced by the nearest one inside (no mirroring, no zeros).
template <typename Pixel>
double sampleAt(Pixel** input, int numRows, int numCols, double sx, double sy) {
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
    const Pixel* row = input[iy0];
    return cubic(row[c0], row[ix0], row[ix0 + 1], row[c3], tx);
  }
  const Pixel* rows[4] = {input[std::max(iy0 - 1, 0)], input[iy0], input[iy0 + 1],
                           input[std::min(iy0 + 2, lastRow)]};
  double across[4];
  for (int k = 0; k < 4; ++k) {
    across[k] = cubic(rows[k][c0], rows[k][ix0], rows[k][ix0 + 1], rows[k][c3], tx);
  }
  return cubic(across[0], across[1], across[2], across[3], sy - iy0);
}

// Position of a pixel that takes the unclamped two-dimensional path: both
// coordinates fractional and a pixel or more away from every edge. Most
// pixels of a calibration-like model are such. False for NaN.
struct InteriorPosition {
  int ix0, iy0;
  double tx, ty;
};

inline bool interiorPosition(double sx, double sy, double xEnd, double yEnd, InteriorPosition* p) {
  if (!(sx >= 1.0 && sx < xEnd && sy >= 1.0 && sy < yEnd)) return false;
  p->ix0 = static_cast<int>(sx);
  p->iy0 = static_cast<int>(sy);
  if (static_cast<double>(p->ix0) == sx || static_cast<double>(p->iy0) == sy) return false;
  p->tx = sx - p->ix0;
  p->ty = sy - p->iy0;
  return true;
}

// Samples one output row from its mapped positions. Interior positions take
// the unclamped path, two pixels at a time where both are interior, and give
// what sampleAt gives there; all others go through sampleAt.
template <typename Pixel>
void sampleRow(Pixel** input, int numRows, int numCols, const CorvanePoint2D* sources,
               double* out) {
  const double xEnd = numCols - 2;
  const double yEnd = numRows - 2;
  int x = 0;
  for (; x + 1 < numCols; x += 2) {
    InteriorPosition a{}, b{};
    const bool aInside = interiorPosition(sources[x].x, sources[x].y, xEnd, yEnd, &a);
    const bool bInside = interiorPosition(sources[x + 1].x, sources[x + 1].y, xEnd, yEnd, &b);
    if (aInside && bInside) {
      const int ix0[2] = {a.ix0, b.ix0};
      const int iy0[2] = {a.iy0, b.iy0};
      const double tx[2] = {a.tx, b.tx};
      const double ty[2] = {a.ty, b.ty};
      bicubicInteriorPair(input, ix0, iy0, tx, ty, out + x);
      continue;
    }
    out[x] = aInside ? bicubicInterior(input, a.ix0, a.iy0, a.tx, a.ty)
                     : sampleAt(input, numRows, numCols, sources[x].x, sources[x].y);
    out[x + 1] = bInside ? bicubicInterior(input, b.ix0, b.iy0, b.tx, b.ty)
                         : sampleAt(input, numRows, numCols, sources[x + 1].x, sources[x + 1].y);
  }
  if (x < numCols) out[x] = sampleAt(input, numRows, numCols, sources[x].x, sources[x].y);
}

// The same pixels with AVX2, four at a time where all four are interior:
// the four row cubics of a pixel on the four lanes, then the four column
// cubics of the four pixels on the lanes. Lane arithmetic is the scalar
// arithmetic in the scalar order (AVX2 alone brings no FMA, so nothing is
// contracted), so the pixels are those of sampleRow to the bit.
#define CORVANE_AVX2 __attribute__((target("avx2")))

CORVANE_AVX2 inline __m256d cubic4(__m256d p0, __m256d p1, __m256d p2, __m256d p3, __m256d t) {
  __m256d a =
      _mm256_add_pd(_mm256_add_pd(_mm256_add_pd(p0, p0), _mm256_mul_pd(p1, _mm256_set1_pd(-5.0))),
                    _mm256_mul_pd(p2, _mm256_set1_pd(4.0)));
  a = _mm256_sub_pd(a, p3);
  const __m256d b = _mm256_sub_pd(
      _mm256_add_pd(p3, _mm256_mul_pd(_mm256_sub_pd(p1, p2), _mm256_set1_pd(3.0))), p0);
  const __m256d c =
      _mm256_add_pd(_mm256_sub_pd(p2, p0), _mm256_mul_pd(_mm256_add_pd(a, _mm256_mul_pd(b, t)), t));
  return _mm256_add_pd(p1, _mm256_mul_pd(_mm256_mul_pd(t, _mm256_set1_pd(0.5)), c));
}

CORVANE_AVX2 inline __m256d loadFour(const double* p) {
  return _mm256_loadu_pd(p);
}
CORVANE_AVX2 inline __m256d loadFour(const float* p) {
  return _mm256_cvtps_pd(_mm_loadu_ps(p));
}

// Turns four vectors (rows) into four vectors of their lanes (columns).
CORVANE_AVX2 inline void transpose4(__m256d a, __m256d b, __m256d c, __m256d d, __m256d* p) {
  const __m256d t0 = _mm256_unpacklo_pd(a, b);
  const __m256d t1 = _mm256_unpackhi_pd(a, b);
  const __m256d t2 = _mm256_unpacklo_pd(c, d);
  const __m256d t3 = _mm256_unpackhi_pd(c, d);
  p[0] = _mm256_permute2f128_pd(t0, t2, 0x20);
  p[1] = _mm256_permute2f128_pd(t1, t3, 0x20);
  p[2] = _mm256_permute2f128_pd(t0, t2, 0x31);
  p[3] = _mm256_permute2f128_pd(t1, t3, 0x31);
}

// The cubics along rows iy0 - 1 to iy0 + 2 of an interior pixel, row k on
// lane k.
template <typename Pixel>
CORVANE_AVX2 inline __m256d acrossRowsAvx2(Pixel** input, const InteriorPosition& q) {
  const int c0 = q.ix0 - 1;
  __m256d p[4];
  transpose4(loadFour(input[q.iy0 - 1] + c0), loadFour(input[q.iy0] + c0),
             loadFour(input[q.iy0 + 1] + c0), loadFour(input[q.iy0 + 2] + c0), p);
  return cubic4(p[0], p[1], p[2], p[3], _mm256_set1_pd(q.tx));
}

template <typename Pixel>
CORVANE_AVX2 void sampleRowAvx2(Pixel** input, int numRows, int numCols,
                                const CorvanePoint2D* sources, double* out) {
  const double xEnd = numCols - 2;
  const double yEnd = numRows - 2;
  int x = 0;
  for (; x + 3 < numCols; x += 4) {
    InteriorPosition q[4] = {};
    bool inside[4];
    for (int k = 0; k < 4; ++k) {
      inside[k] = interiorPosition(sources[x + k].x, sources[x + k].y, xEnd, yEnd, &q[k]);
    }
    if (inside[0] && inside[1] && inside[2] && inside[3]) {
      __m256d p[4];
      transpose4(acrossRowsAvx2(input, q[0]), acrossRowsAvx2(input, q[1]),
                 acrossRowsAvx2(input, q[2]), acrossRowsAvx2(input, q[3]), p);
      const __m256d ty = _mm256_set_pd(q[3].ty, q[2].ty, q[1].ty, q[0].ty);
      _mm256_storeu_pd(out + x, cubic4(p[0], p[1], p[2], p[3], ty));
      continue;
    }
    for (int k = 0; k < 4; ++k) {
      out[x + k] = inside[k]
                       ? bicubicInterior(input, q[k].ix0, q[k].iy0, q[k].tx, q[k].ty)
                       : sampleAt(input, numRows, numCols, sources[x + k].x, sources[x + k].y);
    }
  }
  for (; x < numCols; ++x) out[x] = sampleAt(input, numRows, numCols, sources[x].x, sources[x].y);
}

// Chosen once: the AVX2 form where the processor has it.
template <typename Pixel>
using RowSampler = void (*)(Pixel**, int, int, const CorvanePoint2D*, double*);
template <typename Pixel>
RowSampler<Pixel> rowSampler() {
  static const RowSampler<Pixel> sampler =
      __builtin_cpu_supports("avx2") ? sampleRowAvx2<Pixel> : sampleRow<Pixel>;
  return sampler;
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
template <typename Pixel, typename Model>
void transformRows(Pixel** input, const double* parameters, int numRows, int numCols, Model model,
                   double** output, int firstRow, int endRow) {
  // A local copy lets the compiler keep the parameters in registers: it
  // cannot alias the output rows.
  double p[kNumModelParameters];
  std::copy(parameters, parameters + kNumModelParameters, p);
  std::vector<CorvanePoint2D> sources(numCols);
  const RowSampler<Pixel> sample = rowSampler<Pixel>();
  for (int y = firstRow; y < endRow; ++y) {
    for (int x = 0; x < numCols; ++x) {
      sources[x] = model(p, static_cast<double>(x), static_cast<double>(y));
    }
    sample(input, numRows, numCols, sources.data(), output[y]);
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

template <typename Pixel>
void transformRowsByFlags(Pixel** input, const double* parameters, int numRows, int numCols,
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

}  // namespace

double cubicInterpolation(double* values, double t) {
  return cubic(values[0], values[1], values[2], values[3], t);
}

double bicubicInterpolation(double (*values)[4], double tx, double ty) {
  double across[4];
  for (int k = 0; k < 4; ++k) across[k] = cubicInterpolation(values[k], tx);
  return cubicInterpolation(across, ty);
}

void narrowSection(const double* from, float* to, std::size_t count) {
  std::size_t i = 0;
  for (; i + 2 <= count; i += 2) {
    const __m128 two = _mm_cvtpd_ps(_mm_loadu_pd(from + i));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to + i), _mm_castps_si128(two));
  }
  for (; i < count; ++i) to[i] = static_cast<float>(from[i]);
}

void imageTransformRows(double** input, double* parameters, int numRows, int numCols,
                        int linearFlag, int highOrderFlag, double** output, int firstRow,
                        int endRow) {
  transformRowsByFlags(input, parameters, numRows, numCols, linearFlag, highOrderFlag, output,
                       firstRow, endRow);
}

void imageTransformRows(float** input, double* parameters, int numRows, int numCols,
                        int linearFlag, int highOrderFlag, double** output, int firstRow,
                        int endRow) {
  transformRowsByFlags(input, parameters, numRows, numCols, linearFlag, highOrderFlag, output,
                       firstRow, endRow);
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
