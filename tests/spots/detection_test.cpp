// Spot detection: cleaning of focus sections (threshold, blob size limits,
// the rewrite formula), 4-connected blobs, regional maxima with the row wrap,
// and window moments.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <string>

#include "spot_images.h"
#include "spots/internal.h"
#include "spots/spots.h"

using spottest::Plane;

namespace {

struct Block {
  int r0, r1, c0, c1;
  double value;
};

Plane withBlocks(int rows, int cols, double background, const std::vector<Block>& blocks) {
  Plane p(rows, cols, background);
  for (const Block& b : blocks)
    for (int r = b.r0; r <= b.r1; ++r)
      for (int c = b.c0; c <= b.c1; ++c) p.at(r, c) = b.value;
  return p;
}

// Digits 0-9, rows joined by '/'.
Plane fromArt(const std::string& art) {
  const int cols =
      static_cast<int>(art.find('/') == std::string::npos ? art.size() : art.find('/'));
  Plane p(static_cast<int>(art.size() + 1) / (cols + 1), cols);
  for (int r = 0; r < p.rows; ++r)
    for (int c = 0; c < cols; ++c) p.at(r, c) = art[r * (cols + 1) + c] - '0';
  return p;
}

}  // namespace

TEST(PrepareFocusImage, RewritesPixelsByThresholdMeanAndBlobSize) {
  struct Probe {
    int row, col;
    double expected;
  };
  struct Case {
    const char* name;
    double gridThreshold;
    int size;
    double background;
    std::vector<Block> blocks;
    std::vector<Probe> probes;
  };
  const double sizeMean = 12070.5 / 6400;
  const std::vector<Block> smallBlob = {{0, 3, 0, 3, 5.0}};  // mean 0.05 on 40 x 40
  // clang-format off
  const std::vector<Case> cases = {
      // Blobs of 15, 16, 299 and 300 pixels; one pixel of 1.5 lies above the
      // threshold (1.0) but not above the mean.
      {"size limits", 0.5, 80, 1.0,
       {{2, 4, 2, 6, 10}, {2, 5, 10, 13, 10}, {10, 22, 2, 24, 10}, {30, 44, 2, 21, 10},
        {60, 60, 60, 60, 1.5}},
       {{0, 0, sizeMean}, {3, 3, 0}, {3, 11, 10}, {15, 10, 10}, {35, 10, sizeMean},
        {60, 60, sizeMean}}},
      // Scattered 5s lie above the mean but not above the threshold: 0.0.
      {"moat", 0.985, 40, 0.0,
       {{10, 13, 10, 13, 100}, {20, 20, 0, 39, 5}, {22, 22, 0, 39, 5}, {24, 24, 0, 19, 5}},
       {{0, 0, 1.3125}, {20, 0, 0}, {11, 11, 100}}},
      // Threshold 0.0 below the mean 3.9: 2 x mean in a blob of 400, pixel +
      // mean in a blob of 20, both not above the mean.
      {"threshold below mean", 0.5, 40, 0.0,
       {{0, 19, 0, 19, 2}, {25, 28, 0, 4, 2}, {0, 9, 22, 39, 30}},
       {{5, 5, 7.8}, {26, 2, 5.9}, {5, 30, 30}, {35, 35, 3.9}}},
      // Two 8-pixel blobs that touch at a corner are two blobs.
      {"corner touch", 0.5, 40, 0.0, {{5, 6, 5, 8, 50}, {7, 8, 9, 12, 50}, {20, 23, 20, 23, 50}},
       {{5, 5, 0}, {8, 12, 0}, {21, 21, 50}, {0, 0, 1.0}}},
      // The threshold is strict: the block equals it and is not bright.
      {"strict threshold", 0.99, 40, 0.0, {{0, 9, 0, 9, 5}}, {{5, 5, 0}, {20, 20, 0.3125}}},
      {"fraction 1.0", 1.0, 40, 0.0, smallBlob, {{1, 1, 0}, {20, 20, 0.05}}},
      {"fraction NaN", std::nan(""), 40, 0.0, smallBlob, {{1, 1, 0}, {20, 20, 0.05}}},
      {"one pixel", 0.995, 1, 4.0, {}, {{0, 0, 4.0}}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    spottest::ScopedGridThreshold threshold(c.gridThreshold);
    Plane p = withBlocks(c.size, c.size, c.background, c.blocks);
    prepareFocusImage(p.px.data(), p.rows, p.cols);
    for (const Probe& probe : c.probes)
      EXPECT_NEAR(p.at(probe.row, probe.col), probe.expected, 1e-12)
          << probe.row << "," << probe.col;
  }
}

TEST(ConnectedComponentLabelingFour, ListsBlobsInRasterOrderOfFirstPixel) {
  const std::string art = "11.11..1..111...";  // 4 x 4
  std::vector<char> mask;
  for (char ch : art) mask.push_back(ch == '1');
  std::vector<std::vector<int>> components = {{99}};  // appended to, not cleared
  connectedComponentLabelingFour(mask.data(), components, 4, 4);
  const std::vector<std::set<int>> expected = {{99}, {0, 1, 4}, {3, 7, 10, 11}, {12}};
  ASSERT_EQ(components.size(), expected.size());
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
    std::string image, flags;
  };
  const std::vector<Case> cases = {
      {"2 by 2 plateau", "0000/0110/0110/0000", "0000/0110/0110/0000"},
      {"constant", "333/333", "111/111"},
      {"plateau beside a higher pixel", "11112/11111", "00001/00000"},
      // (1,0) neighbours (0,3) through the row wrap, which is intended.
      {"row wrap", "0009/5000/0000", "0001/0000/0000"},
      // (0,4) is a maximum in two dimensions but joins (1,0) at level 5
      // across the wrap, and (1,0) touches the 9.
      {"plateau cleared across the wrap", "11115/51111/19111", "00000/00000/01000"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Plane p = fromArt(c.image);
    const std::vector<double> before = p.px;
    std::vector<char> flags(p.px.size(), 7);
    imageRegionalMax(p.px.data(), p.rows, p.cols, flags.data());
    std::string got;
    for (std::size_t i = 0; i < flags.size(); ++i)
      got += (i > 0 && i % p.cols == 0 ? "/" : "") + std::string(1, char('0' + flags[i]));
    EXPECT_EQ(got, c.flags);
    EXPECT_EQ(p.px, before);
  }
}

TEST(CalculateCenterOfMass, MomentsCountFromOneAndClipNegativeProfiles) {
  struct Case {
    const char* name;
    int rows, cols;
    double background;
    std::vector<Block> pixels;
    double expected[5];  // row centre, col centre, row spread, col spread, mean
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"single pixel", 7, 9, 0.0, {{3, 3, 5, 5, 4.0}}, {4, 6, 0, 0, 4.0 / 63}},
      {"two pixels in a row", 3, 5, 0.0, {{1, 1, 1, 1, 2}, {1, 1, 3, 3, 2}},
       {2, 3, 0, 1, 4.0 / 15}},
      {"nothing positive", 4, 6, -1.0, {}, {2, 3, 4, 6, -1}},
      // The column sum -5 is clipped; the row sum -3 sends rows to the
      // fallback; the mean keeps the negative pixel.
      {"negative clipped in profiles only", 1, 3, 0.0, {{0, 0, 0, 0, -5}, {0, 0, 1, 1, 2}},
       {0.5, 2, 1, 0, -1}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Plane p = withBlocks(c.rows, c.cols, c.background, c.pixels);
    double result[5];
    calculateCenterOfMass(p.px.data(), p.rows, p.cols, result);
    for (int k = 0; k < 5; ++k) EXPECT_NEAR(result[k], c.expected[k], 1e-12) << k;
  }
}
