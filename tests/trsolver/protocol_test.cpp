// The edge cases that decide the checks of init, the stop reasons, the
// radius rules and the request protocol, for both families.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "harness.h"
#include "problems.h"
#include "trsolver/internal.h"
#include "trsolver/radius.h"

namespace {

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
TrHandle const kSentinel = reinterpret_cast<TrHandle>(0x1234);

struct InitCase {
  const char* name;
  int n, m, iter1, iter2;
  double rs;
  int epsIndex;  // -1: all six eps 1e-4
  double epsValue;
  int status;
  double storedRs;
};

int initFamily(bool bounded, TrHandle* h, const InitCase& c, std::vector<double>& x,
               std::vector<double>& lw, std::vector<double>& up, std::vector<double>& eps) {
  if (bounded) {
    return DTRNLSPBC_INIT(h, &c.n, &c.m, x.data(), lw.data(), up.data(), eps.data(), &c.iter1,
                          &c.iter2, &c.rs);
  }
  return DTRNLSP_INIT(h, &c.n, &c.m, x.data(), eps.data(), &c.iter1, &c.iter2, &c.rs);
}

}  // namespace

TEST(SolverProtocol, InitChecks) {
  const std::vector<InitCase> cases = {
      {"valid", 2, 3, 1000, 100, 100.0, -1, 0, TRS_OK, 100.0},
      {"n equal to m", 3, 3, 1000, 100, 100.0, -1, 0, TRS_OK, 100.0},
      {"m one below n", 3, 2, 1000, 100, 100.0, -1, 0, TRS_BAD_ARGUMENT, 0},
      {"n zero", 0, 3, 1000, 100, 100.0, -1, 0, TRS_BAD_ARGUMENT, 0},
      {"m zero", 2, 0, 1000, 100, 100.0, -1, 0, TRS_BAD_ARGUMENT, 0},
      {"iter1 zero", 2, 3, 0, 100, 100.0, -1, 0, TRS_BAD_ARGUMENT, 0},
      {"iter2 zero", 2, 3, 1000, 0, 100.0, -1, 0, TRS_BAD_ARGUMENT, 0},
      {"rs 0 stored as 100", 2, 3, 1000, 100, 0.0, -1, 0, TRS_OK, 100.0},
      {"rs small kept", 2, 3, 1000, 100, 0.5, -1, 0, TRS_OK, 0.5},
      {"rs 100.5", 2, 3, 1000, 100, 100.5, -1, 0, TRS_BAD_ARGUMENT, 0},
      {"rs negative", 2, 3, 1000, 100, -1e-300, -1, 0, TRS_BAD_ARGUMENT, 0},
      {"rs NaN passes", 2, 3, 1000, 100, NaN, -1, 0, TRS_OK, NaN},
      {"eps[0] zero", 2, 3, 1000, 100, 100.0, 0, 0.0, TRS_BAD_ARGUMENT, 0},
      {"eps[1] zero", 2, 3, 1000, 100, 100.0, 1, 0.0, TRS_BAD_ARGUMENT, 0},
      {"eps[2] zero", 2, 3, 1000, 100, 100.0, 2, 0.0, TRS_BAD_ARGUMENT, 0},
      {"eps[3] negative", 2, 3, 1000, 100, 100.0, 3, -1e-4, TRS_BAD_ARGUMENT, 0},
      {"eps[4] zero", 2, 3, 1000, 100, 100.0, 4, 0.0, TRS_BAD_ARGUMENT, 0},
      {"eps[5] zero", 2, 3, 1000, 100, 100.0, 5, 0.0, TRS_BAD_ARGUMENT, 0},
      {"eps NaN passes", 2, 3, 1000, 100, 100.0, 5, NaN, TRS_OK, 100.0},
  };
  for (bool bounded : {false, true}) {
    for (const InitCase& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (bounded ? " bounded" : " free"));
      std::vector<double> x(3, 0.5), lw(3, 0.0), up(3, 1.0), eps(6, 1e-4);
      if (c.epsIndex >= 0) eps[c.epsIndex] = c.epsValue;
      TrHandle h = kSentinel;
      ASSERT_EQ(initFamily(bounded, &h, c, x, lw, up, eps), c.status);
      if (c.status != TRS_OK) {
        EXPECT_EQ(h, kSentinel);  // the handle is left untouched
        continue;
      }
      ASSERT_NE(h, kSentinel);
      EXPECT_EQ(h->n, c.n);
      EXPECT_EQ(h->m, c.m);
      const TrResiduals* r = bounded ? static_cast<TrStateBounded*>(h->state)->residuals
                                     : static_cast<TrState*>(h->state)->residuals;
      const TrCounters* k = bounded ? static_cast<TrStateBounded*>(h->state)->counters
                                    : static_cast<TrState*>(h->state)->counters;
      if (std::isnan(c.storedRs)) {
        EXPECT_TRUE(std::isnan(r->rs));
      } else {
        EXPECT_EQ(r->rs, c.storedRs);
      }
      EXPECT_EQ(k->iter1, c.iter1);
      EXPECT_EQ(k->iter2, c.iter2);
      // get before any solve: all zero.
      int iterations = -7, reason = -7;
      double r1 = -7, r2 = -7;
      const int st = bounded ? DTRNLSPBC_GET(&h, &iterations, &reason, &r1, &r2)
                             : DTRNLSP_GET(&h, &iterations, &reason, &r1, &r2);
      EXPECT_EQ(st, TRS_OK);
      EXPECT_EQ(iterations, 0);
      EXPECT_EQ(reason, 0);
      EXPECT_EQ(r1, 0.0);
      EXPECT_EQ(r2, 0.0);
      EXPECT_EQ(bounded ? DTRNLSPBC_DELETE(&h) : DTRNLSP_DELETE(&h), TRS_OK);
    }
  }
}

