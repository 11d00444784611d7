// Step computation of the family with bounds. The problem is scaled by the
// distance of x to the bounds, a trust-region step of the scaled problem is
// found with a bracketed shift, then turned into a feasible step and mixed
// with a feasible steepest-descent step.
#include <cblas.h>

#include <algorithm>
#include <cassert>
#include <cmath>

#include "trsolver/internal.h"

namespace {

// Distance measure of a parameter sitting exactly on a bound: its scale
// becomes 1e9, so it hardly moves in the scaled problem.
constexpr double ON_BOUND_DISTANCE = 1e-18;
// Divisor guards of the draw-back and of the mixing factor.
constexpr double TINY = 1e-18;
// Draw-back of a coordinate that reached a bound, as a fraction of its way.
constexpr double DRAW_BACK_MAX = 0.05;
constexpr double DRAW_BACK_MIN = 0.0005;
// Fixed pass limit of the scaled subproblem.
constexpr int64_t SUBPROBLEM_PASS_LIMIT = 10;
// Tolerances and factors of the bracketed shift iteration.
constexpr double BOUNDARY_TOLERANCE = 0.01;
constexpr double CURVATURE_TOLERANCE = 0.02;
constexpr double UPPER_SHIFT_MARGIN = 1.01;
constexpr double PICK_UPPER_WEIGHT = 0.01;

constexpr std::size_t kVectorsN = 8;
constexpr std::size_t kVectorsM = 4;

blasint B(int64_t v) {
  return static_cast<blasint>(v);
}

// The twelve per-step vectors, released on every way out.
struct StepVectors {
  double* n[kVectorsN] = {};
  double* m[kVectorsM] = {};
  bool allocate(int64_t nn, int64_t mm) {
    bool ok = true;
    for (double*& v : n) ok = (v = trs_alloc_doubles(nn, TRS_STEP_ALIGNMENT)) != nullptr && ok;
    for (double*& v : m) ok = (v = trs_alloc_doubles(mm, TRS_STEP_ALIGNMENT)) != nullptr && ok;
    return ok;
  }
  ~StepVectors() {
    for (double* v : n) trs_free(v);
    for (double* v : m) trs_free(v);
  }
};

// Distance measure t(i) of the scaling rule; cases in order, and a running t
// that keeps its value where no case applies (a non-finite g or bound).
void distanceMeasure(int64_t n, const double* x, const double* g, const double* lw,
                     const double* up, double* t) {
  double running = 1.0;
  for (int64_t i = 0; i < n; ++i) {
    const double l = lw[i], u = up[i], xi = x[i], gi = g[i];
    const bool hasLower = l > -TRS_NO_BOUND, hasUpper = u < TRS_NO_BOUND;
    if (gi < 0.0 && hasUpper) {
      running = xi == u ? -ON_BOUND_DISTANCE : xi - u;
    } else if (gi > 0.0 && hasLower) {
      running = xi == l ? ON_BOUND_DISTANCE : xi - l;
    } else if (gi == 0.0 && (hasLower || hasUpper)) {
      running = (xi == l || xi == u) ? ON_BOUND_DISTANCE : std::fmin(xi - l, u - xi);
    } else if (gi < 0.0 && u == TRS_NO_BOUND) {
      running = -1.0;
    } else if (gi > 0.0 && l == -TRS_NO_BOUND) {
      running = 1.0;
    } else if (gi == 0.0 && l == -TRS_NO_BOUND && u == TRS_NO_BOUND) {
      running = 1.0;
    }
    t[i] = running;
  }
}

// copy := J with column i divided by d(i), or by d(i) squared.
void scaleColumns(int64_t n, int64_t m, const double* fjac, const double* d, bool squared,
                  double* copy) {
  for (int64_t j = 0; j < n; ++j) {
    const double divisor = squared ? d[j] * d[j] : d[j];
    for (int64_t i = 0; i < m; ++i) copy[i + j * m] = fjac[i + j * m] / divisor;
  }
}

// y := J v (m) for column-major J.
void jacobianTimes(int64_t n, int64_t m, const double* fjac, const double* v, double* y) {
  trs_blas_locked([&] {
    return cblas_dgemv(CblasColMajor, CblasNoTrans, B(m), B(n), 1.0, fjac, B(m), v, 1, 0.0, y, 1);
  });
}

// y := alpha J^T v (n).
void jacobianTransposedTimes(int64_t n, int64_t m, double alpha, const double* fjac,
                             const double* v, double* y) {
  trs_blas_locked([&] {
    return cblas_dgemv(CblasColMajor, CblasTrans, B(m), B(n), alpha, fjac, B(m), v, 1, 0.0, y, 1);
  });
}

// (J^T J v) . a, the product formed as rows: (J v)^T J, then a dot.
double normalProductDot(int64_t n, int64_t m, const double* fjac, const double* v, const double* a,
                        double* column, double* row) {
  trs_blas_locked([&] {
    return cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, B(m), 1, B(n), 1.0, fjac, B(m), v,
                       B(n), 0.0, column, B(m));
  });
  trs_blas_locked([&] {
    return cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, 1, B(n), B(m), 1.0, column, B(m),
                       fjac, B(m), 0.0, row, 1);
  });
  return trs_dot(n, row, a);
}

