// Thin layer over BLAS and LAPACK for the solver: column-major, lower
// triangle, sizes narrowed to the library's 32-bit integers; and the aligned
// working memory of the handles.
#include <cblas.h>
#include <lapacke.h>

#include <cassert>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "trsolver/internal.h"

double* trs_alloc_doubles(std::size_t count, std::size_t alignment) {
  assert(alignment % sizeof(void*) == 0);
  std::size_t bytes = (count == 0 ? 1 : count) * sizeof(double);
  void* block = nullptr;
  if (posix_memalign(&block, alignment, bytes) != 0) return nullptr;
  std::memset(block, 0, bytes);
  return static_cast<double*>(block);
}

TrsSpinLock& trs_blas_lock() {
  static TrsSpinLock lock;
  return lock;
}

void trs_blas_exclusive(const std::function<void()>& call) {
  trs_blas_locked(call);
}

void trs_free(void* block) {
  std::free(block);
}

int64_t trs_factorise(int64_t n, double* a) {
  const lapack_int size = static_cast<lapack_int>(n);
  lapack_int info =
      trs_blas_locked([&] { return LAPACKE_dpotrf_work(LAPACK_COL_MAJOR, 'L', size, a, size); });
  if (info != 0) return info;
  // The optimised factorisation may run through a NaN pivot without flagging
  // it; report it as the reference routine does, so that a NaN matrix counts
  // as not positive definite.
  for (int64_t i = 0; i < n; ++i) {
    if (std::isnan(a[i + i * n])) return i + 1;
  }
  return 0;
}

int64_t trs_cholesky_solve(int64_t n, const double* chol, double* b) {
  const lapack_int size = static_cast<lapack_int>(n);
  return trs_blas_locked(
      [&] { return LAPACKE_dpotrs_work(LAPACK_COL_MAJOR, 'L', size, 1, chol, size, b, size); });
}

int64_t trs_triangular_solve(int64_t n, const double* l, bool transposed, double* b) {
  const lapack_int size = static_cast<lapack_int>(n);
  return trs_blas_locked([&] {
    return LAPACKE_dtrtrs_work(LAPACK_COL_MAJOR, 'L', transposed ? 'T' : 'N', 'N', size, 1, l, size,
                               b, size);
  });
}

void trs_shift_diagonal(int64_t n, double* a, double shift) {
  for (int64_t i = 0; i < n; ++i) a[i + i * n] += shift;
}

double trs_norm(int64_t n, const double* v) {
  return cblas_dnrm2(static_cast<blasint>(n), v, 1);
}

double trs_dot(int64_t n, const double* a, const double* b) {
  return cblas_ddot(static_cast<blasint>(n), a, 1, b, 1);
}

void trs_sign_vector(int64_t n, const double* l, double* w) {
  for (int64_t i = 0; i < n; ++i) {
    double sum = 0.0;
    for (int64_t j = 0; j < i; ++j) sum += l[i + j * n] * w[j];
    const double pivot = l[i + i * n];
    // Written as the comparison of the two candidate solutions of row i; for
    // a positive pivot it always picks +1.
    if (pivot != 0.0 && !((1.0 - sum) / pivot > (-1.0 - sum) / pivot)) {
      w[i] = -1.0;
    } else {
      w[i] = 1.0;
    }
  }
}
