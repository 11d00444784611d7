// Step computations of both families against hand-worked answers: the free
// shifted Gauss-Newton step, the bracketed subproblem, its shift bounds, and
// the pieces of the feasible step (scaling, projection, draw-back, interior
// steepest descent, mixing).
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "trsolver/internal.h"

namespace {

constexpr double U = 1.7976931348623157e308;
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

double norm(const std::vector<double>& v) {
  double s = 0.0;
  for (double x : v) s += x * x;
  return std::sqrt(s);
}

struct StepCase {
  const char* name;
  int m, n;
  std::vector<double> jac;  // by columns
  std::vector<double> f;
  double delta;
  int64_t limit;
  int64_t status;
  double lambda;             // NaN: not checked
  double normTolerance;      // | |s| - delta | / delta, < 0: not checked
  std::vector<double> step;  // empty: not checked
};

}  // namespace

TEST(StepComputation, FreeShiftedGaussNewton) {
  const std::vector<StepCase> cases = {
      {"unshifted step inside", 2, 2, {1, 0, 0, 1}, {1, 1}, 10.0, 100, 2, 0.0, -1, {-1, -1}},
      {"scaled onto the boundary", 2, 2, {1, 0, 0, 1}, {3, 4}, 5.04, 100, 3, 0.0, 1e-15, {}},
      // |s| = 5 / (1 + lambda) = 1 gives lambda 4, reached by one Newton pass.
      {"Newton shift to the boundary",
       2,
       2,
       {1, 0, 0, 1},
       {3, 4},
       1.0,
       100,
       3,
       4.0,
       1e-15,
       {-0.6, -0.8}},
      // Limit 0 allows one pass; the Newton pass leaves the unshifted step.
      {"pass limit", 2, 2, {1, 0, 0, 1}, {3, 4}, 1.0, 0, 1, 4.0, -1, {-3, -4}},
      // A zero column: the first trial shift 1e-16 factorises, the short
      // step is extended along the low-curvature estimate to the boundary.
      {"zero column", 3, 2, {1, 0, 1, 0, 0, 0}, {1, 2, 3}, 10.0, 100, 4, 1e-16, 0.02, {}},
      // H = [[1, 1], [1, 1]] exactly singular: 1e-16 is lost against 1 on
      // the diagonal, 1e-15 is not.
      {"singular normal matrix", 2, 2, {1, 0, 1, 0}, {1, 0}, 10.0, 100, 4, 1e-16 * 10.0, 0.02, {}},
  };
  for (const StepCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<double> s(c.n), hess(c.n * c.n), chol(c.n * c.n), grad(c.n), w1(c.n), w2(c.n);
    int64_t limit = c.limit, status = 0;
    double lambda = -1.0;
    trs_dmintr_ls_pd(c.n, c.m, c.jac.data(), c.f.data(), s.data(), &limit, 1e-10, c.delta, &lambda,
                     hess.data(), chol.data(), grad.data(), w1.data(), w2.data(), &status);
    EXPECT_EQ(status, c.status);
    if (!std::isnan(c.lambda)) {
      EXPECT_EQ(lambda, c.lambda);
    }
    if (c.normTolerance >= 0) {
      EXPECT_LE(std::fabs(norm(s) - c.delta), c.normTolerance * c.delta);
    }
    for (size_t i = 0; i < c.step.size(); ++i) EXPECT_DOUBLE_EQ(s[i], c.step[i]);
    EXPECT_LE(limit, c.limit + 1);
  }
}