double squaredNorm(int64_t k, const double* v) {
  return trs_dot(k, v, v);
}

// out := F + J v.
void linearModel(int64_t m, const double* fvec, const double* jv, double* out) {
  for (int64_t i = 0; i < m; ++i) out[i] = fvec[i] + jv[i];
}

}  // namespace

double pick(const double* lower, const double* upper) {
  // Leans to the upper end of the bracket: intended.
  return std::fmax(std::sqrt(*lower * *upper), *upper + PICK_UPPER_WEIGHT * (*lower - *upper));
}

void trs_dgrgbound(int64_t n, const double* hess, double* upper, double* lower, double radius,
                   double grad_norm, double* work) {
  const double frobenius = trs_norm(n * n, hess);
  for (int64_t i = 0; i < n; ++i) work[i] = cblas_dasum(B(n), hess + i, B(n));
  const double rowMax = work[cblas_idamax(B(n), work, 1)];
  const double normBound = std::fmin(frobenius, rowMax);

  double smallestDiagonal = hess[0];
  double gershgorinUpper = -HUGE_VAL, gershgorinLower = -HUGE_VAL;
  for (int64_t i = 0; i < n; ++i) {
    const double diag = hess[i + i * n];
    smallestDiagonal = std::fmin(smallestDiagonal, diag);
    double offDiagonal = 0.0;
    for (int64_t j = 0; j < n; ++j) {
      if (j != i) offDiagonal += std::fabs(hess[i + j * n]);
    }
    gershgorinUpper = std::fmax(gershgorinUpper, diag + offDiagonal);
    gershgorinLower = std::fmax(gershgorinLower, -diag + offDiagonal);
  }
  const double q = grad_norm / radius;
  *lower = std::fmax(std::fmax(0.0, -smallestDiagonal), q - std::fmin(gershgorinUpper, normBound));
  *upper = std::fmax(0.0, q + std::fmin(gershgorinLower, normBound));
}

