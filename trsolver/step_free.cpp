// Step computation of the free family: the shifted Gauss-Newton step that
// fits into the trust region, found by a Newton iteration on the shift.
#include <cblas.h>

#include <cassert>
#include <cmath>

#include "trsolver/internal.h"

namespace {

// A step within this fraction of the radius from the boundary is taken as
// lying on it.
constexpr double BOUNDARY_TOLERANCE = 0.01;
// Same, for the step extended along a direction of low curvature.
constexpr double EXTENSION_TOLERANCE = 0.02;
// First trial shift when the normal matrix is not positive definite, and the
// factor by which it grows.
constexpr double FIRST_TRIAL_SHIFT = 1e-16;
constexpr double TRIAL_SHIFT_GROWTH = 10.0;

// hess := J^T J, grad := -J^T F.
void buildNormalEquations(int64_t n, int64_t m, const double* fjac, const double* fvec,
                          double* hess, double* grad) {
  const blasint nn = static_cast<blasint>(n), mm = static_cast<blasint>(m);
  trs_blas_locked([&] {
    return cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, nn, nn, mm, 1.0, fjac, mm, fjac, mm,
                       0.0, hess, nn);
  });
  trs_blas_locked([&] {
    return cblas_dgemv(CblasColMajor, CblasTrans, mm, nn, -1.0, fjac, mm, fvec, 1, 0.0, grad, 1);
  });
}

void copyMatrix(int64_t n, const double* from, double* to) {
  cblas_dcopy(static_cast<blasint>(n * n), from, 1, to, 1);
}

// s := solution of (L L^T) s = grad, grad kept.
int64_t solveThroughFactor(int64_t n, const double* chol, const double* grad, double* s) {
  cblas_dcopy(static_cast<blasint>(n), grad, 1, s, 1);
  return trs_cholesky_solve(n, chol, s);
}

// Extends s along a direction u of low curvature, estimated from the factor
// in `chol` (which is overwritten), to the root of |s + tau u| = delta with
// the smaller tau. Returns a negative solve status or 0; *extended tells
// whether s was replaced.
int64_t extendAlongLowCurvature(int64_t n, double* chol, double delta, double* s, double* w,
                                double* d, bool* extended) {
  *extended = false;
  trs_sign_vector(n, chol, w);
  for (int64_t i = 0; i < n; ++i) {
    // The largest signed value of the row, not the largest magnitude: intended.
    double largest = 0.0;
    for (int64_t j = 0; j <= i; ++j) largest = std::fmax(largest, chol[i + j * n]);
    d[i] = 1.0 / largest;
  }
  for (int64_t i = 0; i < n; ++i) {
    w[i] = w[i] * d[i];
    for (int64_t j = 0; j <= i; ++j) chol[i + j * n] = chol[i + j * n] * d[j] * d[i];
  }
  const int64_t info = trs_triangular_solve(n, chol, true, w);
  if (info < 0) return info;
  for (int64_t i = 0; i < n; ++i) w[i] = w[i] / d[i];
  const double unorm = trs_norm(n, w);
  for (int64_t i = 0; i < n; ++i) w[i] = w[i] / unorm;

  const double a = trs_dot(n, w, w);
  const double b = trs_dot(n, s, w);
  const double c = trs_dot(n, s, s) - delta * delta;
  const double g = std::sqrt(4.0 * (b * b - a * c));
  const double root1 = (g - 2.0 * b) / (2.0 * a);
  const double root2 = (-2.0 * b - g) / (2.0 * a);
  const double tau = std::fmin(root1, root2);

  double* t = d;  // the scale is spent; its room holds the trial step
  for (int64_t i = 0; i < n; ++i) t[i] = s[i] + tau * w[i];
  if (EXTENSION_TOLERANCE * delta > std::fabs(trs_norm(n, t) - delta)) {
    cblas_dcopy(static_cast<blasint>(n), t, 1, s, 1);
    *extended = true;
  }
  return 0;
}

}  // namespace

void trs_dmintr_ls_pd(int64_t n, int64_t m, const double* fjac, const double* fvec, double* s,
                      int64_t* limit, double /*precision: not read*/, double delta, double* lambda,
                      double* hess, double* chol, double* grad, double* work1, double* work2,
                      int64_t* status) {
  assert(n > 0 && m >= n);
  buildNormalEquations(n, m, fjac, fvec, hess, grad);
  *lambda = 0.0;
  int64_t pass = 0;
  const int64_t passLimit = *limit;

  for (;;) {
    // A limit of L allows L + 1 passes.
    if (pass > passLimit) {
      *status = 1;
      *limit = pass;
      return;
    }
    copyMatrix(n, hess, chol);
    double snorm;
    if (trs_factorise(n, chol) == 0) {
      const int64_t info = solveThroughFactor(n, chol, grad, s);
      if (info < 0) {
        *status = info;
        *limit = pass;
        return;
      }
      snorm = trs_norm(n, s);
      if (BOUNDARY_TOLERANCE * delta > std::fabs(snorm - delta)) {
        cblas_dscal(static_cast<blasint>(n), delta / snorm, s, 1);
        *status = 3;
        *limit = pass;
        return;
      }
      if (delta > snorm && *lambda == 0.0) {
        *status = 2;
        *limit = pass;
        return;
      }
      if (!(snorm > delta)) {
        // A short step with a non-zero shift repeats unchanged until the limit
        // ends it with status 1: intended, it costs only time.
        ++pass;
        continue;
      }
    } else {
      // Not positive definite: the smallest power-of-ten shift from 1e-16 up
      // that makes it so. Unbounded by design; only a NaN matrix never
      // factorises.
      double trial = FIRST_TRIAL_SHIFT;
      for (;;) {
        if (*lambda != 0.0) trs_shift_diagonal(n, hess, -*lambda);
        trs_shift_diagonal(n, hess, trial);
        copyMatrix(n, hess, chol);
        if (trs_factorise(n, chol) == 0) {
          const int64_t info = solveThroughFactor(n, chol, grad, s);
          if (info < 0) {
            *status = info;
            *limit = pass;
            return;
          }
          *lambda = trial;
          break;
        }
        *lambda = trial;
        trial *= TRIAL_SHIFT_GROWTH;
      }
      snorm = trs_norm(n, s);
      if (snorm == delta) {
        ++pass;
        continue;
      }
      if (!(snorm > delta)) {
        bool extended = false;
        const int64_t info = extendAlongLowCurvature(n, chol, delta, s, work1, work2, &extended);
        if (info < 0) {
          *status = info;
          *limit = pass;
          return;
        }
        if (extended) {
          *status = 4;
          *limit = pass;
          return;
        }
        // hess keeps the shift, so the next pass factorises.
        ++pass;
        continue;
      }
    }

    // Newton correction of the shift towards |s| = delta.
    if (*lambda != 0.0) trs_shift_diagonal(n, hess, -*lambda);
    cblas_dcopy(static_cast<blasint>(n), s, 1, work1, 1);
    const int64_t info = trs_triangular_solve(n, chol, false, work1);
    if (info < 0) {
      *status = info;
      *limit = pass;
      return;
    }
    const double qnorm = trs_norm(n, work1);
    if (qnorm == 0.0) {
      *status = 3;
      *limit = pass;
      return;
    }
    *lambda = *lambda + (snorm * snorm / (qnorm * qnorm)) * ((snorm - delta) / delta);
    trs_shift_diagonal(n, hess, *lambda);
    ++pass;
  }
}
