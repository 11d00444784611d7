// Point correspondence: candidates from the reference in raster order, the
// 30-pixel border, pairs fitted at the same integer position in both images,
// dropped pairs, and the nothing-bright case.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "spot_images.h"
#include "spots/spots.h"

using spottest::Plane;
using spottest::ScopedGridThreshold;

namespace {

struct Spot {
  double row, col;
};

Plane spotImage(int rows, int cols, const std::vector<Spot>& spots, double dRow = 0.0,
                double dCol = 0.0) {
  Plane p(rows, cols, 10.0);
  for (const Spot& s : spots) spottest::addSpot(p, s.row + dRow, s.col + dCol, 1.6, 300.0);
  return p;
}

struct Pairs {
  std::vector<CorvanePoint2D> image, reference;
};

Pairs pair(Plane& image, Plane& reference) {
  Pairs out;
  testing::internal::CaptureStdout();
  findCorrespondencePoint(image.table(), reference.table(), image.rows, image.cols, out.image,
                          out.reference);
  testing::internal::GetCapturedStdout();
  return out;
}

const std::vector<Spot> kGrid = {
    {40.6, 40.1}, {40.2, 120.3}, {80.4, 80.3}, {120.3, 40.7}, {79.8, 120.2}};
// kGrid in raster order of the spots' brightest pixels: (40, 120), (41, 40),
// (80, 80), (80, 120), (120, 41).
const std::vector<Spot> kGridRaster = {
    {40.2, 120.3}, {40.6, 40.1}, {80.4, 80.3}, {79.8, 120.2}, {120.3, 40.7}};

}  // namespace

TEST(FindCorrespondencePoint, PairsSpotsInRasterOrderOfTheReference) {
  ScopedGridThreshold threshold(0.995);
  struct Case {
    const char* name;
    std::function<void(Plane& image, Plane& reference)> edit;
    std::vector<Spot> expected;  // reference centres, in order
    double dRow, dCol;           // image = reference shifted by this
  };
  const auto darkLeft = [](Plane& image, Plane&) {
    for (int r = 0; r < image.rows; ++r)
      for (int c = 0; c < 70; ++c) image.at(r, c) = -5.0;
  };
  const auto border = [](Plane& image, Plane& reference) {
    for (Plane* p : {&image, &reference}) {
      p->at(29, 80) = 1000.0;
      spottest::addSpot(*p, 30.0, 100.0, 1.6, 300.0);
    }
  };
  std::vector<Spot> withBorder = {{30.0, 100.0}};
  withBorder.insert(withBorder.end(), kGridRaster.begin(), kGridRaster.end());
  // clang-format off
  const std::vector<Case> cases = {
      {"shifted copy", [](Plane&, Plane&) {}, kGridRaster, 2.3, -1.6},
      {"fit fails in the image for the left spots", darkLeft,
       {{40.2, 120.3}, {80.4, 80.3}, {79.8, 120.2}}, 0.0, 0.0},
      {"a bright pixel on row 29 is not a candidate, a spot on row 30 is", border, withBorder, 0.0,
       0.0},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Plane reference = spotImage(160, 160, kGrid);
    Plane image = spotImage(160, 160, kGrid, c.dRow, c.dCol);
    c.edit(image, reference);
    const Plane before = image;
    Pairs p = pair(image, reference);
    EXPECT_EQ(image.px, before.px);
    ASSERT_EQ(p.reference.size(), c.expected.size());
    ASSERT_EQ(p.image.size(), c.expected.size());
    for (std::size_t k = 0; k < c.expected.size(); ++k) {
      const double tolerance = 1e-2;
      EXPECT_NEAR(p.reference[k].y, c.expected[k].row, tolerance) << k;
      EXPECT_NEAR(p.reference[k].x, c.expected[k].col, tolerance) << k;
      EXPECT_NEAR(p.image[k].y, c.expected[k].row + c.dRow, tolerance) << k;
      EXPECT_NEAR(p.image[k].x, c.expected[k].col + c.dCol, tolerance) << k;
    }
  }
}

// With nothing bright inside the border every pixel is a candidate.
TEST(FindCorrespondencePoint, NothingBrightInsideTheBorderMakesEveryPixelACandidate) {
  struct Case {
    const char* name;
    int rows, cols;
    double gridThreshold;
    std::size_t pairs;
  };
  const std::vector<Case> cases = {
      {"band empty below 61 rows", 12, 12, 0.995, 144},
      {"band of a single pixel at 61 by 61", 61, 61, 0.995, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScopedGridThreshold threshold(c.gridThreshold);
    Plane reference = spotImage(c.rows, c.cols, {{(c.rows - 1) / 2.0, (c.cols - 1) / 2.0}});
    Plane image = reference;
    Pairs p = pair(image, reference);
    EXPECT_EQ(p.reference.size(), c.pairs);
    EXPECT_EQ(p.image.size(), c.pairs);
  }
}

// The reference's candidates and fits are kept from one pairing to the next:
// a reference edited in place must be measured again, and an equal one in
// another buffer must give the very same pairs.
TEST(FindCorrespondencePoint, AReferenceEditedInPlaceIsMeasuredAgain) {
  ScopedGridThreshold threshold(0.995);
  Plane reference = spotImage(160, 160, kGrid);
  Plane image = spotImage(160, 160, kGrid, 0.4, -0.3);
  const Pairs before = pair(image, reference);
  std::vector<Spot> moved = kGrid;
  moved[2].col += 0.5;  // kGridRaster[2]
  const Plane edit = spotImage(160, 160, moved);
  std::copy(edit.px.begin(), edit.px.end(), reference.px.begin());  // same buffer
  const Pairs after = pair(image, reference);
  ASSERT_EQ(after.reference.size(), before.reference.size());
  EXPECT_NEAR(after.reference[2].x - before.reference[2].x, 0.5, 1e-2);
  Plane copy = reference;
  const Pairs again = pair(image, copy);
  ASSERT_EQ(again.reference.size(), after.reference.size());
  for (std::size_t k = 0; k < again.reference.size(); ++k) {
    EXPECT_EQ(again.reference[k].x, after.reference[k].x) << k;
    EXPECT_EQ(again.reference[k].y, after.reference[k].y) << k;
    EXPECT_EQ(again.image[k].x, after.image[k].x) << k;
    EXPECT_EQ(again.image[k].y, after.image[k].y) << k;
  }
}