namespace {

// State of one bracketed shift iteration.
struct Subproblem {
  int64_t n;
  const double* grad;
  double radius;
  double* hess;  // H with the current shift on its diagonal
  double* chol;  // L
  double* curv;  // W
  double* p;     // the step
  double* q;     // L q = s
  double* v;     // sign vector, then u
  double* d;     // scale, then the extended step
  double* hv;    // H u, then H s
  double lambda;
  double lo, hi;
};

// Outcome of the inner steps on a successful factor.
enum class Inner { Return, LongStep, FailedTrial, Again };

// Curvature estimate along u from the factor; may extend the step.
// Returns a negative solve status, 1 when the step was extended, or 0.
int64_t curvatureEstimate(Subproblem& sp) {
  const int64_t n = sp.n;
  trs_sign_vector(n, sp.chol, sp.v);
  cblas_dcopy(B(n * n), sp.chol, 1, sp.curv, 1);
  for (int64_t i = 0; i < n; ++i) {
    // The largest signed value of the row: intended.
    double largest = 0.0;
    for (int64_t j = 0; j <= i; ++j) largest = std::fmax(largest, sp.curv[i + j * n]);
    sp.d[i] = 1.0 / largest;
  }
  for (int64_t i = 0; i < n; ++i) {
    for (int64_t j = 0; j <= i; ++j) sp.curv[i + j * n] = sp.curv[i + j * n] * sp.d[i] * sp.d[j];
    sp.v[i] = sp.v[i] * sp.d[i];
  }
  const int64_t info = trs_triangular_solve(n, sp.curv, true, sp.v);
  if (info < 0) return info;
  for (int64_t i = 0; i < n; ++i) sp.v[i] = sp.v[i] / sp.d[i];
  const double vnorm = trs_norm(n, sp.v);
  for (int64_t i = 0; i < n; ++i) sp.v[i] = sp.v[i] / vnorm;
  const double* u = sp.v;

  trs_blas_locked([&] {
    return cblas_dgemv(CblasColMajor, CblasNoTrans, B(n), B(n), 1.0, sp.hess, B(n), u, 1, 0.0,
                       sp.hv, 1);
  });
  const double curvature = trs_dot(n, u, sp.hv);
  sp.lo = std::fmax(sp.lo, sp.lambda - curvature);

  const double b = trs_dot(n, sp.p, u);
  const double a = trs_dot(n, u, u);
  const double c = trs_dot(n, sp.p, sp.p) - sp.radius * sp.radius;
  // b squared, not (2b) squared, under the root, while the roots use 2b:
  // intended in this variant.
  const double g = std::sqrt(b * b - 4.0 * a * c);
  const double tau = std::fmin((g - 2.0 * b) / (2.0 * a), (-2.0 * b - g) / (2.0 * a));

  double* t = sp.d;  // the scale is spent
  for (int64_t i = 0; i < n; ++i) t[i] = sp.p[i] + tau * u[i];
  trs_blas_locked([&] {
    return cblas_dgemv(CblasColMajor, CblasNoTrans, B(n), B(n), 1.0, sp.hess, B(n), sp.p, 1, 0.0,
                       sp.hv, 1);
  });
  const double energy = trs_dot(n, sp.p, sp.hv);
  if (CURVATURE_TOLERANCE * energy > curvature * tau * tau) {
    cblas_dcopy(B(n), t, 1, sp.p, 1);
    return 1;
  }
  return 0;
}

void moveDiagonal(int64_t n, double* a, double from, double to) {
  trs_shift_diagonal(n, a, -from + to);
}

}  // namespace

