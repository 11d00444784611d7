// The high-order stage: the polynomial fit against known polynomials, on
// rank-deficient and tiny inputs and on inputs with nothing to fit, and the
// residual cut (the black-box calibration runs fit real distortions).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "model/internal.h"
#include "model/model.h"

namespace {

constexpr int kOrder = 2;
constexpr int kTerms = 6;
constexpr double kUntouched = 12345.0;

// The polynomial in the term order: 1, v, v^2, u, u v, u^2.
double polynomial(const double* c, double u, double v) {
  return c[0] + c[1] * v + c[2] * v * v + c[3] * u + c[4] * u * v + c[5] * u * u;
}

struct Samples {
  std::vector<double> u, v, z;
};

Samples sample(const std::vector<std::pair<double, double>>& at, const double* c) {
  Samples s;
  for (const auto& [u, v] : at) {
    s.u.push_back(u);
    s.v.push_back(v);
    s.z.push_back(polynomial(c, u, v));
  }
  return s;
}

std::vector<std::pair<double, double>> gridOf(int perRow, double first, double pitch) {
  std::vector<std::pair<double, double>> at;
  for (int i = 0; i < perRow; ++i) {
    for (int j = 0; j < perRow; ++j) at.push_back({first + j * pitch, first + i * pitch * 0.8});
  }
  return at;
}

int fit(const Samples& s, double* c) {
  return fit2dPolySVD(s.u.data(), s.v.data(), s.z.data(), kOrder, c, static_cast<int>(s.u.size()),
                      kTerms);
}

}  // namespace

TEST(Fit2dPolySVD, FitsKnownPolynomialsOrRefusesInputsWithNothingToFit) {
  struct Case {
    std::vector<std::pair<double, double>> at;
    double truth[kTerms];
    double tolerance;  // of the coefficients; < 0: only the points are met
  };
  const Case cases[] = {
      {gridOf(5, -200, 100), {3, 0, 0, 0, 2, 0}, 1e-9},
      {gridOf(7, -240, 80), {0.3, -2e-3, 4e-6, 1.5e-3, -3e-6, 5e-6}, 1e-12},
      {{{-3, 1}, {2, -1}, {4, 4}, {0.5, -3}, {-1, -2}, {3, 0.5}}, {1, 2, 3, 4, 5, 6}, 1e-8},
      // On the line v = u the columns v, u and v^2, u v, u^2 coincide.
      {{{-2, -2}, {-1, -1}, {0.5, 0.5}, {1, 1}, {2, 2}, {3, 3}}, {1, 0, 0, 2, 0, 3}, -1},
      {{{1, 2}, {-2, 1}, {0.5, -3}}, {1, 2, 3, 4, 5, 6}, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    const Samples s = sample(c.at, c.truth);
    double got[kTerms];
    ASSERT_EQ(fit(s, got), 0);
    for (int k = 0; k < kTerms; ++k) {
      EXPECT_TRUE(std::isfinite(got[k]));
      EXPECT_TRUE(c.tolerance < 0 || std::fabs(got[k] - c.truth[k]) <=
                                         c.tolerance * std::max(1.0, std::fabs(c.truth[k])))
          << k << ": " << got[k];
    }
    // The fit passes through every point it was given.
    for (std::size_t i = 0; i < s.u.size(); ++i) {
      EXPECT_NEAR(polynomial(got, s.u[i], s.v[i]), s.z[i], 1e-9 * std::max(1.0, std::fabs(s.z[i])));
    }
    // Minimum norm on the line: the scaled coefficients of the coinciding
    // columns come out equal, the linear term split evenly between v and u.
    if (&c == cases + 3) {
      EXPECT_NEAR(got[1], got[3], 1e-9);
      EXPECT_NEAR(got[2], got[4], 1e-9);
      EXPECT_NEAR(got[4], got[5], 1e-9);
    }
  }
  // No point, all values zero, all u or all v zero, one point at the centre.
  const Samples refused[] = {{{}, {}, {}},
                             {{1, 2, 3}, {3, 1, 2}, {0, 0, 0}},
                             {{0, 0, 0}, {3, 1, 2}, {1, 2, 3}},
                             {{1, 2, 3}, {0, 0, 0}, {1, 2, 3}},
                             {{0}, {0}, {0.4}}};
  for (const Samples& s : refused) {
    double got[kTerms];
    std::fill(got, got + kTerms, kUntouched);
    EXPECT_EQ(fit(s, got), 1) << &s - refused;
    EXPECT_EQ(std::count(got, got + kTerms, kUntouched), kTerms);
  }
  for (double r : {0.0, 0.79, -0.79}) EXPECT_EQ(cutHighOrderResidual(r), r);
  for (double r : {0.8, -0.8, 3.5, double(NAN)}) EXPECT_EQ(cutHighOrderResidual(r), 0.0);
}
