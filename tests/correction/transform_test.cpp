// The section transform: the cubic kernels against hand-computed values, the
// fast loop against the step-by-step reference, bit for bit, on models and
// sizes that reach every pixel path and every clamp and on any number of
// threads, from doubles and from floats, and the narrowing against the cast.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include "correction/correction.h"
#include "model/model.h"
#include "reference_transform.h"
#include "spots/spot_images.h"
#include "spots/spots.h"

namespace {

using Parameters = std::vector<double>;

Parameters params(std::initializer_list<double> leading) {
  Parameters p(leading);
  p.resize(kNumModelParameters, 0.0);
  return p;
}

using Section = spottest::Plane;

// Deterministic pixel values, negative ones included.
Section noise(int numRows, int numCols, uint32_t seed) {
  Section s(numRows, numCols);
  for (double& v : s.px) {
    seed = seed * 1664525u + 1013904223u;
    v = static_cast<double>(seed >> 8) / 65536.0 - 64.0;
  }
  return s;
}

bool sameBits(const Section& a, const Section& b) {
  return a.px.size() == b.px.size() &&
         std::memcmp(a.px.data(), b.px.data(), a.px.size() * sizeof(double)) == 0;
}

Section transform(Section& input, Parameters p, int linearFlag, int highOrderFlag) {
  Section output(input.rows, input.cols, -123.0);
  imageTransform(input.table(), p.data(), input.rows, input.cols, linearFlag, highOrderFlag,
                 output.table());
  return output;
}

TEST(CubicInterpolationTest, HandComputedValues) {
  struct Case {
    double values[4];
    double t;
    double expected;
  };
  const std::vector<Case> cases = {
      {{0, 0, 1, 0}, 0.5, 0.5625},   // weights -1/16, 9/16, 9/16, -1/16
      {{1, 0, 0, 0}, 0.5, -0.0625},  // below a bright sample it goes negative
      {{0, 1, 1, 0}, 0.5, 1.125},    // and it overshoots: not clamped
      {{1, 2, 3, 5}, 0.0, 2.0},      // t = 0 gives p1
      {{1, 2, 3, 5}, 1.0, 3.0},      // t = 1 gives p2
      {{0, 1, 2, 3}, 0.25, 1.25},    // a straight line stays straight
      {{16, 16, 0, 0}, 0.5, 8.0},
  };
  for (const Case& c : cases) {
    double v[4] = {c.values[0], c.values[1], c.values[2], c.values[3]};
    EXPECT_EQ(cubicInterpolation(v, c.t), c.expected)
        << v[0] << " " << v[1] << " " << v[2] << " " << v[3] << " at " << c.t;
  }
  // Row k is {k, k, k + 1, k}: 0.5625 more than k at 0.5 along each row, then
  // a straight line down the column.
  double n[4][4] = {{0, 0, 1, 0}, {1, 1, 2, 1}, {2, 2, 3, 2}, {3, 3, 4, 3}};
  EXPECT_EQ(bicubicInterpolation(n, 0.5, 0.25), 1.8125);
}

// The fast loop against the reference on models and sizes that reach every
// path, every clamp and both ends of the range, on one and on several threads
// (the larger sizes in rows that the blocks do not divide evenly).
TEST(ImageTransformTest, FastLoopMatchesReferenceBitForBitOnAnyThreadCount) {
  struct Model {
    const char* name;
    Parameters p;
    int linearFlag;
    int highOrderFlag;
  };
  Parameters high = params({20.0, 15.0, 1.001, 0.998, 0.002, -0.001, 0.3, -0.7});
  const double terms[12] = {0.1,  0.01,  1e-4,  -0.02, 2e-5, -1e-4,
                            -0.2, 0.003, -2e-4, 0.01,  1e-5, 3e-5};
  std::copy(terms, terms + 12, high.begin() + kFirstHighOrderParameter);
  const Parameters general = params({20.0, 15.0, 1.02, 0.97, 0.01, -0.02, 0.4, -0.3});
  const std::vector<Model> models = {
      {"radial identity", params({20.0, 15.0, 1.0}), 0, 0},
      {"radial turn and scale", params({21.5, 14.0, 1.01, 0.02, 0.75, -1.25}), 0, 0},
      {"radial, high-order ignored", high, 0, 1},
      {"radial upside down", params({10.0, 10.0, 1.0, 3.14159265358979, 0.0, 0.0}), 0, 0},
      {"linear identity", params({20.0, 15.0, 1.0, 1.0}), 1, 0},
      {"linear general", general, 1, 0},
      {"linear half shift X", params({0.0, 0.0, 1.0, 1.0, 0.0, 0.0, 0.5, 0.0}), 1, 0},
      {"linear half shift Y", params({0.0, 0.0, 1.0, 1.0, 0.0, 0.0, 0.0, -0.5}), 1, 0},
      {"linear magnify", params({3.0, 3.0, 0.37, 0.41, 0.0, 0.0, 0.0, 0.0}), 1, 0},
      {"linear and high order", high, 1, 1},
      // All-zero high-order terms are skipped: the pixels must still be those
      // that adding the zeros gives, inside, on the edges (-0.0 made +0.0)
      // and far outside.
      {"zero high-order terms", general, 1, 1},
      {"zero terms, negative zeros", params({0.0, 0.0, 1.0, 1.0, 0.0, 0.0, -0.0, -0.0}), 1, 1},
      {"zero terms, far outside", params({7.0, 6.0, 1e300, -1e300, 0.0, 0.0, 0.5, 0.5}), 1, 1},
      {"NaN centre", params({NAN, 1.0, 1.0, 1.0}), 1, 0},
      {"far outside", params({0.0, 0.0, 1.0, 1.0, 0.0, 0.0, 1e9, 0.0}), 1, 0},
      // Scale 0: every pixel from one point, a corner or a clamped edge.
      {"one point", params({0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.5, 0.5}), 1, 0},
      {"one column", params({0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 8.0, 0.5}), 1, 0},
  };
  const std::pair<int, int> sizes[] = {{1, 1}, {1, 9},   {9, 1},   {2, 2},
                                       {3, 4}, {17, 23}, {40, 31}, {131, 151}};
  const int defaultThreads = omp_get_max_threads();
  uint32_t seed = 1;
  for (const Model& m : models) {
    for (auto [numRows, numCols] : sizes) {
      Section input = noise(numRows, numCols, seed++);
      Parameters p = m.p;
      Section expected(numRows, numCols, -5.0);
      reference::imageTransform(input.table(), p.data(), numRows, numCols, m.linearFlag,
                                m.highOrderFlag, expected.table());
      // The same section held as floats (its values are exact in a float):
      // sampled as they are, the pixels must not move by a bit.
      std::vector<float> floats(input.px.begin(), input.px.end());
      std::vector<float*> floatRows(numRows);
      for (int r = 0; r < numRows; ++r) floatRows[r] = floats.data() + std::size_t(r) * numCols;
      Section fromFloats(numRows, numCols, -7.0);
      imageTransformRows(floatRows.data(), p.data(), numRows, numCols, m.linearFlag,
                         m.highOrderFlag, fromFloats.table(), 0, numRows);
      EXPECT_TRUE(sameBits(fromFloats, expected)) << m.name << ", floats";
      for (int threads : {1, 3, 8}) {
        if (threads > 1 && numRows < 40) continue;
        SCOPED_TRACE(testing::Message() << m.name << ", " << numRows << " x " << numCols << ", "
                                        << threads << " threads");
        omp_set_num_threads(threads);
        EXPECT_TRUE(sameBits(transform(input, p, m.linearFlag, m.highOrderFlag), expected));
      }
    }
  }
  omp_set_num_threads(defaultThreads);
}

// On an odd count and on values that round, overflow, vanish or are not
// numbers.
TEST(ImageTransformTest, SectionNarrowingIsTheCast) {
  const double doubles[] = {0.1, -0.0, 1e300, -1e-300, 3.4028235677973366e38, NAN, 1.0 / 3.0};
  const int count = sizeof(doubles) / sizeof(doubles[0]);
  float narrowed[count], cast[count];
  narrowSection(doubles, narrowed, count);
  for (int i = 0; i < count; ++i) cast[i] = static_cast<float>(doubles[i]);
  EXPECT_EQ(std::memcmp(narrowed, cast, sizeof(cast)), 0);
}

// A failed allocation in one spot's task on a worker thread must reach the
// caller (and the program's handler) as the exception, after the other tasks.
TEST(ParallelLoops, AFailureOnAWorkerThreadReachesTheCaller) {
  const int defaultThreads = omp_get_max_threads();
  omp_set_num_threads(2);
  std::vector<int> done(8, 0);
  EXPECT_THROW(forEachSpotInOrder(8,
                                  [&](int k) {
                                    if (k == 5) throw std::bad_alloc();
                                    done[k] = 1;
                                  }),
               std::bad_alloc);
  EXPECT_EQ(std::count(done.begin(), done.end(), 1), 7);
  omp_set_num_threads(defaultThreads);
}

}  // namespace