void trs_dmintr_ls_npd(int64_t n, int64_t m, const double* jac, const double* fvec, double* p,
                       int64_t* limit, const double* /*eps: not read*/, double radius,
                       double* lambda, double* hess, double* chol, double* curvature,
                       int64_t* status, double* const work[5]) {
  assert(n > 0 && m >= n);
  double* grad = work[0];
  trs_blas_locked([&] {
    return cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, B(n), B(n), B(m), 1.0, jac, B(m),
                       jac, B(m), 0.0, hess, B(n));
  });
  jacobianTransposedTimes(n, m, 1.0, jac, fvec, grad);
  const double gradNorm = trs_norm(n, grad);
  cblas_dscal(B(n), -1.0, grad, 1);

  Subproblem sp{n,       grad,    radius,  hess,    chol, curvature, p,
                work[1], work[2], work[3], work[4], 0.0,  0.0,       0.0};
  trs_dgrgbound(n, hess, &sp.hi, &sp.lo, radius, gradNorm, work[1]);
  sp.hi = std::fmax(sp.hi, UPPER_SHIFT_MARGIN * sp.lo);
  sp.lambda = std::fmin(std::fmax(gradNorm / radius, sp.lo), sp.hi);
  trs_shift_diagonal(n, hess, sp.lambda);

  auto leave = [&](int64_t st, int64_t passes) {
    *status = st;
    *limit = passes;
    *lambda = sp.lambda;
  };
  const int64_t passLimit = *limit;
  if (passLimit < 0) {
    leave(1, 0);
    return;
  }
  int64_t pass = 0;

  while (true) {
    // Start of a round.
    cblas_dcopy(B(n * n), hess, 1, chol, 1);
    const int64_t pivot = trs_factorise(n, chol);
    if (pivot == 0) {
      double next = sp.lambda;
      Inner outcome = Inner::Again;
      while (outcome == Inner::Again) {
        cblas_dcopy(B(n), grad, 1, p, 1);
        int64_t info = trs_cholesky_solve(n, chol, p);
        if (info < 0) return leave(info, pass);
        const double snorm = trs_norm(n, p);
        if (BOUNDARY_TOLERANCE * radius > std::fabs(snorm - radius)) {
          cblas_dscal(B(n), radius / snorm, p, 1);
          return leave(3, pass);
        }
        if (radius > snorm) {
          if (sp.lambda == 0.0) return leave(2, pass);
          sp.hi = std::fmin(sp.hi, sp.lambda);
        } else {
          sp.lo = std::fmax(sp.lo, sp.lambda);
        }
        cblas_dcopy(B(n), p, 1, sp.q, 1);
        info = trs_triangular_solve(n, chol, false, sp.q);
        if (info < 0) return leave(info, pass);
        const double qnorm = trs_norm(n, sp.q);
        next = sp.lambda + (snorm * snorm / (qnorm * qnorm)) * ((snorm - radius) / radius);
        next = std::fmin(std::fmax(next, sp.lo), sp.hi);

        if (radius > snorm) {
          info = curvatureEstimate(sp);
          if (info < 0) return leave(info, pass);
          if (info == 1) return leave(4, pass);
        }
        if (snorm > radius) {
          outcome = Inner::LongStep;
          break;
        }
        // Try the next shift on a copy; keep the factor for the next inner
        // steps when it succeeds.
        cblas_dcopy(B(n * n), hess, 1, chol, 1);
        moveDiagonal(n, chol, sp.lambda, next);
        if (trs_factorise(n, chol) != 0) {
          outcome = Inner::FailedTrial;
          break;
        }
        moveDiagonal(n, hess, sp.lambda, next);
        ++pass;
        sp.lambda = next;
        if (pass > passLimit) return leave(1, pass);
      }
      if (outcome == Inner::LongStep) {
        ++pass;
        moveDiagonal(n, hess, sp.lambda, next);
        sp.lambda = next;
        if (pass > passLimit) break;
        continue;
      }
      // Failed trial: the next shift is too small to keep H positive.
      trs_shift_diagonal(n, hess, -sp.lambda);
      sp.lo = std::fmax(sp.lo, next);
      sp.lambda = pick(&sp.lo, &sp.hi);
      trs_shift_diagonal(n, hess, sp.lambda);
      ++pass;
      if (pass > passLimit) break;
      continue;
    }

    // Factorisation failed at pivot k: raise the lower shift by the amount
    // that would make that pivot zero along the null vector v.
    const int64_t k = pivot;  // counted from 1
    const int64_t kk = k - 1;
    double sum = 0.0;
    for (int64_t j = 0; j < kk; ++j) sum += chol[kk + j * n] * chol[kk + j * n];
    const double delta2 = sum - hess[kk + kk * n];
    double* v = sp.v;
    v[kk] = 1.0;
    for (int64_t i = kk - 1; i >= 0; --i) {
      double acc = 0.0;
      for (int64_t j = i + 1; j <= kk; ++j) acc += chol[j + i * n] * v[j];
      v[i] = acc / -chol[i + i * n];
    }
    trs_shift_diagonal(n, hess, -sp.lambda);
    sp.lo = std::fmax(sp.lo, sp.lambda + delta2 / squaredNorm(k, v));
    sp.lambda = pick(&sp.lo, &sp.hi);
    trs_shift_diagonal(n, hess, sp.lambda);
    ++pass;
    if (pass > passLimit) break;
  }
  leave(1, pass);
}