namespace {

// A trial residual digested from a prepared state: n = m = 1, x = 1.0,
// s = 0.5, old residual 2.0 = fnorm, trial residual N.
struct DigestCase {
  const char* name;
  double trialNorm, jsnorm, lambda, snorm, delta;
  bool accepted;
  double freeDelta, boundedDelta;
};

template <typename State>
void prepare(State* st, const DigestCase& c) {
  st->first_pass = 0;
  st->phase = 2;
  st->eta = 1e-4;
  st->count = 0;
  st->fnorm = 2.0;
  st->jsnorm = c.jsnorm;
  st->lambda = c.lambda;
  st->snorm = c.snorm;
  st->delta = c.delta;
  st->ratio = 0.0;
  st->step[0] = 0.5;
  st->saved_residual[0] = 2.0;
}

template <typename State>
void checkDigest(bool bounded, const DigestCase& c) {
  SCOPED_TRACE(std::string(c.name) + (bounded ? " bounded" : " free"));
  int n = 1, m = 1, iter1 = 1000, iter2 = 100;
  double rs = 100.0;
  std::vector<double> x = {1.5}, lw = {-10.0}, up = {10.0}, eps(6, 1e-4);
  TrHandle h = nullptr;
  ASSERT_EQ(bounded ? DTRNLSPBC_INIT(&h, &n, &m, x.data(), lw.data(), up.data(), eps.data(), &iter1,
                                     &iter2, &rs)
                    : DTRNLSP_INIT(&h, &n, &m, x.data(), eps.data(), &iter1, &iter2, &rs),
            TRS_OK);
  auto* st = static_cast<State*>(h->state);
  prepare(st, c);  // x holds the trial point 1.0 + 0.5
  double fvec[1] = {c.trialNorm}, fjac[1] = {1.0};
  int rci = 1;
  ASSERT_EQ(bounded ? DTRNLSPBC_SOLVE(&h, fvec, fjac, &rci) : DTRNLSP_SOLVE(&h, fvec, fjac, &rci),
            TRS_OK);
  EXPECT_EQ(rci, 0);
  EXPECT_EQ(st->first_pass, 0);
  EXPECT_DOUBLE_EQ(st->delta, bounded ? c.boundedDelta : c.freeDelta);
  if (c.accepted) {
    EXPECT_EQ(x[0], 1.5);
    EXPECT_EQ(fvec[0], c.trialNorm);
    EXPECT_EQ(st->count, 1);
    EXPECT_EQ(st->fnorm, c.trialNorm);
    EXPECT_NE(st->ratio, TRS_REJECTED_MARKER);
  } else {
    EXPECT_EQ(x[0], 1.0);
    EXPECT_EQ(fvec[0], 2.0);  // the caller's buffer holds the old residual again
    EXPECT_EQ(st->count, 0);
    EXPECT_EQ(st->fnorm, 2.0);
    EXPECT_EQ(st->ratio, TRS_REJECTED_MARKER);
  }
  bounded ? DTRNLSPBC_DELETE(&h) : DTRNLSP_DELETE(&h);
}

}  // namespace

