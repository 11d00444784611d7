// Sub-pixel Gaussian spot fit: centres on known spots, the search and fit
// windows at edges, raster-order ties, the fall-backs and the failure lines.

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "spot_images.h"
#include "spots/spots.h"

using spottest::Plane;

namespace {

constexpr double kUnset = -777.0;

struct FitResult {
  int status;
  double row = kUnset, col = kUnset;
  std::string out;
};

FitResult fit(Plane& p, int row, int col) {
  FitResult r;
  testing::internal::CaptureStdout();
  r.status = fitPoint(p.table(), p.rows, p.cols, row, col, &r.row, &r.col);
  r.out = testing::internal::GetCapturedStdout();
  return r;
}

}  // namespace

TEST(FitPoint, FindsSpotCentresInWholeImageCoordinates) {
  struct Spot {
    double row, col, sigma, amplitude;
  };
  struct Case {
    const char* name;
    int size;
    std::vector<Spot> spots;
    int startRow, startCol;
    double row, col;  // expected centre
  };
  const std::vector<Case> cases = {
      {"interior", 48, {{20.3, 21.7, 1.5, 400}}, 20, 22, 20.3, 21.7},
      {"clipped at the top left", 40, {{2.4, 1.7, 1.6, 400}}, 2, 2, 2.4, 1.7},
      {"clipped at the bottom right", 40, {{37.6, 38.3, 1.8, 400}}, 38, 38, 37.6, 38.3},
      {"sigma above 10 keeps the moment spread", 64, {{31.3, 32.2, 12, 400}}, 31, 32, 31.3, 32.2},
      // The bright spot B is taken from 15 pixels off on both axes; from 16 it
      // is out of sight and the faint spot A is found.
      {"15 pixels away", 64, {{24.3, 24.2, 1.5, 250}, {40, 40, 1.0, 400}}, 25, 25, 40, 40},
      {"16 pixels away", 64, {{24.3, 24.2, 1.5, 250}, {40, 40, 1.0, 400}}, 24, 24, 24.3, 24.2},
      // Equal peaks: the first in raster order wins, in one row and across rows.
      {"tie in a row", 48, {{20, 10, 1.5, 400}, {20, 22, 1.5, 400}}, 20, 16, 20, 10},
      {"tie across rows", 48, {{10, 30, 1.5, 400}, {22, 18, 1.5, 400}}, 16, 24, 10, 30},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Plane p(c.size, c.size, 10.0);
    for (const Spot& s : c.spots) spottest::addSpot(p, s.row, s.col, s.sigma, s.amplitude);
    FitResult r = fit(p, c.startRow, c.startCol);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_NEAR(r.row, c.row, 1e-3);
    EXPECT_NEAR(r.col, c.col, 1e-3);
  }
}

TEST(FitPoint, FailsWithoutPeakOrSolverAndLeavesOutputsUnchanged) {
  struct Case {
    const char* name;
    Plane image;
    int row, col;
    std::string out;
  };
  Plane narrow(30, 3, 10.0), flat(3, 30, 10.0);
  narrow.at(15, 1) = flat.at(1, 15) = 100.0;
  Plane withNan(30, 30, 10.0);
  withNan.at(15, 15) = 100.0;
  withNan.at(17, 12) = std::nan("");
  std::vector<Case> cases = {
      {"too narrow for the row fit", narrow, 15, 1, "error in dtrnlsp_init\n"},
      // The row fit succeeds; the column of 3 cannot be fitted.
      {"too short for the column fit", flat, 1, 15, "error in dtrnlsp_init\n"},
      {"no pixel above -1.0", Plane(30, 30, -2.0), 15, 15, ""},
      {"position far off the image", Plane(30, 30, 5.0), 100, 100, ""},
      {"empty image", Plane(0, 0), 0, 0, ""},
      // Would otherwise hang the solver's factorisation.
      {"NaN pixel in the fit window", withNan, 15, 15, ""},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    FitResult r = fit(c.image, c.row, c.col);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.row, kUnset);
    EXPECT_EQ(r.col, kUnset);
  }
}

// On a plane rising towards the bottom right corner every fit puts its
// centre outside the window: the result is the moment centre, which counts
// from 1.
TEST(FitPoint, CentresOutsideTheWindowLeaveTheMomentCentre) {
  Plane ramp(20, 20);
  for (int r = 0; r < 20; ++r)
    for (int c = 0; c < 20; ++c) ramp.at(r, c) = r + 2 * c;
  std::vector<double> window;  // the fit window: rows and columns 10 to 19
  for (int r = 10; r < 20; ++r)
    for (int c = 10; c < 20; ++c) window.push_back(ramp.at(r, c));
  double m[5];
  calculateCenterOfMass(window.data(), 10, 10, m);
  FitResult r = fit(ramp, 19, 19);
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.row, 10.0 + m[0]);
  EXPECT_EQ(r.col, 10.0 + m[1]);
}
