// Focus section search: histogram bins and the region contrast against
// straightforward versions, and the search on real stack files
// (known best section, an outlying region, rounding, the ignored time point,
// a failing read).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include "bench/stack_writer.h"
#include "imsubs/imsubs.h"
#include "spot_images.h"
#include "spots/spots.h"
#include "support/testutil.h"

namespace {

// The bins exactly as defined: every value scanned against every bin.
void referenceHistogram(std::vector<double>& data, int numBins, std::vector<double>& centers,
                        std::vector<double>& counts) {
  std::sort(data.begin(), data.end());
  double lowest = data.front(), highest = data.back();
  if (lowest == highest) {
    lowest = lowest - std::floor(0.5 * numBins) - 0.5;
    highest = std::ceil(0.5 * numBins) + highest - 0.5;
  }
  const double width = (highest - lowest) / numBins, half = 0.5 * width;
  std::vector<double> edges;
  for (int i = 0; i <= numBins; ++i) {
    edges.push_back(i * width + lowest);
    centers.push_back(edges.back() + half);
  }
  centers.pop_back();
  edges.back() = highest;
  counts.assign(numBins, 0.0);
  for (double v : data) {
    if (v == edges[0]) {
      counts[0] += 1.0;
      continue;
    }
    for (int j = 0; j < numBins; ++j)
      if (v > edges[j] && v <= edges[j + 1]) counts[j] += 1.0;
  }
}

// The region contrast as defined, sorting histogram and all.
std::vector<double> referenceContrast(float** s, int rows, int cols) {
  std::vector<double> out;
  const int rr = rows / 4, rc = cols / 4;
  for (int i = 0; i < 16; ++i) {
    std::vector<double> v;
    for (int r = i / 4 * rr; r < (i / 4 + 1) * rr; ++r)
      for (int c = i % 4 * rc; c < (i % 4 + 1) * rc; ++c) v.push_back(s[r][c]);
    const double mx = std::max(-1.0, *std::max_element(v.begin(), v.end()));
    const double mn = *std::min_element(v.begin(), v.end()), range = mx - mn;
    std::vector<double> centers, n;
    for (double& p : v) p = (p - mn) * (1.0 / range);
    if (range != 0.0) referenceHistogram(v, 100, centers, n);
    double level[2] = {0, 0}, count[2] = {0, 0};
    for (int b = 0; b < 5 && range != 0.0; ++b) {
      level[0] += centers[b] * n[b], count[0] += n[b];
      level[1] += centers[95 + b] * n[95 + b], count[1] += n[95 + b];
    }
    out.push_back(range == 0.0 ? 0.0 : (level[1] / count[1] - level[0] / count[0]) * range);
  }
  return out;
}

}  // namespace

// The bin search must agree with every value scanned against every bin, on
// spread values, on many ties and on one common value; the data come back
// sorted.
TEST(Histgram, FastBinningMatchesTheFullScan) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 40; ++trial) {
    const int numBins = trial % 2 ? 100 : 7;
    std::vector<double> data(trial < 2 ? 3 : 500 + trial * 13, 7.0);
    for (double& v : data) {
      if (trial < 2) break;
      v = trial % 3 ? std::uniform_real_distribution<double>(-3, 1e3)(rng)
                    : std::uniform_int_distribution<int>(0, 20)(rng) * 0.1;
    }
    std::vector<double> copy = data, centers, counts = {9, 9}, refCenters, refCounts;
    histgram(data, numBins, centers, counts);
    referenceHistogram(copy, numBins, refCenters, refCounts);
    EXPECT_EQ(data, copy);
    EXPECT_EQ(counts, refCounts);
    EXPECT_EQ(centers, refCenters);
  }
}