TEST(StepComputation, BracketedSubproblem) {
  const std::vector<StepCase> cases = {
      // The bracket [0, 0] forces the unshifted step, which lies inside.
      {"inside, bracket at zero", 2, 2, {1, 0, 0, 1}, {1, 1}, 10.0, 10, 2, 0.0, -1, {-1, -1}},
      {"to the boundary", 2, 2, {1, 0, 0, 1}, {3, 4}, 1.0, 10, 3, NaN, 0.01, {}},
      {"zero column", 3, 2, {1, 0, 1, 0, 0, 0}, {1, 2, 3}, 10.0, 10, -99, NaN, -1, {}},
      {"negative limit", 2, 2, {1, 0, 0, 1}, {3, 4}, 1.0, -1, 1, NaN, -1, {}},
  };
  for (const StepCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<double> p(c.n), hess(c.n * c.n), chol(c.n * c.n), curv(c.n * c.n);
    std::vector<std::vector<double>> w(5, std::vector<double>(c.n));
    double* work[5] = {w[0].data(), w[1].data(), w[2].data(), w[3].data(), w[4].data()};
    int64_t limit = c.limit, status = 0;
    double lambda = -1.0;
    const double eps[6] = {1e-4, 1e-4, 1e-4, 1e-4, 1e-4, 1e-4};
    trs_dmintr_ls_npd(c.n, c.m, c.jac.data(), c.f.data(), p.data(), &limit, eps, c.delta, &lambda,
                      hess.data(), chol.data(), curv.data(), &status, work);
    if (c.status == -99) {
      // Any positive outcome, a finite step no longer than the radius allows.
      EXPECT_GT(status, 0);
      for (double v : p) EXPECT_TRUE(std::isfinite(v));
      EXPECT_LE(norm(p), 1.02 * c.delta);
    } else {
      EXPECT_EQ(status, c.status);
    }
    if (!std::isnan(c.lambda)) {
      EXPECT_EQ(lambda, c.lambda);
    }
    if (c.normTolerance >= 0) {
      EXPECT_LE(std::fabs(norm(p) - c.delta), c.normTolerance * c.delta);
    }
    for (size_t i = 0; i < c.step.size(); ++i) EXPECT_DOUBLE_EQ(p[i], c.step[i]);
    EXPECT_LE(limit, 11);
  }
}

TEST(StepComputation, ShiftBoundsAndPick) {
  // H = [[4, -1], [-1, 2]]: Frobenius sqrt(22), row sums 5 and 3, smallest
  // diagonal 2, Gershgorin 5 above and -1 below.
  const double h[4] = {4, -1, -1, 2};
  double work[2], upper, lower;
  trs_dgrgbound(2, h, &upper, &lower, 1.0, 3.0, work);
  EXPECT_EQ(lower, 0.0);
  EXPECT_EQ(upper, 2.0);
  trs_dgrgbound(2, h, &upper, &lower, 1.0, 10.0, work);
  EXPECT_DOUBLE_EQ(lower, 10.0 - std::sqrt(22.0));
  EXPECT_EQ(upper, 9.0);
  trs_dgrgbound(2, h, &upper, &lower, 0.5, 3.0, work);  // Q = 6
  EXPECT_DOUBLE_EQ(lower, 6.0 - std::sqrt(22.0));
  EXPECT_EQ(upper, 5.0);

  struct Row {
    double lo, hi, expected;
  };
  // The larger of the geometric mean and hi + 0.01 (lo - hi).
  for (const Row& r : {Row{1, 4, 3.97}, Row{4, 4, 4}, Row{0, 100, 99}, Row{9, 16, 15.93}}) {
    EXPECT_DOUBLE_EQ(pick(&r.lo, &r.hi), r.expected);
  }
}