TEST(SolverProtocol, RatioAcceptanceAndRadiusRules) {
  const double capFree = 0.1 * (0.3 / 0.1), capBounded = 0.1 * (10.0 * 0.3);
  ASSERT_NE(capFree, capBounded);  // the two shrink caps are not the same double
  const std::vector<DigestCase> cases = {
      // A = 0.75, P = 3: R exactly 0.25 takes the shrink branch (M 0.5).
      {"R exactly 0.25", 1.0, 2.0, 1.0, 2.0, 3.0, true, 1.5, 1.5},
      // A = 0.75, P = 7500: R exactly 0.0001 is accepted.
      {"R exactly eta", 1.0, 100.0, 100.0, 10.0, 8.0, true, 4.0, 4.0},
      {"R just below eta", 1.0, 100.0, 100.0, 10.000001, 8.0, false, 4.0, 4.0},
      // fnorm at or below 0.1 N: A = -1, M = 0.1.
      {"tenfold residual", 20.0, 2.0, 1.0, 2.0, 3.0, false, 0.3, 0.3},
      {"tenfold, cap by step", 20.0, 2.0, 1.0, 0.3, 100.0, false, capFree, capBounded},
      // A < 0 without the tenfold rise: M = 0.5 D / (0.5 A + D) = 1 / 2.28125.
      {"worse residual", 2.5, 2.0, 1.0, 2.0, 3.0, false, 3.0 / 2.28125, 3.0 / 2.28125},
      // A NaN residual fails the test against 0.1 N: A = -1 and M = 0.4.
      {"NaN residual", NaN, 2.0, 1.0, 2.0, 3.0, false, 1.2, 1.2},
      // Large R: a shifted step keeps the radius, an unshifted one sets 2 |s|.
      {"large R shifted", 0.2, 2.0, 0.01, 2.0, 5.0, true, 5.0, 5.0},
      {"large R unshifted", 0.2, 2.0, 0.0, 1.0, 5.0, true, 2.0, 2.0},
  };
  for (const DigestCase& c : cases) {
    checkDigest<TrState>(false, c);
    checkDigest<TrStateBounded>(true, c);
  }
}

TEST(SolverProtocol, FirstRadiusAndColumnTest) {
  struct Row {
    double j, x, rs, expected;
  };
  const Row rows[] = {
      {2.0, 3.0, 100.0, 600.0},   // |c x| rs
      {-2.0, 3.0, 100.0, 600.0},  // column norms are positive
      {0.0, 3.0, 100.0, 300.0},   // a zero column counts as 1
      {2.0, 0.0, 100.0, 100.0},   // candidate 0 <= eps[0]: rs itself
      {2.0, 3.0, 0.5, 3.0},
  };
  for (const Row& r : rows) {
    double work[1];
    EXPECT_EQ(trs_initial_radius(1, 1, &r.j, &r.x, r.rs, 1e-4, work), r.expected);
  }
  const double small[4] = {1e-5, 0.0, -1e-5, 0.0};
  const double edge[4] = {1e-5, 0.0, 1e-4, 0.0};
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

}  // namespace

