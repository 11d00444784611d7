// Step computations of both families against hand-worked answers: the free
// shifted Gauss-Newton step, the bracketed subproblem, and the pieces of the
// feasible step (scaling, projection, draw-back, interior steepest descent,
// mixing).
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "trsolver/internal.h"

namespace {

constexpr double U = 1.7976931348623157e308;
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

using Vector = std::vector<double>;

double norm(const Vector& v) {
  return trs_norm(static_cast<int64_t>(v.size()), v.data());
}

// Work vectors for the step routines that take five of them.
struct Work {
  explicit Work(int n) : w(5, Vector(n)) {}
  std::vector<Vector> w;
  double* p[5] = {w[0].data(), w[1].data(), w[2].data(), w[3].data(), w[4].data()};
};

}  // namespace

TEST(StepComputation, FreeAndBracketedSubproblems) {
  const Vector identity = {1, 0, 0, 1}, zeroColumn = {1, 0, 1, 0, 0, 0};
  struct Case {
    bool bracketed;
    int m, n;
    Vector jac, f;  // jac by columns
    double delta;
    int64_t limit, status;  // status -99: any positive
    double lambda;          // NaN: not checked
    double normTolerance;   // | |s| - delta | / delta, < 0: not checked
    Vector step;            // empty: not checked
  };
  const std::vector<Case> cases = {
      {false, 2, 2, identity, {1, 1}, 10.0, 100, 2, 0.0, -1, {-1, -1}},
      {false, 2, 2, identity, {3, 4}, 5.04, 100, 3, 0.0, 1e-15, {}},
      // |s| = 5 / (1 + lambda) = 1 gives lambda 4, reached by one Newton pass.
      {false, 2, 2, identity, {3, 4}, 1.0, 100, 3, 4.0, 1e-15, {-0.6, -0.8}},
      // Limit 0 allows one pass; the Newton pass leaves the unshifted step.
      {false, 2, 2, identity, {3, 4}, 1.0, 0, 1, 4.0, -1, {-3, -4}},
      // A zero column: the first trial shift 1e-16 factorises, the short
      // step is extended along the low-curvature estimate to the boundary.
      {false, 3, 2, zeroColumn, {1, 2, 3}, 10.0, 100, 4, 1e-16, 0.02, {}},
      // H = [[1, 1], [1, 1]] exactly singular: 1e-16 is lost against 1 on
      // the diagonal, 1e-15 is not.
      {false, 2, 2, {1, 0, 1, 0}, {1, 0}, 10.0, 100, 4, 1e-16 * 10.0, 0.02, {}},
      // The bracket [0, 0] forces the unshifted step, which lies inside.
      {true, 2, 2, identity, {1, 1}, 10.0, 10, 2, 0.0, -1, {-1, -1}},
      {true, 2, 2, identity, {3, 4}, 1.0, 10, 3, NaN, 0.01, {}},
      {true, 3, 2, zeroColumn, {1, 2, 3}, 10.0, 10, -99, NaN, -1, {}},
      {true, 2, 2, identity, {3, 4}, 1.0, -1, 1, NaN, -1, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases.data());
    Vector s(c.n), hess(c.n * c.n), chol(c.n * c.n), curv(c.n * c.n), g(c.n), w1(c.n), w2(c.n);
    int64_t limit = c.limit, status = 0;
    double lambda = -1.0;
    const double eps[6] = {1e-4, 1e-4, 1e-4, 1e-4, 1e-4, 1e-4};
    Work work(c.n);
    if (c.bracketed) {
      trs_dmintr_ls_npd(c.n, c.m, c.jac.data(), c.f.data(), s.data(), &limit, eps, c.delta, &lambda,
                        hess.data(), chol.data(), curv.data(), &status, work.p);
    } else {
      trs_dmintr_ls_pd(c.n, c.m, c.jac.data(), c.f.data(), s.data(), &limit, 1e-10, c.delta,
                       &lambda, hess.data(), chol.data(), g.data(), w1.data(), w2.data(), &status);
    }
    if (c.status == -99) {
      EXPECT_GT(status, 0);  // a finite step no longer than the radius allows
      for (double v : s) EXPECT_TRUE(std::isfinite(v));
      EXPECT_LE(norm(s), 1.02 * c.delta);
    } else {
      EXPECT_EQ(status, c.status);
    }
    EXPECT_TRUE(std::isnan(c.lambda) || lambda == c.lambda) << lambda;
    EXPECT_TRUE(c.normTolerance < 0 || std::fabs(norm(s) - c.delta) <= c.normTolerance * c.delta);
    for (size_t i = 0; i < c.step.size(); ++i) EXPECT_DOUBLE_EQ(s[i], c.step[i]);
    EXPECT_LE(limit, c.bracketed ? 11 : c.limit + 1);
  }
}