void trs_distance_scale(int64_t n, int64_t m, const double* x, const double* fvec,
                        const double* fjac, const double* lw, const double* up, double* g,
                        double* d) {
  // Signs from the first n residuals only: intended, later steps use all.
  trs_blas_locked([&] {
    return cblas_dgemv(CblasColMajor, CblasTrans, B(n), B(n), 1.0, fjac, B(m), fvec, 1, 0.0, g, 1);
  });
  distanceMeasure(n, x, g, lw, up, d);
  for (int64_t i = 0; i < n; ++i) d[i] = 1.0 / std::sqrt(std::fabs(d[i]));
}

void trs_project_onto_box(int64_t n, const double* x, const double* p, const double* lw,
                          const double* up, double* w, double* a) {
  // The three tests run in order, so the last one that matches decides.
  for (int64_t i = 0; i < n; ++i) {
    const double e = x[i] + p[i];
    if (lw[i] >= e) {
      w[i] = lw[i] - x[i];
      a[i] = w[i];
    }
    if (lw[i] < e && e < up[i]) {
      w[i] = p[i];
      a[i] = 0.0;
    }
    if (e >= up[i]) {
      w[i] = up[i] - x[i];
      a[i] = w[i];
    }
  }
}

double trs_draw_back_factor(int64_t n, int64_t m, const double* fjac, const double* fvec,
                            const double* w, const double* a, double* grad, double* column,
                            double* row) {
  jacobianTransposedTimes(n, m, 1.0, fjac, fvec, grad);
  const double t1 = trs_dot(n, grad, a);
  const double t2 = normalProductDot(n, m, fjac, w, a, column, row);
  const double t3 = normalProductDot(n, m, fjac, a, a, column, row);
  const double beta = std::fabs(t3) <= TINY ? 0.0 : (t1 + t2) / t3;
  return std::fmax(std::fmin(beta, DRAW_BACK_MAX), DRAW_BACK_MIN);
}

void trs_steepest_descent_inside(int64_t n, const double* x, const double* c, const double* lw,
                                 const double* up, double interior_factor, double* r) {
  cblas_dcopy(B(n), c, 1, r, 1);
  bool leaves = false;
  for (int64_t i = 0; i < n; ++i) {
    const double e = x[i] + c[i];
    if (e > up[i] || e < lw[i]) leaves = true;
  }
  if (!leaves) return;
  double tau = TRS_NO_BOUND;
  for (int64_t i = 0; i < n; ++i) {
    double ti = TRS_NO_BOUND;
    if (c[i] != 0.0) {
      const double toLower = lw[i] == x[i] ? -TINY : lw[i] - x[i];
      // The sign of the bound, not the direction of c, picks the sign here: a
      // coordinate on an upper bound below zero can make Tau negative and
      // turn r around. Intended; only a mixing factor in [0, 1] keeps the
      // step feasible.
      const double toUpper = up[i] == x[i] ? (up[i] < 0.0 ? -TINY : TINY) : up[i] - x[i];
      ti = std::fmax(toLower / c[i], toUpper / c[i]);
    }
    tau = std::fmin(tau, ti);
  }
  if (tau <= 1.0) cblas_dscal(B(n), interior_factor * tau, r, 1);
}

