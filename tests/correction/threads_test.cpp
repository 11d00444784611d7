// The section transform on several threads and on its fast paths: the same
// bits as the step-by-step reference for any thread count, zero high-order
// terms included, and the section conversions equal to the casts.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "correction/reference_transform.h"
#include "spots/spots.h"

namespace {

// Large enough to be spread over threads, in rows that the blocks do not
// divide evenly; odd widths leave a last pixel outside the pairs and fours.
constexpr int kRows = 131;
constexpr int kCols = 151;

struct Plane {
  std::vector<double> pixels;
  std::vector<double*> rows;
  explicit Plane(double fill = 0.0) : pixels(kRows * kCols, fill) {
    for (int y = 0; y < kRows; ++y) rows.push_back(pixels.data() + y * kCols);
  }
  bool operator==(const Plane& o) const {
    return std::memcmp(pixels.data(), o.pixels.data(), pixels.size() * sizeof(double)) == 0;
  }
};

Plane noise() {
  Plane p;
  uint32_t seed = 977;
  for (double& v : p.pixels) {
    seed = seed * 1664525u + 1013904223u;
    v = static_cast<double>(seed >> 8) / 4096.0 - 1000.0;
  }
  return p;
}

std::vector<double> params(std::initializer_list<double> leading) {
  std::vector<double> p(leading);
  p.resize(kNumModelParameters, 0.0);
  return p;
}

TEST(ImageTransformThreadsTest, EveryThreadCountGivesTheReferenceBits) {
  struct Case {
    const char* name;
    std::vector<double> p;
    int linearFlag;
    int highOrderFlag;
  };
  std::vector<double> high = params({75.0, 65.0, 1.004, 0.997, 0.003, -0.002, 1.3, -0.7});
  const double terms[12] = {0.2,  1e-3, 2e-5,  -1e-3, 3e-5, -1e-5,
                            -0.1, 2e-3, -1e-5, 1e-3,  2e-5, 1e-5};
  std::copy(terms, terms + 12, high.begin() + kFirstHighOrderParameter);
  const Case cases[] = {
      {"radial, turned and shifted", params({75.0, 65.0, 1.003, 0.004, 1.37, -0.82}), 0, 1},
      {"radial, scaled past the edges", params({75.5, 65.0, 1.2, -0.1, 9.0, 4.0}), 0, 0},
      {"linear, fractional on both axes",
       params({75.0, 65.0, 1.002, 0.998, 0.0015, -0.002, 2.7, -1.6}), 1, 0},
      {"linear, whole shift on X only", params({75.0, 65.0, 1.0, 0.997, 0.0, 0.0, 3.0, 0.4}), 1, 1},
      {"linear with high-order terms", high, 1, 1},
      {"NaN model", params({75.0, 65.0, NAN, 1.0}), 1, 0},
      // All-zero high-order terms are skipped: the pixels must still be those
      // that adding the zeros gives, inside, on the edges (-0.0 made +0.0)
      // and far outside.
      {"zero high-order terms", params({75.0, 65.0, 1.002, 0.998, 0.0015, -0.002, 2.7, -1.6}), 1,
       1},
      {"zero terms, negative zeros", params({0.0, 0.0, 1.0, 1.0, 0.0, 0.0, -0.0, -0.0}), 1, 1},
      {"zero terms, far outside", params({75.0, 65.0, 1e300, -1e300, 0.0, 0.0, 0.5, 0.5}), 1, 1},
  };
  Plane input = noise();
  const int defaultThreads = omp_get_max_threads();
  for (const Case& c : cases) {
    std::vector<double> p = c.p;
    Plane expected(-1.0);
    reference::imageTransform(input.rows.data(), p.data(), kRows, kCols, c.linearFlag,
                              c.highOrderFlag, expected.rows.data());
    for (int threads : {1, 2, 3, 8}) {
      omp_set_num_threads(threads);
      Plane output(-2.0);
      imageTransform(input.rows.data(), p.data(), kRows, kCols, c.linearFlag, c.highOrderFlag,
                     output.rows.data());
      EXPECT_TRUE(output == expected) << c.name << ", " << threads << " threads";
    }
  }
  omp_set_num_threads(defaultThreads);
}

// The section conversions against the casts, on an odd count and on values
// that round, overflow, vanish or are not numbers.
TEST(ImageTransformThreadsTest, SectionConversionsAreTheCasts) {
  const double doubles[] = {0.1, -0.0, 1e300, -1e-300, 3.4028235677973366e38, NAN, 1.0 / 3.0};
  const int count = sizeof(doubles) / sizeof(doubles[0]);
  float narrowed[count], cast[count];
  narrowSection(doubles, narrowed, count);
  for (int i = 0; i < count; ++i) cast[i] = static_cast<float>(doubles[i]);
  EXPECT_EQ(std::memcmp(narrowed, cast, sizeof(cast)), 0);
  double widened[count], exact[count];
  widenSection(cast, widened, count);
  for (int i = 0; i < count; ++i) exact[i] = cast[i];
  EXPECT_EQ(std::memcmp(widened, exact, sizeof(exact)), 0);
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
