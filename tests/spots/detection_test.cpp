// Spot detection: cleaning of focus sections (percentile, blob size limits,
// the rewrite formula), 4-connected blobs, regional maxima with the row wrap,
// and window moments.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <set>
#include <string>

#include "spot_images.h"
#include "spots/internal.h"
#include "spots/spots.h"

using spottest::Plane;
using spottest::ScopedGridThreshold;

namespace {

void fillBlock(Plane& p, int r0, int r1, int c0, int c1, double v) {
  for (int r = r0; r <= r1; ++r)
    for (int c = c0; c <= c1; ++c) p.at(r, c) = v;
}

// Digits 0-9, one row per string.
Plane fromArt(const std::vector<std::string>& art) {
  Plane p(static_cast<int>(art.size()), static_cast<int>(art[0].size()));
  for (int r = 0; r < p.rows; ++r)
    for (int c = 0; c < p.cols; ++c) p.at(r, c) = art[r][c] - '0';
  return p;
}

struct Probe {
  int row, col;
  double expected;
};

struct PrepareCase {
  const char* name;
  double gridThreshold;
  std::function<Plane()> make;
  std::vector<Probe> probes;
};

}  // namespace

TEST(PrepareFocusImage, RewritesPixelsByThresholdMeanAndBlobSize) {
  const double nan = std::nan("");
  const std::vector<PrepareCase> cases = {
      // 15 and 16, 299 and 300 pixel blobs of 10 on 1.0; one pixel of 1.5
      // sits above the threshold but not above the mean.
      {"size limits",
       0.5,
       [] {
         Plane p(80, 80, 1.0);
         fillBlock(p, 2, 4, 2, 6, 10.0);     // 15
         fillBlock(p, 2, 5, 10, 13, 10.0);   // 16
         fillBlock(p, 10, 22, 2, 24, 10.0);  // 299
         fillBlock(p, 30, 44, 2, 21, 10.0);  // 300
         p.at(60, 60) = 1.5;
         return p;
       },
       {{0, 0, 12070.5 / 6400},
        {3, 3, 0.0},
        {3, 11, 10.0},
        {15, 10, 10.0},
        {35, 10, 12070.5 / 6400},
        {60, 60, 12070.5 / 6400}}},
      // Pixels above the mean but not above the threshold become 0.0.
      {"moat",
       0.985,
       [] {
         Plane p(40, 40);
         fillBlock(p, 10, 13, 10, 13, 100.0);
         for (int r = 20; r < 40; r += 2)
           for (int c = 0; c < 40; c += 4) p.at(r, c) = 5.0;
         return p;
       },
       {{0, 0, 1.3125}, {20, 0, 0.0}, {11, 11, 100.0}}},
      // Threshold (0.0) below the mean (3.9): the formula still holds.
      {"threshold below mean",
       0.5,
       [] {
         Plane p(40, 40);
         fillBlock(p, 0, 19, 0, 19, 2.0);   // 400 pixels, not above mean
         fillBlock(p, 25, 28, 0, 4, 2.0);   // 20 pixels, not above mean
         fillBlock(p, 0, 9, 22, 39, 30.0);  // 180 pixels, above mean
         return p;
       },
       {{5, 5, 7.8}, {26, 2, 5.9}, {5, 30, 30.0}, {35, 35, 3.9}}},
      // Two 8-pixel blobs that touch at a corner are two blobs.
      {"corner touch",
       0.5,
       [] {
         Plane p(40, 40);
         fillBlock(p, 5, 6, 5, 8, 50.0);
         fillBlock(p, 7, 8, 9, 12, 50.0);
         fillBlock(p, 20, 23, 20, 23, 50.0);
         return p;
       },
       {{5, 5, 0.0}, {8, 12, 0.0}, {21, 21, 50.0}, {0, 0, 1.0}}},
      // The threshold is strict: the block equals it and is not bright.
      {"strict threshold",
       0.99,
       [] {
         Plane p(40, 40);
         fillBlock(p, 0, 9, 0, 9, 5.0);
         return p;
       },
       {{5, 5, 0.0}, {20, 20, 0.3125}}},
      {"fraction 1.0",
       1.0,
       [] {
         Plane p(40, 40);
         fillBlock(p, 0, 3, 0, 3, 5.0);
         return p;
       },
       {{1, 1, 0.0}, {20, 20, 0.05}}},
      {"fraction 2.0",
       2.0,
       [] {
         Plane p(40, 40);
         fillBlock(p, 0, 3, 0, 3, 5.0);
         return p;
       },
       {{1, 1, 0.0}, {20, 20, 0.05}}},
      {"fraction NaN",
       nan,
       [] {
         Plane p(40, 40);
         fillBlock(p, 0, 3, 0, 3, 5.0);
         return p;
       },
       {{1, 1, 0.0}, {20, 20, 0.05}}},
      {"one pixel", 0.995, [] { return Plane(1, 1, 4.0); }, {{0, 0, 4.0}}},
  };
  for (const PrepareCase& c : cases) {
    SCOPED_TRACE(c.name);
    ScopedGridThreshold threshold(c.gridThreshold);
    Plane p = c.make();
    prepareFocusImage(p.px.data(), p.rows, p.cols);
    for (const Probe& probe : c.probes) {
      EXPECT_NEAR(p.at(probe.row, probe.col), probe.expected, 1e-12)
          << "at " << probe.row << "," << probe.col;
    }
  }
  prepareFocusImage(nullptr, 0, 5);  // an empty plane is left alone
}

