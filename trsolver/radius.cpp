// The first trust-region radius, the test on the Jacobian's columns, the
// reduction ratio and the radius update, shared by both drivers.
#include "trsolver/radius.h"

#include <cblas.h>

#include <cmath>

#include "trsolver/internal.h"

namespace {

constexpr double SHRINK_THRESHOLD = 0.25;
constexpr double SHRINK_DEFAULT = 0.5;
constexpr double SHRINK_FLOOR = 0.1;
constexpr double GROWTH = 2.0;
// A trial residual ten times the current one counts as a failed step.
constexpr double BLOW_UP_FRACTION = 0.1;

double columnNorm(int64_t m, const double* fjac, int64_t j) {
  return trs_norm(m, fjac + j * m);
}

}  // namespace

double trs_initial_radius(int64_t n, int64_t m, const double* fjac, const double* x, double rs,
                          double eps0, double* work) {
  for (int64_t j = 0; j < n; ++j) {
    double c = columnNorm(m, fjac, j);
    if (c <= 0.0) c = 1.0;
    work[j] = c * x[j];
  }
  const double candidate = trs_norm(n, work) * rs;
  return eps0 >= candidate ? rs : candidate;
}

bool trs_all_columns_small(int64_t n, int64_t m, const double* fjac, double threshold) {
  int64_t small = 0;
  for (int64_t j = 0; j < n; ++j) {
    if (columnNorm(m, fjac, j) < threshold) ++small;
  }
  return small == n;
}

TrRatio trs_reduction_ratio(double fnorm, double trial_norm, double jsnorm, double lambda,
                            double snorm) {
  TrRatio r;
  r.actual = -1.0;
  // A NaN or infinite trial residual fails this test and keeps A at -1.
  if (fnorm > BLOW_UP_FRACTION * trial_norm) {
    const double q = trial_norm / fnorm;
    r.actual = 1.0 - q * q;
  }
  const double t1 = jsnorm / fnorm;
  const double t2 = std::sqrt(lambda) * snorm / fnorm;
  r.predicted = t1 * t1 + 2.0 * (t2 * t2);
  r.directional = -(t1 * t1 + t2 * t2);
  r.ratio = r.actual / r.predicted;
  return r;
}

double trs_updated_radius(const TrRatio& r, double delta, double snorm, double lambda, double fnorm,
                          double trial_norm, TrShrinkCap cap) {
  if (r.ratio <= SHRINK_THRESHOLD) {
    double factor = SHRINK_DEFAULT;
    if (r.actual < 0.0)
      factor = SHRINK_DEFAULT * r.directional / (SHRINK_DEFAULT * r.actual + r.directional);
    if (BLOW_UP_FRACTION * trial_norm >= fnorm || factor < SHRINK_FLOOR) factor = SHRINK_FLOOR;
    const double capped = cap == TrShrinkCap::DivideByTenth ? snorm / 0.1 : 10.0 * snorm;
    return factor * std::fmin(delta, capped);
  }
  // The radius only grows after an unshifted step; a shifted one keeps it,
  // however good the ratio: intended, there is no second threshold.
  if (lambda == 0.0) return GROWTH * snorm;
  return delta;
}