TEST(CalculateSubRegionContrast, MatchesTheDefinitionAndIgnoresLeftovers) {
  std::mt19937 rng(5);
  struct Case {
    const char* name;
    int rows, cols;
    std::function<float(int, int)> pixel;
  };
  const std::vector<Case> cases = {
      {"noise", 67, 45, [&](int, int) { return std::poisson_distribution<int>(30)(rng); }},
      {"fine ramp", 64, 64, [](int r, int c) { return float(r * 64 + c) * 0.37f; }},
      {"flat regions", 32, 32, [](int r, int) { return r < 16 ? 5.0f : float(r); }},
      {"signed zeros", 40, 41,
       [](int r, int c) { return (r * c) % 3   ? float((r + c) % 4)
                                 : (r + c) % 2 ? -0.0f
                                               : 0.0f; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    spottest::PlaneOf<float> s(c.rows, c.cols);
    for (int r = 0; r < c.rows; ++r)
      for (int col = 0; col < c.cols; ++col) s.at(r, col) = c.pixel(r, col);
    std::vector<double> contrast = {-1.0};  // appended to
    calculateSubRegionContrast(s.table(), c.rows, c.cols, 4, 4, contrast);
    std::vector<double> expected = {-1.0};
    for (double v : referenceContrast(s.table(), c.rows, c.cols)) expected.push_back(v);
    EXPECT_EQ(contrast, expected);
  }
  // Smaller than the grid: empty regions count as flat.
  spottest::PlaneOf<float> s(3, 3);
  std::vector<double> contrast;
  calculateSubRegionContrast(s.table(), 3, 3, 4, 4, contrast);
  EXPECT_EQ(contrast, std::vector<double>(16, 0.0));
}

namespace {

constexpr int kStream = 9;
constexpr int kRows = 64, kCols = 64;

// A texture whose strength in region `region` peaks at the section `best`.
using BestOf = std::function<int(int region, int time)>;

float stackPixel(int r, int c, int z, int t, const BestOf& best) {
  const int region = (r / (kRows / 4)) * 4 + c / (kCols / 4);
  const double strength = 100.0 / (1.0 + std::abs(z - best(region, t)));
  return float(50.0 + strength * (((r * 7 + c * 13) % 11) / 10.0));
}

void writeStack(const std::string& path, int nz, int nt, const BestOf& best) {
  testutil::StackLayout layout;
  layout.nx = kCols, layout.ny = kRows, layout.nz = nz, layout.nt = nt;
  const auto fill = [&](std::vector<float>& section, int z, int, int t) {
    for (int r = 0; r < kRows; ++r)
      for (int c = 0; c < kCols; ++c) section[r * kCols + c] = stackPixel(r, c, z, t, best);
  };
  ASSERT_TRUE(testutil::writeStack(path, layout, fill, kStream));
}

}  // namespace

TEST(FocusSearch, FindsTheBestSectionOfAStack) {
  struct Case {
    const char* name;
    int nz;
    BestOf best;
    int expected;
  };
  const std::vector<Case> cases = {
      {"all regions agree", 9, [](int, int t) { return t == 0 ? 4 : 1; }, 4},
      // Untrimmed, the mean of the votes would be 6.5.
      {"one region far off is trimmed", 60, [](int region, int) { return region == 5 ? 59 : 3; },
       3},
      {"half-way mean rounds up", 9, [](int region, int) { return region < 8 ? 2 : 3; }, 3},
      {"one section", 1, [](int, int) { return 0; }, 0},
  };
  testutil::ScratchDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.file("stack.qf");
    writeStack(path, c.nz, 2, c.best);
    char mode[] = "ro";
    ASSERT_EQ(IMOpen(kStream, path.c_str(), mode), 0);
    // Time point 1 has another best section; asking for it changes nothing.
    std::vector<float> section(kRows * kCols, -1.0f);
    int focusIndex = -1;
    getFocusImagePerChannel(kStream, 0, 1, c.nz, kRows, kCols, 4, 4, section.data(), &focusIndex);
    EXPECT_EQ(focusIndex, c.expected);
    EXPECT_EQ(section[5 * kCols + 9], stackPixel(5, 9, c.expected, 0, c.best));
    EXPECT_EQ(getFocusImageIndexPerChannel(kStream, 0, 0, c.nz, kRows, kCols, 4, 4), c.expected);
    IMClose(kStream);
  }
}

TEST(FocusSearchDeathTest, FailingReadEndsTheRun) {
  testutil::ScratchDir dir;
  const std::string path = dir.file("stack.qf");
  writeStack(path, 3, 1, [](int, int) { return 1; });
  char mode[] = "ro";
  ASSERT_EQ(IMOpen(kStream, path.c_str(), mode), 0);
  std::vector<float> section(kRows * kCols);
  int focusIndex = -1;
  // Channel 1 does not exist.
  EXPECT_EXIT(
      getFocusImagePerChannel(kStream, 1, 0, 3, kRows, kCols, 4, 4, section.data(), &focusIndex),
      testing::ExitedWithCode(1), "getFocusImageIndexPerChannel:  IMPosnZWT failed.\n$");
  IMClose(kStream);
}