// The selection that finds the percentile must give the element that a full
// sort puts at floor(n * fraction).
TEST(PrepareFocusImage, PercentileMatchesFullSort) {
  std::mt19937 rng(7);
  for (int n : {1, 2, 17, 1000, 4096}) {
    for (double fraction : {0.0, 0.001, 0.5, 0.995, 0.9999}) {
      std::vector<double> values(n);
      for (double& v : values) v = std::uniform_int_distribution<int>(0, n / 3 + 1)(rng) * 0.5;
      std::vector<double> sorted = values;
      std::sort(sorted.begin(), sorted.end());
      const double expected = sorted[static_cast<std::size_t>(std::floor(n * fraction))];
      EXPECT_EQ(percentileValue(values, fraction), expected) << n << " " << fraction;
    }
  }
}

TEST(ConnectedComponentLabelingFour, ListsBlobsInRasterOrderOfFirstPixel) {
  const std::vector<std::string> art = {"11.1", "1..1", "..11", "1..."};
  std::vector<char> mask;
  for (const std::string& row : art)
    for (char ch : row) mask.push_back(ch == '1');
  std::vector<std::vector<int>> components = {{99}};  // appended to, not cleared
  connectedComponentLabelingFour(mask.data(), components, 4, 4);
  ASSERT_EQ(components.size(), 4u);
  const std::vector<std::set<int>> expected = {{99}, {0, 1, 4}, {3, 7, 10, 11}, {12}};
  for (std::size_t k = 0; k < expected.size(); ++k) {
    EXPECT_EQ(std::set<int>(components[k].begin(), components[k].end()), expected[k]);
    EXPECT_EQ(components[k].size(), expected[k].size());  // no pixel twice
  }

  // A blob that covers a large image is walked without recursion.
  std::vector<char> full(1000 * 1000, 1);
  components.clear();
  connectedComponentLabelingFour(full.data(), components, 1000, 1000);
  ASSERT_EQ(components.size(), 1u);
  EXPECT_EQ(components[0].size(), 1000000u);
}

TEST(ImageRegionalMax, FlagsRegionalMaximaWithLinearNeighbourhood) {
  struct Case {
    const char* name;
    std::vector<std::string> image, flags;
  };
  const std::vector<Case> cases = {
      {"2 by 2 plateau", {"0000", "0110", "0110", "0000"}, {"0000", "0110", "0110", "0000"}},
      {"constant", {"333", "333"}, {"111", "111"}},
      {"plateau beside a higher pixel", {"11112", "11111"}, {"00001", "00000"}},
      // (1,0) neighbours (0,3) through the row wrap, which is intended.
      {"row wrap", {"0009", "5000", "0000"}, {"0001", "0000", "0000"}},
      // (0,4) is a maximum in two dimensions, but joins (1,0) at level 5 across
      // the wrap, and (1,0) touches the 9.
      {"plateau cleared across the wrap", {"11115", "51111", "19111"}, {"00000", "00000", "01000"}},
      {"single pixel", {"7"}, {"1"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Plane p = fromArt(c.image);
    const Plane before = p;
    std::vector<char> flags(p.px.size(), 7);
    imageRegionalMax(p.px.data(), p.rows, p.cols, flags.data());
    std::string got;
    for (int r = 0; r < p.rows; ++r) {
      for (int col = 0; col < p.cols; ++col) got += char('0' + flags[r * p.cols + col]);
      got += r + 1 < p.rows ? "/" : "";
    }
    std::string want;
    for (std::size_t r = 0; r < c.flags.size(); ++r)
      want += c.flags[r] + (r + 1 < c.flags.size() ? "/" : "");
    EXPECT_EQ(got, want);
    EXPECT_EQ(p.px, before.px);
  }
}

TEST(CalculateCenterOfMass, MomentsCountFromOneAndClipNegativeProfiles) {
  struct Case {
    const char* name;
    std::function<Plane()> make;
    double expected[5];  // row centre, col centre, row spread, col spread, mean
  };
  const std::vector<Case> cases = {
      {"single pixel",
       [] {
         Plane p(7, 9);
         p.at(3, 5) = 4.0;
         return p;
       },
       {4.0, 6.0, 0.0, 0.0, 4.0 / 63}},
      {"two pixels in a row",
       [] {
         Plane p(3, 5);
         p.at(1, 1) = p.at(1, 3) = 2.0;
         return p;
       },
       {2.0, 3.0, 0.0, 1.0, 4.0 / 15}},
      {"nothing positive", [] { return Plane(4, 6, -1.0); }, {2.0, 3.0, 4.0, 6.0, -1.0}},
      // The column sum -5 is clipped; the row sum -3 sends rows to the
      // fallback; the mean keeps the negative pixel.
      {"negative clipped in profiles only",
       [] {
         Plane p(1, 3);
         p.at(0, 0) = -5.0;
         p.at(0, 1) = 2.0;
         return p;
       },
       {0.5, 2.0, 1.0, 0.0, -1.0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Plane p = c.make();
    double result[5];
    calculateCenterOfMass(p.px.data(), p.rows, p.cols, result);
    for (int k = 0; k < 5; ++k) EXPECT_NEAR(result[k], c.expected[k], 1e-12) << k;
  }
}