TEST(SolverProtocol, StopReasonsOfSmallProblems) {
  struct Row {
    const char* name;
    TrResidualFunction f;
    int m;
    double start;
    int iter1;
    int reason, iterations;
    long residualCalls, jacobianCalls;  // -1: not checked
  };
  const Row rows[] = {
      // |F| = 1e-5 <= eps[1] at the start: one evaluation, no Jacobian.
      {"start satisfies eps[1]", nearSolution, 1, 1.0 + 1e-5, 1000, 3, 0, 1, 0},
      // Zero gradient: zero step (status 2), reason 5.
      {"zero gradient", linearPair, 2, 0.0, 1000, 5, 0, 1, 1},
      // Every column below eps[2]: reason 4 before any step.
      {"flat Jacobian", flatColumn, 2, 5.0, 1000, 4, 0, 1, 1},
      // The first Gauss-Newton step of atan from 3 overshoots and is
      // rejected; the run goes on and stops at the first accepted step.
      {"iter1 one after a rejection", arctangent, 1, 3.0, 1, 1, 1, -1, -1},
  };
  for (bool bounded : {false, true}) {
    for (const Row& r : rows) {
      SCOPED_TRACE(std::string(r.name) + (bounded ? " bounded" : " free"));
      SolveSetup s;
      s.iter1 = r.iter1;
      const SolveOutcome o =
          bounded ? solveBounded(r.f, nullptr, 1, r.m, {r.start}, {-100.0}, {100.0}, s)
                  : solveFree(r.f, nullptr, 1, r.m, {r.start}, s);
      ASSERT_FALSE(o.runaway);
      EXPECT_EQ(o.solveStatus, TRS_OK);
      EXPECT_EQ(o.rci, -r.reason);
      EXPECT_EQ(o.stopReason, r.reason);
      EXPECT_EQ(o.iterations, r.iterations);
      if (r.residualCalls >= 0) {
        EXPECT_EQ(o.residualCalls, r.residualCalls);
      }
      if (r.jacobianCalls >= 0) {
        EXPECT_EQ(o.jacobianCalls, r.jacobianCalls);
      }
      if (r.reason == 3 || r.reason == 5) {
        EXPECT_EQ(o.r1, o.r2);
      }
      if (r.reason == 1) {
        EXPECT_GE(o.residualCalls, 3);  // a rejected trial came first
      }
    }
  }
}

namespace {

// Manual driving of the free family, one request at a time.
struct Manual {
  int n, m;
  std::vector<double> x, eps, fvec, fjac;
  TrHandle h = nullptr;
  int rci = 0;
  Manual(int n_, int m_, std::vector<double> x0)
      : n(n_), m(m_), x(std::move(x0)), eps(6, 1e-4), fvec(m_), fjac(m_ * n_) {
    int iter1 = 1000, iter2 = 100;
    double rs = 100.0;
    EXPECT_EQ(DTRNLSP_INIT(&h, &n, &m, x.data(), eps.data(), &iter1, &iter2, &rs), TRS_OK);
  }
  ~Manual() { DTRNLSP_DELETE(&h); }
  int solve() { return DTRNLSP_SOLVE(&h, fvec.data(), fjac.data(), &rci); }
  TrState* state() { return static_cast<TrState*>(h->state); }
};

// F = 1 at the start x = 1 and 100 (1 + |x|) anywhere else; the Jacobian is
// handed in as 10, so every trial is rejected, and |J s| stays above eps[2]
// until the radius falls under eps[0].
double liar(double x) {
  return x == 1.0 ? 1.0 : 100.0 * (1.0 + std::fabs(x));
}

}  // namespace

