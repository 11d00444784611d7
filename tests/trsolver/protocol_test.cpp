// The edge cases that decide the checks of init, the stop reasons and the
// radius rules, for both families.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "harness.h"
#include "trsolver/internal.h"
#include "trsolver/radius.h"

namespace {

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

template <typename State>
State* stateOf(const Handle& h) {
  return static_cast<State*>(h.h->state);
}

}  // namespace

TEST(SolverProtocol, InitChecks) {
  struct Case {
    int n, m, iter1, iter2;
    double rs;
    int epsIndex;  // -1: all six eps 1e-4
    double epsValue, storedRs;
    int status;
  };
  const int ok = TRS_OK, bad = TRS_BAD_ARGUMENT;
  // clang-format off
  std::vector<Case> cases = {
      {1, 3, 1000, 100, 100.0, -1, 0, 100.0, ok}, {3, 3, 1000, 100, 100.0, -1, 0, 100.0, ok},
      {3, 2, 1000, 100, 100.0, -1, 0, 0, bad}, {0, 3, 1000, 100, 100.0, -1, 0, 0, bad},
      {2, 0, 1000, 100, 100.0, -1, 0, 0, bad}, {2, 3, 0, 100, 100.0, -1, 0, 0, bad},
      {2, 3, 1000, 0, 100.0, -1, 0, 0, bad}, {2, 3, 1000, 100, 0.0, -1, 0, 100.0, ok},
      {2, 3, 1000, 100, 0.5, -1, 0, 0.5, ok}, {2, 3, 1000, 100, 100.5, -1, 0, 0, bad},
      {2, 3, 1000, 100, -1e-300, -1, 0, 0, bad}, {2, 3, 1000, 100, NaN, -1, 0, NaN, ok},
      {2, 3, 1000, 100, 100.0, 3, -1e-4, 0, bad}, {2, 3, 1000, 100, 100.0, 5, NaN, 100.0, ok},
      {2, 3, 1, 1, 100.0, -1, 0, 100.0, ok}};
  // clang-format on
  for (int k = 0; k < 6; ++k) cases.push_back({2, 3, 1000, 100, 100.0, k, 0.0, 0, bad});
  for (bool bounded : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << (bounded ? "bounded " : "free ") << &c - cases.data());
      Handle h{bounded, c.n, c.m, c.iter1, c.iter2, 0, c.rs};
      h.x = h.lw = h.up = std::vector<double>(3, 5.0);
      if (c.epsIndex >= 0) h.eps[c.epsIndex] = c.epsValue;
      const TrHandle before = h.h;
      ASSERT_EQ(h.init(), c.status);
      if (c.status != TRS_OK) {
        EXPECT_EQ(h.h, before);  // the handle is left untouched
        continue;
      }
      const TrResiduals* r =
          bounded ? stateOf<TrStateBounded>(h)->residuals : stateOf<TrState>(h)->residuals;
      EXPECT_TRUE(r->rs == c.storedRs || (std::isnan(r->rs) && std::isnan(c.storedRs)));
      int iterations = -7, reason = -7;  // get before any solve: all zero
      double r1 = -7, r2 = -7;
      EXPECT_EQ(h.get(&iterations, &reason, &r1, &r2), TRS_OK);
      EXPECT_TRUE(iterations == 0 && reason == 0 && r1 == 0.0 && r2 == 0.0);
      EXPECT_EQ(h.del(), TRS_OK);
    }
  }
}