TEST(FeasibleStep, DistanceScale) {
  struct Row {
    int n, m;
    Vector jac, f, x, lw, up, expected;
  };
  const double onBound = 1.0 / std::sqrt(1e-18);
  // Toward the lower bound, the upper, on each; a zero gradient takes the
  // nearer bound; no upper, no lower, no bound at all.
  // clang-format off
  const std::vector<Row> rows = {
      {1, 1, {1}, {1}, {0.25}, {0}, {1}, {2.0}},
      {1, 1, {1}, {-1}, {0.25}, {0}, {1}, {1.0 / std::sqrt(0.75)}},
      {1, 1, {1}, {1}, {0}, {0}, {1}, {onBound}}, {1, 1, {1}, {-1}, {1}, {0}, {1}, {onBound}},
      {1, 1, {1}, {0}, {0.25}, {0}, {1}, {2.0}}, {1, 1, {1}, {0}, {1}, {0}, {1}, {onBound}},
      {1, 1, {1}, {-1}, {0.25}, {0}, {U}, {1.0}}, {1, 1, {1}, {1}, {0.25}, {-U}, {1}, {1.0}},
      {1, 1, {1}, {0}, {0.25}, {-U}, {U}, {1.0}},
      // The sign comes from the first n residuals: +1, while the full
      // gradient is -2 and would give the upper distance 0.8.
      {1, 2, {1, 1}, {1, -3}, {0.2}, {0}, {1}, {1.0 / std::sqrt(0.2)}},
      // An infinite bound matches no case: the running value of the first stays.
      {2, 2, {1, 0, 0, 1}, {1, -1}, {0.25, 0.5}, {0, 0}, {1, HUGE_VAL}, {2, 2}},
  };
  // clang-format on
  for (const Row& r : rows) {
    SCOPED_TRACE(&r - rows.data());
    Vector g(r.n), d(r.n);
    trs_distance_scale(r.n, r.m, r.x.data(), r.f.data(), r.jac.data(), r.lw.data(), r.up.data(),
                       g.data(), d.data());
    for (int i = 0; i < r.n; ++i) EXPECT_DOUBLE_EQ(d[i], r.expected[i]);
  }
}

TEST(FeasibleStep, ProjectionDrawBackInteriorDescentAndMixing) {
  // x = 0.5: inside, beyond the upper, beyond the lower bound, exactly on
  // the bound (counts as reaching it), crossed bounds (the last test decides).
  // clang-format off
  const double projections[][5] = {
      {0.2, 0, 1, 0.2, 0.0}, {0.7, 0, 1, 0.5, 0.5}, {-0.6, 0, 1, -0.5, -0.5},
      {0.5, 0, 1, 0.5, 0.5}, {0.0, 1, 0, -0.5, -0.5}};
  // clang-format on
  for (const auto& [p, lw, up, wanted, reached] : projections) {
    const double x = 0.5;
    double w = NaN, a = NaN;
    trs_project_onto_box(1, &x, &p, &lw, &up, &w, &a);
    EXPECT_EQ(w, wanted);
    EXPECT_EQ(a, reached);
  }

  // Beta = (G.a + (J^T J w).a) / (J^T J a).a, held in [0.0005, 0.05].
  // clang-format off
  const double drawBacks[][4] = {
      {100, 0.5, 0.5, 0.05}, {-100, 0.5, 0.5, 0.0005}, {1, 0.2, 0.0, 0.0005},
      {-0.191, 0.2, 0.2, 0.045}};
  // clang-format on
  for (const auto& [f, w, a, beta] : drawBacks) {
    const double j = 1.0;
    double grad, column, row;
    EXPECT_NEAR(trs_draw_back_factor(1, 1, &j, &f, &w, &a, &grad, &column, &row), beta, 1e-15);
  }

  struct Interior {
    Vector x, c, lw, up, r;
  };
  const double k = 0.99995;
  const std::vector<Interior> interior = {
      {{0.5}, {0.3}, {0}, {1}, {0.3}},      // inside: used as it is
      {{0.5}, {1.0}, {0}, {1}, {k * 0.5}},  // leaves: cut before the bound
      {{0.5, 0.5}, {1.0, -2.0}, {0, 0}, {1, 1}, {k * 0.25, k * 0.25 * -2.0}},
      {{0.5, 0.5}, {0.0, 1.0}, {0, 0}, {1, 1}, {0.0, k * 0.5}},
      {{1.0}, {0.5}, {0}, {1}, {k * 2e-18 * 0.5}},      // on a positive upper bound
      {{-1.0}, {0.5}, {-2}, {-1}, {k * -2e-18 * 0.5}},  // on a negative upper bound
  };
  for (const Interior& r : interior) {
    SCOPED_TRACE(&r - interior.data());
    Vector out(r.x.size());
    trs_steepest_descent_inside(static_cast<int64_t>(r.x.size()), r.x.data(), r.c.data(),
                                r.lw.data(), r.up.data(), k, out.data());
    for (size_t i = 0; i < out.size(); ++i) EXPECT_DOUBLE_EQ(out[i], r.r[i]);
  }

  // q good enough: s is q; f and Mr both 0: Rho = -0.9 and Mu 1; q useless,
  // r perfect: 0.5 (1 - Mu)^2 = 0.45.
  const double mixings[][4] = {
      {1.0, -1.0, -0.5, 0.0}, {0.0, 1.0, 0.0, 1.0}, {1.0, 0.0, -1.0, 1.0 - std::sqrt(0.9)}};
  for (const auto& [f, jq, jr, mu] : mixings) {
    double v, e;
    EXPECT_DOUBLE_EQ(trs_mixing_factor(1, &f, &jq, &jr, 0.1, &v, &e), mu);
  }
}
