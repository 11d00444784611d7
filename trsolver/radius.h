// Pieces shared by the two drivers: the first radius, the test of stop
// reason 4, the reduction ratio and the radius update.
#pragma once

#include <cstdint>

// A step is accepted when its reduction ratio reaches this.
constexpr double TRS_ACCEPTANCE_THRESHOLD = 0.0001;
// Stored at the first pass and never read; the update uses literals.
constexpr double TRS_SPARE_SHRINK_BOUND = 0.99;
constexpr double TRS_SPARE_SHRINK_FACTOR = 0.25;
constexpr double TRS_SPARE_GROW_FACTOR = 2.0;

// The terms of the reduction ratio of a trial step.
struct TrRatio {
  double actual;       // A: 1 - (N / fnorm)^2, or -1 when the residual grew tenfold
  double predicted;    // P
  double directional;  // D
  double ratio;        // R = A / P
};

// How the shrink branch caps the step norm: the free family divides by 0.1,
// the bounded one multiplies by 10.0 (not always the same double).
enum class TrShrinkCap { DivideByTenth, MultiplyByTen };

// First radius from the column norms of J (0 or below counts as 1) and x:
// t = |c .* x| * rs; rs if eps0 >= t, else t. `work` receives c .* x.
double trs_initial_radius(int64_t n, int64_t m, const double* fjac, const double* x, double rs,
                          double eps0, double* work);

// True when every column norm of J is strictly below `threshold`.
bool trs_all_columns_small(int64_t n, int64_t m, const double* fjac, double threshold);

TrRatio trs_reduction_ratio(double fnorm, double trial_norm, double jsnorm, double lambda,
                            double snorm);

// Radius after a trial step, whether or not the step is accepted.
double trs_updated_radius(const TrRatio& r, double delta, double snorm, double lambda, double fnorm,
                          double trial_norm, TrShrinkCap cap);