namespace {

// A trial residual digested from a prepared state: n = m = 1, x = 1.0,
// s = 0.5, old residual 2.0 = fnorm, trial residual N.
struct DigestCase {
  double trialNorm, jsnorm, lambda, snorm, delta;
  bool accepted;
  double freeDelta, boundedDelta;
};

template <typename State>
void checkDigest(bool bounded, const DigestCase& c) {
  Handle h{bounded};
  h.x = {1.5}, h.lw = {-10.0}, h.up = {10.0};
  ASSERT_EQ(h.init(), TRS_OK);
  State* st = stateOf<State>(h);
  st->first_pass = 0, st->phase = 2, st->eta = 1e-4, st->count = 0, st->fnorm = 2.0;
  st->jsnorm = c.jsnorm, st->lambda = c.lambda, st->snorm = c.snorm, st->delta = c.delta;
  st->ratio = 0.0, st->step[0] = 0.5, st->saved_residual[0] = 2.0;
  double fvec[1] = {c.trialNorm}, fjac[1] = {1.0};
  h.rci = 1;
  ASSERT_EQ(h.solve(fvec, fjac), TRS_OK);
  EXPECT_EQ(h.rci, 0);
  EXPECT_EQ(st->first_pass, 0);
  EXPECT_DOUBLE_EQ(st->delta, bounded ? c.boundedDelta : c.freeDelta);
  // A rejection puts back x and the old residual, in the caller's buffer too.
  EXPECT_EQ(h.x[0], c.accepted ? 1.5 : 1.0);
  EXPECT_TRUE(fvec[0] == (c.accepted ? c.trialNorm : 2.0) || std::isnan(c.trialNorm));
  EXPECT_EQ(st->count, c.accepted ? 1 : 0);
  EXPECT_EQ(st->ratio == TRS_REJECTED_MARKER, !c.accepted);
  h.del();
}

}  // namespace

TEST(SolverProtocol, RatioAcceptanceAndRadiusRules) {
  const double capFree = 0.1 * (0.3 / 0.1), capBounded = 0.1 * (10.0 * 0.3);
  ASSERT_NE(capFree, capBounded);  // the two shrink caps are not the same double
  const DigestCase cases[] = {
      // A = 0.75, P = 3: R exactly 0.25 takes the shrink branch (M 0.5).
      {1.0, 2.0, 1.0, 2.0, 3.0, true, 1.5, 1.5},
      // A = 0.75, P = 7500: R exactly eta is accepted, just below is not.
      {1.0, 100.0, 100.0, 10.0, 8.0, true, 4.0, 4.0},
      {1.0, 100.0, 100.0, 10.000001, 8.0, false, 4.0, 4.0},
      // fnorm at or below 0.1 N: A = -1, M = 0.1, capped by the step.
      {20.0, 2.0, 1.0, 2.0, 3.0, false, 0.3, 0.3},
      {20.0, 2.0, 1.0, 0.3, 100.0, false, capFree, capBounded},
      // A < 0 without the tenfold rise: M = 0.5 D / (0.5 A + D) = 1 / 2.28125.
      {2.5, 2.0, 1.0, 2.0, 3.0, false, 3.0 / 2.28125, 3.0 / 2.28125},
      // A NaN residual fails the test against 0.1 N: A = -1 and M = 0.4.
      {NaN, 2.0, 1.0, 2.0, 3.0, false, 1.2, 1.2},
      // Large R: a shifted step keeps the radius, an unshifted one sets 2 |s|.
      {0.2, 2.0, 0.01, 2.0, 5.0, true, 5.0, 5.0},
      {0.2, 2.0, 0.0, 1.0, 5.0, true, 2.0, 2.0},
  };
  for (const DigestCase& c : cases) {
    SCOPED_TRACE(&c - cases);
    checkDigest<TrState>(false, c);
    checkDigest<TrStateBounded>(true, c);
  }

  // |c x| rs; column norms are positive; a zero column counts as 1; a
  // candidate at or below eps[0] gives rs itself.
  // clang-format off
  const double radii[][4] = {
      {2.0, 3.0, 100.0, 600.0}, {-2.0, 3.0, 100.0, 600.0}, {0.0, 3.0, 100.0, 300.0},
      {2.0, 0.0, 100.0, 100.0}, {2.0, 3.0, 0.5, 3.0}};
  // clang-format on
  for (const auto& [j, x, rs, expected] : radii) {
    double work[1];
    EXPECT_EQ(trs_initial_radius(1, 1, &j, &x, rs, 1e-4, work), expected);
  }
  const double small[4] = {1e-5, 0.0, -1e-5, 0.0}, edge[4] = {1e-5, 0.0, 1e-4, 0.0};
  EXPECT_TRUE(trs_all_columns_small(2, 2, small, 1e-4));
  EXPECT_FALSE(trs_all_columns_small(2, 2, edge, 1e-4));  // strictly below
}