double trs_mixing_factor(int64_t m, const double* fvec, const double* jq, const double* jr,
                         double threshold, double* v, double* e) {
  const double f = 0.5 * trs_dot(m, fvec, fvec);
  linearModel(m, fvec, jq, e);
  const double mq = 0.5 * squaredNorm(m, e);
  linearModel(m, fvec, jr, e);
  const double mr = 0.5 * squaredNorm(m, e);
  const double rho = (f == 0.0 && mr == 0.0) ? threshold - 1.0 : (f - mq) / (f - mr);
  if (rho >= threshold) return 0.0;

  // The share of r at which the model reaches the threshold's fraction of
  // the steepest-descent reduction: the smaller root of a quadratic.
  for (int64_t i = 0; i < m; ++i) v[i] = jr[i] - jq[i];
  const double cq = squaredNorm(m, jq), cr = squaredNorm(m, jr);
  for (int64_t i = 0; i < m; ++i) e[i] = jq[i] - threshold * jr[i];
  const double cm = trs_dot(m, fvec, e);
  for (int64_t i = 0; i < m; ++i) e[i] = -(fvec[i] + jq[i]);
  const double cb = trs_dot(m, e, v), ca = squaredNorm(m, v);
  const double root = std::sqrt(cb * cb - (0.5 * (cq - threshold * cr) + cm) * 2.0 * ca);
  return (cb - root) / (ca == 0.0 ? TINY : ca);
}

void trs_dmintr_ls_lc(int64_t n, int64_t m, const double* x, const double* fvec, double* s,
                      const double* fjac, double* jac_copy, const double* lw, const double* up,
                      double delta, const double* mix_threshold, const double* interior_factor,
                      double* lambda, double* hess, double* chol, double* curvature,
                      const double* eps, int64_t* status, double* const work[5]) {
  assert(n > 0 && m >= n);
  StepVectors vec;
  if (!vec.allocate(n, m)) {
    *status = -1;
    return;
  }
  double* g = vec.n[0];  // sign vector, then the full gradient
  double* d = vec.n[1];
  double* p = vec.n[2];
  double* h = vec.n[3];  // scaled gradient, then a row of J^T J
  double* c = vec.n[4];
  double* r = vec.n[5];
  double* w = vec.n[6];
  double* a = vec.n[7];
  double* jv = vec.m[0];
  double* jq = vec.m[1];
  double* jr = vec.m[2];
  double* tmp = vec.m[3];

  trs_distance_scale(n, m, x, fvec, fjac, lw, up, g, d);
  scaleColumns(n, m, fjac, d, false, jac_copy);
  const double radius = delta;
  int64_t limit = SUBPROBLEM_PASS_LIMIT;
  int64_t subStatus = 0;
  trs_dmintr_ls_npd(n, m, jac_copy, fvec, p, &limit, eps, radius, lambda, hess, chol, curvature,
                    &subStatus, work);
  if (subStatus < 0) {
    *status = subStatus;
    return;
  }
  for (int64_t i = 0; i < n; ++i) p[i] = p[i] / d[i];

  // Length of the scaled steepest-descent step, then the step itself.
  scaleColumns(n, m, fjac, d, false, jac_copy);
  jacobianTransposedTimes(n, m, 1.0, jac_copy, fvec, h);
  jacobianTimes(n, m, jac_copy, h, jv);
  const double hh = trs_dot(n, h, h), zz = squaredNorm(m, jv);
  double alpha = 0.0;
  if (!(hh == 0.0 && zz == 0.0)) alpha = std::fmin(hh / zz, radius / std::sqrt(hh));
  scaleColumns(n, m, fjac, d, true, jac_copy);
  jacobianTransposedTimes(n, m, -alpha, jac_copy, fvec, c);

  trs_project_onto_box(n, x, p, lw, up, w, a);
  const double beta = trs_draw_back_factor(n, m, fjac, fvec, w, a, g, jv, h);
  // Every coordinate that reached a bound stays short of it.
  double* q = p;
  for (int64_t i = 0; i < n; ++i) q[i] = w[i] - beta * a[i];
  trs_steepest_descent_inside(n, x, c, lw, up, *interior_factor, r);

  jacobianTimes(n, m, fjac, q, jq);
  jacobianTimes(n, m, fjac, r, jr);
  const double mu = trs_mixing_factor(m, fvec, jq, jr, *mix_threshold, jv, tmp);
  for (int64_t i = 0; i < n; ++i) s[i] = mu * r[i] + (1.0 - mu) * q[i];
  *status = subStatus;
}