TEST(FeasibleStep, DistanceScale) {
  struct Row {
    const char* name;
    int n, m;
    std::vector<double> jac, f, x, lw, up, expected;
  };
  const double onBound = 1.0 / std::sqrt(1e-18);
  const std::vector<Row> rows = {
      {"toward the lower bound", 1, 1, {1}, {1}, {0.25}, {0}, {1}, {2.0}},
      {"toward the upper bound", 1, 1, {1}, {-1}, {0.25}, {0}, {1}, {1.0 / std::sqrt(0.75)}},
      {"on the lower bound", 1, 1, {1}, {1}, {0}, {0}, {1}, {onBound}},
      {"on the upper bound", 1, 1, {1}, {-1}, {1}, {0}, {1}, {onBound}},
      {"zero gradient: nearer bound", 1, 1, {1}, {0}, {0.25}, {0}, {1}, {2.0}},
      {"zero gradient on a bound", 1, 1, {1}, {0}, {1}, {0}, {1}, {onBound}},
      {"no upper bound", 1, 1, {1}, {-1}, {0.25}, {0}, {U}, {1.0}},
      {"no lower bound", 1, 1, {1}, {1}, {0.25}, {-U}, {1}, {1.0}},
      {"no bounds", 1, 1, {1}, {0}, {0.25}, {-U}, {U}, {1.0}},
      // The sign comes from the first n residuals: +1, while the full
      // gradient is -2 and would give the upper distance 0.8.
      {"rows beyond n ignored", 1, 2, {1, 1}, {1, -3}, {0.2}, {0}, {1}, {1.0 / std::sqrt(0.2)}},
      // An infinite bound matches no case: the running value of the first stays.
      {"running value kept",
       2,
       2,
       {1, 0, 0, 1},
       {1, -1},
       {0.25, 0.5},
       {0, 0},
       {1, HUGE_VAL},
       {2, 2}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    std::vector<double> g(r.n), d(r.n);
    trs_distance_scale(r.n, r.m, r.x.data(), r.f.data(), r.jac.data(), r.lw.data(), r.up.data(),
                       g.data(), d.data());
    for (int i = 0; i < r.n; ++i) EXPECT_DOUBLE_EQ(d[i], r.expected[i]);
  }
}

TEST(FeasibleStep, ProjectionDrawBackAndInteriorSteepestDescent) {
  struct Projection {
    double p, lw, up, w, a;
  };
  // x = 0.5 throughout.
  const Projection projections[] = {
      {0.2, 0, 1, 0.2, 0.0},     // inside
      {0.7, 0, 1, 0.5, 0.5},     // beyond the upper bound
      {-0.6, 0, 1, -0.5, -0.5},  // beyond the lower bound
      {0.5, 0, 1, 0.5, 0.5},     // exactly on the bound counts as reaching it
      {0.0, 1, 0, -0.5, -0.5},   // crossed bounds: the last matching test decides
  };
  for (const Projection& r : projections) {
    const double x = 0.5;
    double w = NaN, a = NaN;
    trs_project_onto_box(1, &x, &r.p, &r.lw, &r.up, &w, &a);
    EXPECT_EQ(w, r.w);
    EXPECT_EQ(a, r.a);
  }

  // Beta = (G.a + (J^T J w).a) / (J^T J a).a, held in [0.0005, 0.05].
  struct DrawBack {
    double f, w, a, beta;
  };
  for (const DrawBack& r : {DrawBack{100, 0.5, 0.5, 0.05}, DrawBack{-100, 0.5, 0.5, 0.0005},
                            DrawBack{1, 0.2, 0.0, 0.0005}, DrawBack{-0.191, 0.2, 0.2, 0.045}}) {
    const double j = 1.0;
    double grad, column, row;
    EXPECT_NEAR(trs_draw_back_factor(1, 1, &j, &r.f, &r.w, &r.a, &grad, &column, &row), r.beta,
                1e-15);
  }

  struct Interior {
    const char* name;
    std::vector<double> x, c, lw, up, r;
  };
  const std::vector<Interior> interior = {
      {"inside: used as it is", {0.5}, {0.3}, {0}, {1}, {0.3}},
      {"leaves: cut before the bound", {0.5}, {1.0}, {0}, {1}, {0.99995 * 0.5}},
      {"first bound of two",
       {0.5, 0.5},
       {1.0, -2.0},
       {0, 0},
       {1, 1},
       {0.99995 * 0.25 * 1.0, 0.99995 * 0.25 * -2.0}},
      {"zero component", {0.5, 0.5}, {0.0, 1.0}, {0, 0}, {1, 1}, {0.0, 0.99995 * 0.5}},
      {"on a positive upper bound", {1.0}, {0.5}, {0}, {1}, {0.99995 * 2e-18 * 0.5}},
      {"on a negative upper bound", {-1.0}, {0.5}, {-2}, {-1}, {0.99995 * -2e-18 * 0.5}},
  };
  for (const Interior& r : interior) {
    SCOPED_TRACE(r.name);
    std::vector<double> out(r.x.size());
    trs_steepest_descent_inside(static_cast<int64_t>(r.x.size()), r.x.data(), r.c.data(),
                                r.lw.data(), r.up.data(), 0.99995, out.data());
    for (size_t i = 0; i < out.size(); ++i) EXPECT_DOUBLE_EQ(out[i], r.r[i]);
  }
}

TEST(FeasibleStep, MixingFactor) {
  struct Row {
    const char* name;
    double f, jq, jr, mu;
  };
  const Row rows[] = {
      // q reduces the model more than 0.1 of r's reduction: s is q.
      {"q good enough", 1.0, -1.0, -0.5, 0.0},
      // f and Mr both 0: Rho = -0.9, the mixing branch gives Mu 1.
      {"both model values zero", 0.0, 1.0, 0.0, 1.0},
      // q does nothing, r is perfect: 0.5 (1 - Mu)^2 = 0.45.
      {"q useless", 1.0, 0.0, -1.0, 1.0 - std::sqrt(0.9)},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    double v, e;
    EXPECT_DOUBLE_EQ(trs_mixing_factor(1, &r.f, &r.jq, &r.jr, 0.1, &v, &e), r.mu);
  }
}

namespace {

struct FeasibleRun {
  std::vector<double> s;
  int64_t status;
};

FeasibleRun feasibleStep(int n, int m, const std::vector<double>& jac, const std::vector<double>& f,
                         const std::vector<double>& x, const std::vector<double>& lw,
                         const std::vector<double>& up, double delta) {
  FeasibleRun out{std::vector<double>(n), 0};
  std::vector<double> copy(m * n), hess(n * n), chol(n * n), curv(n * n);
  std::vector<std::vector<double>> w(5, std::vector<double>(n));
  double* work[5] = {w[0].data(), w[1].data(), w[2].data(), w[3].data(), w[4].data()};
  const double mix = 0.1, interior = 0.99995, eps[6] = {1e-4, 1e-4, 1e-4, 1e-4, 1e-4, 1e-4};
  double lambda = 0.0;
  trs_dmintr_ls_lc(n, m, x.data(), f.data(), out.s.data(), jac.data(), copy.data(), lw.data(),
                   up.data(), delta, &mix, &interior, &lambda, hess.data(), chol.data(),
                   curv.data(), eps, &out.status, work);
  return out;
}

}  // namespace

TEST(FeasibleStep, WholeStep) {
  const std::vector<double> jac = {1.0, 0.5, 0.2, -0.3, 1.0, 0.4};  // 3 x 2
  const std::vector<double> f = {1.0, -2.0, 0.5};
  {
    SCOPED_TRACE("no finite bounds: the unscaled trust-region step");
    const FeasibleRun run = feasibleStep(2, 3, jac, f, {0.3, -0.2}, {-U, -U}, {U, U}, 0.5);
    std::vector<double> p(2), hess(4), chol(4), curv(4);
    std::vector<std::vector<double>> w(5, std::vector<double>(2));
    double* work[5] = {w[0].data(), w[1].data(), w[2].data(), w[3].data(), w[4].data()};
    int64_t limit = 10, status = 0;
    double lambda = 0.0;
    trs_dmintr_ls_npd(2, 3, jac.data(), f.data(), p.data(), &limit, nullptr, 0.5, &lambda,
                      hess.data(), chol.data(), curv.data(), &status, work);
    EXPECT_EQ(run.status, status);
    EXPECT_EQ(run.s, p);
  }
  {
    SCOPED_TRACE("a parameter on its bound hardly moves");
    const FeasibleRun run =
        feasibleStep(2, 2, {1, 0, 0, 1}, {1.0, -0.3}, {0.0, 0.5}, {0, 0}, {1, 1}, 1.0);
    EXPECT_GE(run.s[0], 0.0);
    EXPECT_LT(run.s[0], 1e-8);
    EXPECT_GT(run.s[1], 0.0);
  }
  {
    SCOPED_TRACE("an active coordinate stays short of its bound");
    const FeasibleRun run = feasibleStep(1, 1, {1}, {-10.0}, {0.5}, {0}, {1}, 100.0);
    EXPECT_GT(run.s[0], 0.5 * (1.0 - 0.05) - 1e-12);
    EXPECT_LT(0.5 + run.s[0], 1.0);
  }
}

// A matrix that is not positive definite, NaN included, fails the
// factorisation with its first bad pivot; the shift loops rely on that.
TEST(StepComputation, FactorisationReportsTheFailedPivot) {
  struct Row {
    const char* name;
    std::vector<double> a;  // 2 x 2 by columns
    int64_t pivot;
  };
  const std::vector<Row> rows = {
      {"positive definite", {4, 2, 2, 3}, 0},  {"singular", {1, 1, 1, 1}, 2},
      {"negative diagonal", {-1, 0, 0, 1}, 1}, {"NaN", {NaN, 0, 0, 1}, 1},
      {"NaN later", {1, 0, 0, NaN}, 2},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    std::vector<double> a = r.a;
    EXPECT_EQ(trs_factorise(2, a.data()), r.pivot);
  }
}
