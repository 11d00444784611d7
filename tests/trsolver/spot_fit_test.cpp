// Fitting noisy synthetic Gaussian spots through the free solver and
// djacobix, as the sub-pixel fit does, recovers the centres within the
// statistical error that the noise allows.
#include <gtest/gtest.h>
#include <lapacke.h>

#include <cmath>
#include <vector>

#include "spot_models.h"

namespace {

constexpr double kNoise = 20.0;
constexpr int kSpots = 150;
constexpr int kWindow = 19;

// Standard errors of the parameters from sigma^2 (J^T J)^-1 at the truth.
std::vector<double> standardErrors(TrResidualFunction f, void* data, int n, int m,
                                   std::vector<double> truth) {
  std::vector<double> jac(static_cast<size_t>(m) * n), ntn(n * n, 0.0), inv(n * n, 0.0);
  const double step[1] = {1e-6};
  EXPECT_EQ(DJACOBIX(f, &n, &m, jac.data(), truth.data(), step, data), TRS_OK);
  for (int a = 0; a < n; ++a) {
    for (int b = 0; b < n; ++b) {
      for (int i = 0; i < m; ++i) ntn[a + b * n] += jac[i + a * m] * jac[i + b * m];
    }
    inv[a + a * n] = 1.0;
  }
  EXPECT_EQ(LAPACKE_dposv(LAPACK_COL_MAJOR, 'L', n, n, ntn.data(), n, inv.data(), n), 0);
  std::vector<double> se(n);
  for (int a = 0; a < n; ++a) se[a] = kNoise * std::sqrt(inv[a + a * n]);
  return se;
}

struct ZScores {
  double sumSquares = 0.0;
  int count = 0;
  double worst = 0.0;
  void add(double z) {
    sumSquares += z * z;
    ++count;
    worst = std::fmax(worst, std::fabs(z));
  }
  double rms() const { return std::sqrt(sumSquares / count); }
};

}  // namespace

TEST(SpotFit, OneDimensionalProfilesRecoverTheCentre) {
  spotmodels::Draws draws(20240611);
  std::vector<int> positions(kWindow);
  for (int i = 0; i < kWindow; ++i) positions[i] = i;
  ZScores z;
  for (int k = 0; k < kSpots; ++k) {
    const double truth[4] = {draws.uniform(7.0, 11.0), draws.uniform(1.2, 2.5),
                             draws.uniform(500.0, 2000.0), 100.0};
    const std::vector<double> values = spotmodels::sampleProfile(truth, kWindow, kNoise, draws);
    spotmodels::OneDimensionData data{values.data(), positions.data()};
    std::vector<double> x = {truth[0] + draws.uniform(-1.0, 1.0), truth[1] * 1.3, truth[2] * 0.8,
                             truth[3] + 30.0};
    ASSERT_EQ(spotmodels::fitFree(spotmodels::residualOneDimension, &data, 4, kWindow, x.data()),
              0);
    const std::vector<double> se =
        standardErrors(spotmodels::residualOneDimension, &data, 4, kWindow, {truth, truth + 4});
    z.add((x[0] - truth[0]) / se[0]);
  }
  // Each centre within 5 standard errors, and the spread as the noise predicts.
  EXPECT_LT(z.worst, 5.0);
  EXPECT_GT(z.rms(), 0.8);
  EXPECT_LT(z.rms(), 1.2);
}

TEST(SpotFit, TwoDimensionalSpotsRecoverTheCentre) {
  spotmodels::Draws draws(19680412);
  std::vector<int> rows(kWindow), cols(kWindow);
  for (int i = 0; i < kWindow; ++i) rows[i] = cols[i] = i;
  const int m = kWindow * kWindow;
  ZScores zRow, zCol;
  double worstPixels = 0.0;
  for (int k = 0; k < kSpots; ++k) {
    const double truth[6] = {draws.uniform(7.0, 11.0),     draws.uniform(1.2, 2.5),
                             draws.uniform(7.0, 11.0),     draws.uniform(1.2, 2.5),
                             draws.uniform(500.0, 2000.0), 100.0};
    const std::vector<double> pixels =
        spotmodels::sampleSpot(truth, kWindow, kWindow, kNoise, draws);
    spotmodels::TwoDimensionData data{pixels.data(), rows.data(), cols.data(), kWindow, kWindow};
    std::vector<double> x = {truth[0] + draws.uniform(-1.0, 1.0),
                             truth[1] * 1.3,
                             truth[2] + draws.uniform(-1.0, 1.0),
                             truth[3] * 1.3,
                             truth[4] * 0.8,
                             truth[5] + 30.0};
    ASSERT_EQ(spotmodels::fitFree(spotmodels::residualTwoDimension, &data, 6, m, x.data()), 0);
    const std::vector<double> se =
        standardErrors(spotmodels::residualTwoDimension, &data, 6, m, {truth, truth + 6});
    zRow.add((x[0] - truth[0]) / se[0]);
    zCol.add((x[2] - truth[2]) / se[2]);
    worstPixels = std::fmax(worstPixels, std::hypot(x[0] - truth[0], x[2] - truth[2]));
  }
  EXPECT_LT(zRow.worst, 5.0);
  EXPECT_LT(zCol.worst, 5.0);
  EXPECT_GT(zRow.rms(), 0.8);
  EXPECT_LT(zRow.rms(), 1.2);
  EXPECT_GT(zCol.rms(), 0.8);
  EXPECT_LT(zCol.rms(), 1.2);
  EXPECT_LT(worstPixels, 0.2);  // sub-pixel: a fifth of a pixel at this noise
}
