// The central-difference Jacobian: its step rule, its checks, that it leaves
// x alone, and that its columns are bit-identical for any number of threads.
#include <gtest/gtest.h>
#include <omp.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "harness.h"
#include "problems.h"
#include "spot_models.h"

namespace {

constexpr double H = 1e-4;

void cube(int* m, int*, double* x, double* f, void*) {
  for (int i = 0; i < *m; ++i) f[i] = x[i] * x[i] * x[i];
}

// Restores the thread count that the run had.
struct ThreadCount {
  int saved = omp_get_max_threads();
  ~ThreadCount() { omp_set_num_threads(saved); }
};

}  // namespace

// For x^3 the central difference is exact up to rounding, so the column tells
// which step was taken: with an absolute step h it is 3 v^2 + h^2, with the
// relative step v h it is v^2 (3 + h^2).
TEST(NumericalJacobian, StepRule) {
  struct Row {
    const char* name;
    double v, expected;
  };
  const Row rows[] = {
      {"zero: forward h, backward -h, divisor 2h", 0.0, H * H},
      {"magnitude exactly h counts as small", H, 4.0 * H * H},
      {"minus h: forward 0, backward -2h", -H, 4.0 * H * H},
      {"small: absolute step", 0.5 * H, 3.0 * 0.25 * H * H + H * H},
      {"large positive: relative step", 3.0, 9.0 * (3.0 + H * H)},
      {"large negative: relative step, sign kept", -2.0, 4.0 * (3.0 + H * H)},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    int n = 1, m = 1;
    double jac = 0.0;
    const double eps[6] = {H, 7, 7, 7, 7, 7};  // only the first element is read
    ASSERT_EQ(DJACOBIX(cube, &n, &m, &jac, &r.v, eps, nullptr), TRS_OK);
    EXPECT_NEAR(jac, r.expected, 1e-10 * std::fabs(r.expected));
  }
}

TEST(NumericalJacobian, ChecksAndUntouchedBuffers) {
  const std::vector<double> x0 = {0.3, -1e-5, 12.0};
  std::vector<double> x = x0;
  const double marker = 123.25;
  struct Row {
    const char* name;
    int n;
    double step;
    int status;
  };
  const Row rows[] = {
      {"n zero", 0, H, TRS_BAD_ARGUMENT},
      {"n negative", -1, H, TRS_BAD_ARGUMENT},
      {"step zero", 3, 0.0, TRS_BAD_ARGUMENT},
      {"step negative", 3, -H, TRS_BAD_ARGUMENT},
      {"valid", 3, H, TRS_OK},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    int n = r.n, m = 3;
    std::vector<double> jac(9, marker);
    EXPECT_EQ(djacobix(cube, &n, &m, jac.data(), x.data(), &r.step, nullptr), r.status);
    if (r.status != TRS_OK) {
      for (double v : jac) EXPECT_EQ(v, marker);
    }
    EXPECT_EQ(std::memcmp(x.data(), x0.data(), sizeof(double) * x0.size()), 0);
  }
}

namespace {

// Counts calls and threads, and checks that x itself is never evaluated.
struct Recorder {
  const double* x;
  int n;
  std::atomic<int> calls{0};
  std::atomic<int> atStart{0};
  std::atomic<unsigned> threads{0};
};

void recording(int* m, int* n, double* x, double* f, void* data) {
  auto* rec = static_cast<Recorder*>(data);
  ++rec->calls;
  rec->threads |= 1u << (omp_get_thread_num() % 32);
  if (std::memcmp(x, rec->x, sizeof(double) * rec->n) == 0) ++rec->atStart;
  for (int i = 0; i < *m; ++i) f[i] = std::sin(x[i % *n]) * (i + 1);
}

// A residual with enough values to be split between threads.
void wideResidual(int* m, int* n, double* x, double* f, void*) {
  for (int i = 0; i < *m; ++i) f[i] = std::sin(x[i % *n] * (i + 1)) + x[(i + 1) % *n] * x[i % *n];
}

}  // namespace

TEST(NumericalJacobian, TwoCallsPerColumnNeverAtX) {
  ThreadCount restore;
  omp_set_num_threads(3);
  std::vector<double> x = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7};
  // Large enough (m x n) that the columns are shared out between threads.
  int n = 7, m = 10000;
  std::vector<double> jac(static_cast<size_t>(m) * n);
  Recorder rec;
  rec.x = x.data();
  rec.n = n;
  ASSERT_EQ(DJACOBIX(recording, &n, &m, jac.data(), x.data(), &H, &rec), TRS_OK);
  EXPECT_EQ(rec.calls, 2 * n);
  EXPECT_EQ(rec.atStart, 0);
  EXPECT_NE(rec.threads & ~1u, 0u);  // the columns did run on several threads
}

// The same columns, to the bit, whatever the number of threads, also with
// more threads than columns and uneven blocks.
TEST(NumericalJacobian, BitIdenticalForAnyThreadCount) {
  ThreadCount restore;
  spotmodels::Draws draws(7);
  const double truth[6] = {9.3, 1.7, 8.6, 2.1, 900.0, 100.0};
  const std::vector<double> pixels = spotmodels::sampleSpot(truth, 19, 19, 20.0, draws);
  std::vector<int> pos(19);
  for (int i = 0; i < 19; ++i) pos[i] = i;
  spotmodels::TwoDimensionData spot{pixels.data(), pos.data(), pos.data(), 19, 19};
  const TestProblem& osborne = classicProblem("Osborne2");

  struct Case {
    const char* name;
    TrResidualFunction f;
    void* data;
    int n, m;
    std::vector<double> x;
  };
  const std::vector<Case> cases = {
      {"2-D spot", spotmodels::residualTwoDimension, &spot, 6, 361, {9.0, 1.5, 9.0, 1.5, 800, 90}},
      {"Osborne 2", osborne.residual, nullptr, osborne.n, osborne.m, osborne.start},
      {"wide", wideResidual, nullptr, 9, 20000, {0.1, -0.2, 0.3, 1e-9, 0.0, 2.0, -3.0, 0.7, 1e3}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<double> reference;
    for (int threads : {1, 2, 3, 4, 7, 16}) {
      omp_set_num_threads(threads);
      int n = c.n, m = c.m;
      std::vector<double> jac(static_cast<size_t>(m) * n);
      ASSERT_EQ(DJACOBIX(c.f, &n, &m, jac.data(), c.x.data(), &H, c.data), TRS_OK);
      if (reference.empty()) {
        reference = jac;
      } else {
        EXPECT_EQ(std::memcmp(jac.data(), reference.data(), sizeof(double) * jac.size()), 0)
            << threads << " threads";
      }
    }
  }

  // And so a whole solve ends on the same bits.
  std::vector<std::vector<double>> results;
  for (int threads : {1, 4}) {
    omp_set_num_threads(threads);
    results.push_back(solveFree(osborne.residual, nullptr, osborne.n, osborne.m, osborne.start).x);
  }
  EXPECT_EQ(results[0], results[1]);
}