TEST(SolverProtocol, RequestSequences) {
  {
    SCOPED_TRACE("stop on request");
    for (int request : {-1, -2}) {
      Manual r(1, 1, {3.0});
      r.rci = request;
      EXPECT_EQ(r.solve(), TRS_OK);
      EXPECT_EQ(r.rci, 0);  // a loop that only tests for negatives goes on
      int it = 9, reason = 9;
      double r1, r2;
      DTRNLSP_GET(&r.h, &it, &reason, &r1, &r2);
      EXPECT_EQ(reason, request);
      EXPECT_EQ(it, 0);
    }
  }
  {
    SCOPED_TRACE("unknown entry value counts as 0");
    Manual r(1, 1, {3.0});
    r.rci = 7;
    EXPECT_EQ(r.solve(), TRS_OK);
    EXPECT_EQ(r.rci, 1);
    EXPECT_EQ(r.state()->phase, 1);
  }
  {
    SCOPED_TRACE("rejections end by radius without a new Jacobian");
    Manual r(1, 1, {1.0});
    int jacobians = 0, rejections = 0;
    for (int guard = 0; guard < 1000 && !(r.rci < 0); ++guard) {
      ASSERT_EQ(r.solve(), TRS_OK);
      if (r.rci == 1) r.fvec[0] = liar(r.x[0]);
      if (r.rci == 2) {
        r.fjac[0] = 10.0;
        ++jacobians;
      }
      if (r.rci == 0 && r.state()->ratio == TRS_REJECTED_MARKER) {
        ++rejections;
        EXPECT_EQ(r.fvec[0], 1.0);  // the accepted residual, not the trial one
      }
    }
    EXPECT_EQ(r.rci, -2);
    EXPECT_EQ(jacobians, 1);
    EXPECT_GE(rejections, 4);
    EXPECT_LT(r.state()->delta, 1e-4);
    EXPECT_EQ(r.x[0], 1.0);
    EXPECT_EQ(r.fvec[0], 1.0);
  }
  {
    SCOPED_TRACE("a rejected first step clears first_pass, radius capped by the step");
    Manual r(1, 1, {3.0});
    ASSERT_EQ(r.solve(), TRS_OK);  // set up
    ASSERT_EQ(r.rci, 1);
    r.fvec[0] = std::atan(r.x[0]);
    ASSERT_EQ(r.solve(), TRS_OK);
    ASSERT_EQ(r.rci, 2);
    r.fjac[0] = 1.0 / (1.0 + r.x[0] * r.x[0]);
    ASSERT_EQ(r.solve(), TRS_OK);
    ASSERT_EQ(r.rci, 1);
    EXPECT_EQ(r.state()->delta, r.state()->snorm);
    const double snorm = r.state()->snorm;
    r.fvec[0] = std::atan(r.x[0]);
    ASSERT_EQ(r.solve(), TRS_OK);
    EXPECT_EQ(r.rci, 0);
    EXPECT_EQ(r.state()->first_pass, 0);
    EXPECT_EQ(r.state()->ratio, TRS_REJECTED_MARKER);
    EXPECT_LT(r.state()->delta, snorm);
    EXPECT_EQ(r.x[0], 3.0);
    // The next step reuses the Jacobian: a trial residual is requested at once.
    ASSERT_EQ(r.solve(), TRS_OK);
    EXPECT_EQ(r.rci, 1);
  }
  {
    SCOPED_TRACE("fvec holds the accepted residual at every 0, 2 and stop");
    const TestProblem& p = classicProblem("Rosenbrock");
    Manual r(p.n, p.m, p.start);
    std::vector<double> expected(p.m);
    int n = p.n, m = p.m, returns = 0;
    for (int guard = 0; guard < 10000; ++guard) {
      ASSERT_EQ(r.solve(), TRS_OK);
      if (r.rci == 0 || r.rci == 2 || r.rci < 0) {
        if (r.state()->first_pass == 0 || r.rci < 0) {
          p.residual(&m, &n, r.x.data(), expected.data(), nullptr);
          for (int i = 0; i < m; ++i) EXPECT_NEAR(r.fvec[i], expected[i], 1e-12);
          ++returns;
        }
      }
      if (r.rci < 0) break;
      if (r.rci == 1) p.residual(&m, &n, r.x.data(), r.fvec.data(), nullptr);
      if (r.rci == 2)
        DJACOBIX(p.residual, &n, &m, r.fjac.data(), r.x.data(), r.eps.data(), nullptr);
    }
    EXPECT_EQ(r.rci, -3);
    EXPECT_GT(returns, 10);
  }
  {
    SCOPED_TRACE("a change of eps between calls takes effect at once");
    const TestProblem& p = classicProblem("Rosenbrock");
    Manual r(p.n, p.m, p.start);
    int n = p.n, m = p.m;
    for (int guard = 0; guard < 10000 && r.rci >= 0; ++guard) {
      ASSERT_EQ(r.solve(), TRS_OK);
      if (r.rci == 1) p.residual(&m, &n, r.x.data(), r.fvec.data(), nullptr);
      if (r.rci == 2)
        DJACOBIX(p.residual, &n, &m, r.fjac.data(), r.x.data(), r.eps.data(), nullptr);
      if (r.rci == 0 && r.state()->count == 2) r.eps[1] = 1e10;
    }
    EXPECT_EQ(r.rci, -3);
    EXPECT_EQ(r.state()->count, 2);
  }
}

namespace {

SolveOutcome rosenbrockWith(bool bounded, const SolveSetup& s) {
  const TestProblem& p = classicProblem("Rosenbrock");
  return bounded ? solveBounded(p.residual, nullptr, p.n, p.m, p.start, {-2.0, -1.0}, {0.5, 2.0}, s)
                 : solveFree(p.residual, nullptr, p.n, p.m, p.start, s);
}

bool sameRun(const SolveOutcome& a, const SolveOutcome& b) {
  return a.x == b.x && a.iterations == b.iterations && a.stopReason == b.stopReason &&
         a.residualCalls == b.residualCalls && a.r2 == b.r2;
}

}  // namespace

