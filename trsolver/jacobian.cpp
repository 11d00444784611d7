// Central-difference Jacobian of a caller's residual function. Columns are
// independent and may run on several threads, each with private slices, so
// the result does not depend on the number of threads.
#include <cblas.h>
#include <omp.h>

#include <cmath>

#include "trsolver/internal.h"

namespace {

constexpr std::size_t JACOBIAN_ALIGNMENT = 64;

// Below this many residual values per Jacobian (m x n) the columns run on one
// thread: waking a team costs more than a spot-sized problem takes, and on a
// busy machine spinning threads turn a 0.3 ms fit into a 100 ms one. The
// result is the same either way; only the speed differs.
constexpr int64_t PARALLEL_MIN_WORK = 1 << 16;

// Forward and backward values of parameter v and the divisor of their
// difference: relative to v with its sign when |v| exceeds h, absolute
// otherwise (|v| equal to h counts as small).
struct ColumnStep {
  double forward, backward, divisor;
};

ColumnStep columnStep(double v, double h, double onePlusH, double oneMinusH, double twoH) {
  if (h >= std::fabs(v)) return {h + v, v - h, twoH};
  return {v * onePlusH, v * oneMinusH, v * twoH};
}

// One column of the Jacobian on one thread's private slices: the parameter
// copy xp (clean again on return), and the forward and backward residuals.
struct ColumnSteps {
  TrResidualFunction fcn;
  void* userData;
  double h, onePlusH, oneMinusH, twoH;
  int64_t m, n;
  double* fjac;

  void column(int64_t j, double* xp, double* f1, double* f2) const {
    int mLocal = static_cast<int>(m), nLocal = static_cast<int>(n);
    const blasint bm = static_cast<blasint>(m);
    const double v = xp[j];
    const ColumnStep cs = columnStep(v, h, onePlusH, oneMinusH, twoH);
    xp[j] = cs.forward;
    fcn(&mLocal, &nLocal, xp, f1, userData);
    xp[j] = cs.backward;
    fcn(&mLocal, &nLocal, xp, f2, userData);
    xp[j] = v;
    cblas_daxpy(bm, -1.0, f2, 1, f1, 1);
    // One reciprocal, then a multiply, as the column's arithmetic is fixed.
    cblas_dscal(bm, 1.0 / cs.divisor, f1, 1);
    cblas_dcopy(bm, f1, 1, fjac + j * m, 1);
  }
};

struct Blocks {
  double* forward = nullptr;
  double* backward = nullptr;
  double* params = nullptr;
  ~Blocks() {
    trs_free(forward);
    trs_free(backward);
    trs_free(params);
  }
};

}  // namespace

int trs_djacobix(TrResidualFunction fcn, int64_t n, int64_t m, double* fjac, const double* x,
                 const double* eps, void* user_data) {
  const double h = eps[0];
  if (n < 1 || h <= 0.0) return TRS_BAD_ARGUMENT;

  // Inside a parallel region (spot fits on several threads) the columns stay
  // on the calling thread.
  const int threads = m * n >= PARALLEL_MIN_WORK && !omp_in_parallel() ? omp_get_max_threads() : 1;
  Blocks b;
  const std::size_t tm = static_cast<std::size_t>(threads) * static_cast<std::size_t>(m);
  const std::size_t tn = static_cast<std::size_t>(threads) * static_cast<std::size_t>(n);
  b.forward = trs_alloc_doubles(tm, JACOBIAN_ALIGNMENT);
  b.backward = trs_alloc_doubles(tm, JACOBIAN_ALIGNMENT);
  b.params = trs_alloc_doubles(tn, JACOBIAN_ALIGNMENT);
  if (b.forward == nullptr || b.backward == nullptr || b.params == nullptr) return TRS_NO_MEMORY;
  for (int t = 0; t < threads; ++t) {
    cblas_dcopy(static_cast<blasint>(n), x, 1, b.params + t * n, 1);
  }
  const ColumnSteps steps{fcn, user_data, h, 1.0 + h, 1.0 - h, h + h, m, n, fjac};
  // One thread runs the columns in a plain loop: opening a region for a team
  // of one still costs a wake-up per call, and a calibration makes hundreds of
  // thousands of spot-sized calls (on the spot fits' own threads, too).
  if (threads == 1) {
    for (int64_t j = 0; j < n; ++j) steps.column(j, b.params, b.forward, b.backward);
    return TRS_OK;
  }
#pragma omp parallel num_threads(threads)
  {
    const int t = omp_get_thread_num();
#pragma omp for schedule(static)
    for (int64_t j = 0; j < n; ++j) {
      steps.column(j, b.params + t * n, b.forward + t * m, b.backward + t * m);
    }
  }
  return TRS_OK;
}

extern "C" {

int djacobix(TrResidualFunction fcn, const int* n, const int* m, double* fjac, const double* x,
             const double* eps, void* user_data) {
  return trs_djacobix(fcn, *n, *m, fjac, x, eps, user_data);
}
int djacobix_(TrResidualFunction fcn, const int* n, const int* m, double* fjac, const double* x,
              const double* eps, void* user_data) {
  return trs_djacobix(fcn, *n, *m, fjac, x, eps, user_data);
}
int DJACOBIX(TrResidualFunction fcn, const int* n, const int* m, double* fjac, const double* x,
             const double* eps, void* user_data) {
  return trs_djacobix(fcn, *n, *m, fjac, x, eps, user_data);
}

}  // extern "C"
