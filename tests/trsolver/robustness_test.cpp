// Every run on a finite problem ends: random smooth residuals from random
// starts, free and inside random boxes, all stop with a reason; a bounded run
// leaves its box only in the one way the step rules allow.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "harness.h"
#include "spot_models.h"

namespace {

// f_i = sum_j A_ij x_j + B_i + C_i x_p x_q + D_i sin(x_r) + E_i exp(-x_s^2).
struct RandomProblem {
  int n, m;
  std::vector<double> a, b, c, d, e;
  std::vector<int> p, q, r, s;
};

void randomResidual(int* m, int* n, double* x, double* f, void* data) {
  const auto* rp = static_cast<const RandomProblem*>(data);
  for (int i = 0; i < *m; ++i) {
    double v = rp->b[i];
    for (int j = 0; j < *n; ++j) v += rp->a[i + j * *m] * x[j];
    v += rp->c[i] * x[rp->p[i]] * x[rp->q[i]];
    v += rp->d[i] * std::sin(x[rp->r[i]]);
    v += rp->e[i] * std::exp(-x[rp->s[i]] * x[rp->s[i]]);
    f[i] = v;
  }
}

RandomProblem makeProblem(spotmodels::Draws& draws) {
  RandomProblem rp;
  rp.n = 1 + static_cast<int>(draws.uniform(0.0, 6.0));
  rp.m = rp.n + static_cast<int>(draws.uniform(0.0, 5.0));
  const int nn = rp.n, mm = rp.m;
  auto fill = [&](std::vector<double>& v, int size, double scale) {
    v.resize(size);
    for (double& x : v) x = scale * draws.uniform(-1.0, 1.0);
  };
  auto index = [&](std::vector<int>& v) {
    v.resize(mm);
    for (int& k : v) k = static_cast<int>(draws.uniform(0.0, nn));
  };
  fill(rp.a, mm * nn, 2.0);
  fill(rp.b, mm, 5.0);
  fill(rp.c, mm, 1.0);
  fill(rp.d, mm, 3.0);
  fill(rp.e, mm, 3.0);
  index(rp.p);
  index(rp.q);
  index(rp.r);
  index(rp.s);
  return rp;
}

}  // namespace

TEST(SolverRobustness, EveryRunOnAFiniteProblemEnds) {
  spotmodels::Draws draws(424242);
  int stops[7] = {};
  int leftTheBox = 0;
  for (int k = 0; k < 150; ++k) {
    SCOPED_TRACE(k);
    const RandomProblem rp = makeProblem(draws);
    std::vector<double> x0(rp.n), lw(rp.n), up(rp.n);
    for (int j = 0; j < rp.n; ++j) {
      x0[j] = draws.uniform(-3.0, 3.0);
      lw[j] = x0[j] - draws.uniform(0.0, 2.0);
      up[j] = x0[j] + draws.uniform(0.0, 2.0);
    }
    SolveSetup setup;
    setup.maxSolveCalls = 20000;
    setup.recordVisited = true;
    void* data = const_cast<RandomProblem*>(&rp);
    const SolveOutcome free = solveFree(randomResidual, data, rp.n, rp.m, x0, setup);
    ASSERT_FALSE(free.runaway);
    EXPECT_EQ(free.solveStatus, TRS_OK);
    EXPECT_TRUE(free.rci <= -1 && free.rci >= -6);
    EXPECT_LE(free.r2, free.r1);
    ++stops[free.stopReason];

    const SolveOutcome boxed = solveBounded(randomResidual, data, rp.n, rp.m, x0, lw, up, setup);
    ASSERT_FALSE(boxed.runaway);
    EXPECT_EQ(boxed.solveStatus, TRS_OK);
    EXPECT_TRUE(boxed.rci <= -1 && boxed.rci >= -6);
    EXPECT_LE(boxed.r2, boxed.r1);
    // By design the only way out of the box: a coordinate resting exactly on
    // an upper bound below zero gives the interior steepest-descent step a
    // negative length, and a mixing factor outside [0, 1] carries the trial
    // point out (no final clip).
    bool onNegativeUpperBound = false;
    for (const std::vector<double>& x : boxed.visited) {
      bool inside = true;
      for (int j = 0; j < rp.n; ++j) inside = inside && x[j] >= lw[j] && x[j] <= up[j];
      if (!inside) {
        EXPECT_TRUE(onNegativeUpperBound) << "left the box without the designed cause";
        ++leftTheBox;
        break;
      }
      for (int j = 0; j < rp.n; ++j) {
        onNegativeUpperBound = onNegativeUpperBound || (x[j] == up[j] && up[j] < 0.0);
      }
    }
  }
  // Most runs end on a convergence test, not on the limit of steps, and
  // inside their box.
  EXPECT_LT(stops[1], 15);
  EXPECT_LT(leftTheBox, 15);
}