// eps[4] and eps[5] drive nothing, the family with bounds ignores iter2, and
// iter1 limits accepted steps.
TEST(SolverProtocol, PrecisionsThatDriveNothing) {
  for (bool bounded : {false, true}) {
    SCOPED_TRACE(bounded ? "bounded" : "free");
    const SolveOutcome base = rosenbrockWith(bounded, SolveSetup{});
    ASSERT_GT(base.iterations, 3);
    SolveSetup s4;
    s4.eps[4] = 1e6;
    EXPECT_TRUE(sameRun(base, rosenbrockWith(bounded, s4)));
    SolveSetup s5;
    s5.eps[5] = 1e6;
    EXPECT_TRUE(sameRun(base, rosenbrockWith(bounded, s5)));
    SolveSetup limited;
    limited.iter1 = 3;
    const SolveOutcome three = rosenbrockWith(bounded, limited);
    EXPECT_EQ(three.stopReason, 1);
    EXPECT_EQ(three.iterations, 3);
  }
  SolveSetup shortSteps;
  shortSteps.iter2 = 1;
  EXPECT_TRUE(sameRun(rosenbrockWith(true, SolveSetup{}), rosenbrockWith(true, shortSteps)));
}

// The three exported forms are one operation; freeing buffers mid-run
// changes nothing.
TEST(SolverProtocol, ExportedFormsAgree) {
  using Init = int (*)(TrHandle*, const int*, const int*, double*, double*, const int*, const int*,
                       const double*);
  using Solve = int (*)(TrHandle*, double*, double*, int*);
  using Get = int (*)(TrHandle*, int*, int*, double*, double*);
  using Delete = int (*)(TrHandle*);
  struct Forms {
    Init init;
    Solve solve;
    Get get;
    Delete del;
  };
  const Forms forms[] = {{dtrnlsp_init, dtrnlsp_solve, dtrnlsp_get, dtrnlsp_delete},
                         {dtrnlsp_init_, dtrnlsp_solve_, dtrnlsp_get_, dtrnlsp_delete_},
                         {DTRNLSP_INIT, DTRNLSP_SOLVE, DTRNLSP_GET, DTRNLSP_DELETE}};
  const TestProblem& p = classicProblem("Beale");
  std::vector<std::vector<double>> results;
  for (const Forms& f : forms) {
    std::vector<double> x = p.start, eps(6, 1e-4), fvec(p.m), fjac(p.m * p.n);
    int n = p.n, m = p.m, iter1 = 1000, iter2 = 100, rci = 0;
    double rs = 100.0;
    TrHandle h = nullptr;
    ASSERT_EQ(f.init(&h, &n, &m, x.data(), eps.data(), &iter1, &iter2, &rs), TRS_OK);
    for (int guard = 0; guard < 10000; ++guard) {
      ASSERT_EQ(f.solve(&h, fvec.data(), fjac.data(), &rci), TRS_OK);
      TRS_FREE_BUFFERS();
      if (rci < 0) break;
      if (rci == 1) p.residual(&m, &n, x.data(), fvec.data(), nullptr);
      if (rci == 2) djacobix_(p.residual, &n, &m, fjac.data(), x.data(), eps.data(), nullptr);
    }
    int it, reason;
    double r1, r2;
    EXPECT_EQ(f.get(&h, &it, &reason, &r1, &r2), TRS_OK);
    EXPECT_EQ(reason, 3);
    EXPECT_EQ(f.del(&h), TRS_OK);
    results.push_back(x);
  }
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0], results[2]);
}

TEST(SolverProtocol, BoundsAreNotChecked) {
  int n = 1, m = 1, iter1 = 10, iter2 = 10;
  double rs = 100.0, x = 5.0, lw = 1.0, up = 0.0;
  std::vector<double> eps(6, 1e-4);
  TrHandle h = nullptr;
  EXPECT_EQ(DTRNLSPBC_INIT(&h, &n, &m, &x, &lw, &up, eps.data(), &iter1, &iter2, &rs), TRS_OK);
  EXPECT_EQ(DTRNLSPBC_DELETE(&h), TRS_OK);
}
