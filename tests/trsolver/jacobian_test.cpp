// The central-difference Jacobian: its step rule, its checks, that it leaves
// x alone, and that its columns are bit-identical for any number of threads.
#include <gtest/gtest.h>
#include <omp.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <vector>

#include "trsolver/trsolver.h"

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
// relative step v h it is v^2 (3 + h^2). Bad arguments leave J and x alone.
TEST(NumericalJacobian, StepRuleAndChecks) {
  struct Row {
    int n;
    double v, step, expected;
    int status;
  };
  const int ok = TRS_OK, bad = TRS_BAD_ARGUMENT;
  // At 0: forward h, backward -h, divisor 2h; a magnitude of exactly h counts
  // as small; the relative step keeps the sign.
  // clang-format off
  const Row rows[] = {
      {1, 0.0, H, H * H, ok}, {1, H, H, 4.0 * H * H, ok},
      {1, 0.5 * H, H, 3.0 * 0.25 * H * H + H * H, ok}, {1, 3.0, H, 9.0 * (3.0 + H * H), ok},
      {1, -2.0, H, 4.0 * (3.0 + H * H), ok}, {0, 1.0, H, 0.5, bad}, {1, 1.0, 0.0, 0.5, bad},
      {1, 1.0, -H, 0.5, bad}};
  // clang-format on
  for (const Row& r : rows) {
    SCOPED_TRACE(&r - rows);
    int n = r.n, m = 1;
    double jac = 0.5, x = r.v;
    const double eps[6] = {r.step, 7, 7, 7, 7, 7};  // only the first element is read
    ASSERT_EQ(djacobix(cube, &n, &m, &jac, &x, eps, nullptr), r.status);
    EXPECT_NEAR(jac, r.expected, 1e-10 * std::fabs(r.expected));
    EXPECT_EQ(x, r.v);
  }
}

namespace {

// Counts its calls.
void counting(int* m, int* n, double* x, double* f, void* calls) {
  ++*static_cast<std::atomic<int>*>(calls);
  for (int i = 0; i < *m; ++i) f[i] = std::sin(x[i % *n] * (i + 1)) + x[(i + 1) % *n] * x[i % *n];
}

}  // namespace

// Two calls a column, and the same columns to the bit for any thread count
// (m x n is large enough to share them out), also with more threads than
// columns and uneven blocks.
TEST(NumericalJacobian, TwoCallsPerColumnBitIdenticalForAnyThreadCount) {
  ThreadCount restore;
  std::vector<double> x = {0.1, -0.2, 0.3, 1e-9, 0.0, 2.0, -3.0, 0.7, 1e3};
  int n = 9, m = 10000;
  std::vector<double> reference;
  for (int threads : {1, 3, 4, 16}) {
    SCOPED_TRACE(threads);
    omp_set_num_threads(threads);
    std::vector<double> jac(static_cast<size_t>(m) * n);
    std::atomic<int> calls{0};
    ASSERT_EQ(DJACOBIX(counting, &n, &m, jac.data(), x.data(), &H, &calls), TRS_OK);
    EXPECT_EQ(calls, 2 * n);
    if (reference.empty()) reference = jac;
    EXPECT_EQ(std::memcmp(jac.data(), reference.data(), sizeof(double) * jac.size()), 0);
  }
}