namespace {

void linearPair(int*, int*, double* x, double* f, void*) {
  f[0] = x[0] - 1.0;
  f[1] = x[0] + 1.0;
}
void flatColumn(int*, int*, double* x, double* f, void*) {
  f[0] = 1e-6 * x[0] + 1.0;
  f[1] = 1.0;
}
void nearSolution(int*, int*, double* x, double* f, void*) {
  f[0] = x[0] - 1.0;
}
void arctangent(int*, int*, double* x, double* f, void*) {
  f[0] = std::atan(x[0]);
}
// 1 at the start x = 1 and 100 (1 + |x|) anywhere else: every trial is
// rejected, and |J s| stays above eps[2] until the radius falls under eps[0].
void liar(int*, int*, double* x, double* f, void*) {
  f[0] = x[0] == 1.0 ? 1.0 : 100.0 * (1.0 + std::fabs(x[0]));
}

}  // namespace

TEST(SolverProtocol, StopReasonsOfSmallProblems) {
  struct Row {
    TrResidualFunction f;
    int m;
    double start;
    int iter1, reason, iterations;
    long residualCalls, jacobianCalls;  // -1: not checked
  };
  const Row rows[] = {
      // |F| = 1e-5 <= eps[1] at the start: one evaluation, no Jacobian.
      {nearSolution, 1, 1.0 + 1e-5, 1000, 3, 0, 1, 0},
      // Zero gradient: zero step, reason 5.
      {linearPair, 2, 0.0, 1000, 5, 0, 1, 1},
      // Every column below eps[2]: reason 4 before any step.
      {flatColumn, 2, 5.0, 1000, 4, 0, 1, 1},
      // The first Gauss-Newton step of atan from 3 overshoots and is
      // rejected; the run goes on and stops at the first accepted step.
      {arctangent, 1, 3.0, 1, 1, 1, -1, -1},
      // Rejections end by the radius, without a new Jacobian.
      {liar, 1, 1.0, 1000, 2, 0, -1, 1},
  };
  for (bool bounded : {false, true}) {
    for (const Row& r : rows) {
      SCOPED_TRACE(testing::Message() << (bounded ? "bounded " : "free ") << r.reason);
      SolveSetup s;
      s.iter1 = r.iter1;
      const SolveOutcome o =
          bounded ? solveBounded(r.f, nullptr, 1, r.m, {r.start}, {-100.0}, {100.0}, s)
                  : solveFree(r.f, nullptr, 1, r.m, {r.start}, s);
      ASSERT_FALSE(o.runaway);
      EXPECT_EQ(o.solveStatus, TRS_OK);
      EXPECT_EQ(o.rci, -r.reason);
      EXPECT_EQ(o.stopReason, r.reason);
      EXPECT_TRUE(r.iterations < 0 || o.iterations == r.iterations) << o.iterations;
      EXPECT_TRUE(r.residualCalls < 0 || o.residualCalls == r.residualCalls);
      EXPECT_TRUE(r.jacobianCalls < 0 || o.jacobianCalls == r.jacobianCalls);
      EXPECT_TRUE((r.reason != 3 && r.reason != 5) || o.r1 == o.r2);
      EXPECT_TRUE(r.reason != 1 || o.residualCalls >= 3);  // a rejected trial came first
    }
  }
}
