// One pass of the base model fit: pair the spots, drop the pairs that
// contradict the present model, fit the radial or the linear model inside
// fixed bounds with the trust-region solver, and measure the result through
// the model's exact inverse. Passes add up because the fit always runs from
// reference coordinates to the channel's unwarped coordinates.
#include <cassert>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "app/settings.h"
#include "model/internal.h"
#include "model/model.h"
#include "spots/spots.h"
#include "trsolver/trsolver.h"

namespace {

// Directions from the mapped point agree within this angle, in radians, or
// within it across the wrap at the full circle (2 pi - 0.25).
constexpr double kDirectionTolerance = 0.25;
constexpr double kDirectionToleranceAcrossWrap = 6.033185307179586;

// Start values of elements 2 and 3; the filter stays out while either holds.
constexpr double kStartScale = 1.0;
constexpr double kStartRadialRotation = 0.0;

// Bounds of the free parameters. The scale bounds are not symmetric about 1.0
// and are meant so; the centre may move over the middle fifth of each axis.
constexpr double kCentreLowerFraction = 0.4;
constexpr double kCentreUpperFraction = 0.6;
constexpr double kScaleLower = 0.85;
constexpr double kScaleUpper = 1.2;
constexpr double kWeightBound = 0.2;        // linear cross weights
constexpr double kRotationBound = 0.2;      // radians
constexpr double kTranslationBound = 50.0;  // pixels

// Solver settings shared by every fit of the program.
constexpr int kMaxIterations = 1000;
constexpr int kMaxTrialIterations = 100;
constexpr double kInitialStepBound = 100.0;
constexpr double kPrecision = 0.0001;
constexpr int kNumPrecisions = 6;

int reportSolverFailure(const char* line) {
  consolePrint(stdout, std::string(line) + "\nCalibration may be inaccurate\n");
  TRS_FREE_BUFFERS();
  return 1;
}

// Measures the fitted model in the reference frame: the channel positions go
// back through the inverse and are compared with the reference spots.
void measureFit(const std::vector<CorvanePoint2D>& referencePoints,
                const std::vector<CorvanePoint2D>& mappedPoints, const double* parameters,
                int linearFlag, double* meanError, double* errorDeviation) {
  double inverse[kNumModelParameters];
  invertBaseModel(parameters, linearFlag, inverse);
  std::vector<CorvanePoint2D> backPoints;
  applyBaseModel(mappedPoints, inverse, linearFlag, backPoints);
  calculateError(referencePoints, backPoints, meanError, errorDeviation);
}

}  // namespace

void applyBaseModel(const std::vector<CorvanePoint2D>& points, const double* parameters,
                    int linearFlag, std::vector<CorvanePoint2D>& result) {
  if (linearFlag != 0) {
    change(points, parameters, result);
  } else {
    fradial(points, parameters, result);
  }
}

bool directionFilterApplies(const double* parameters, int linearFlag) {
  // Exact comparisons with the start values keep the filter out of the first
  // pass, and out of any later pass that happens to hit them: intended.
  if (parameters[2] == kStartScale) return false;
  const double startOfThird = linearFlag != 0 ? kStartScale : kStartRadialRotation;
  return parameters[3] != startOfThird;
}

bool directionsAgree(CorvanePoint2D image, CorvanePoint2D reference, CorvanePoint2D mapped) {
  const double a = std::atan2(reference.y - mapped.y, reference.x - mapped.x);
  const double b = std::atan2(image.y - mapped.y, image.x - mapped.x);
  const double d = std::fabs(a - b);
  return d <= kDirectionTolerance || d >= kDirectionToleranceAcrossWrap;
}

void filterPairsByDirection(const std::vector<CorvanePoint2D>& imagePoints,
                            std::vector<CorvanePoint2D>& referencePoints,
                            std::vector<CorvanePoint2D>& mappedPoints) {
  assert(imagePoints.size() == referencePoints.size());
  assert(mappedPoints.size() == referencePoints.size());
  std::vector<CorvanePoint2D> keptReference, keptMapped;
  for (std::size_t i = 0; i < referencePoints.size(); ++i) {
    if (!directionsAgree(imagePoints[i], referencePoints[i], mappedPoints[i])) continue;
    keptReference.push_back(referencePoints[i]);
    keptMapped.push_back(mappedPoints[i]);
  }
  referencePoints.swap(keptReference);
  mappedPoints.swap(keptMapped);
}

int fillParameterBounds(int linearFlag, int numRows, int numCols, double* lower, double* upper) {
  const double rows = numRows, cols = numCols;
  lower[0] = kCentreLowerFraction * cols;
  upper[0] = kCentreUpperFraction * cols;
  lower[1] = kCentreLowerFraction * rows;
  upper[1] = kCentreUpperFraction * rows;
  lower[2] = kScaleLower;
  upper[2] = kScaleUpper;
  if (linearFlag != 0) {
    lower[3] = kScaleLower;
    upper[3] = kScaleUpper;
    for (int k = 4; k <= 5; ++k) {
      lower[k] = -kWeightBound;
      upper[k] = kWeightBound;
    }
    for (int k = 6; k <= 7; ++k) {
      lower[k] = -kTranslationBound;
      upper[k] = kTranslationBound;
    }
    return kNumLinearModelParameters;
  }
  lower[3] = -kRotationBound;
  upper[3] = kRotationBound;
  for (int k = 4; k <= 5; ++k) {
    lower[k] = -kTranslationBound;
    upper[k] = kTranslationBound;
  }
  return kNumRadialModelParameters;
}

void invertBaseModel(const double* p, int linearFlag, double* inverse) {
  for (int k = 0; k < kNumModelParameters; ++k) inverse[k] = 0.0;
  if (linearFlag != 0) {
    // The bounds keep the determinant away from zero.
    const double det = p[3] * p[2] - p[4] * p[5];
    inverse[0] = p[6] + p[0];
    inverse[1] = p[7] + p[1];
    inverse[2] = p[3] / det;
    inverse[3] = p[2] / det;
    inverse[4] = -p[4] / det;
    inverse[5] = -p[5] / det;
    inverse[6] = -p[6];
    inverse[7] = -p[7];
    return;
  }
  inverse[0] = p[0] + p[4];
  inverse[1] = p[1] + p[5];
  inverse[2] = 1.0 / p[2];
  inverse[3] = -p[3];
  inverse[4] = -p[4];
  inverse[5] = -p[5];
}

void calculateObjectiveFunctionParameterFinder(int* m, int* n, double* x, double* f, void* data) {
  const auto* d = static_cast<const ParameterFinderData*>(data);
  assert(*n <= kMaxBaseModelParameters);
  // The evaluators read a whole parameter vector; the solver's x holds only
  // the free ones. The rest are not read by the base models.
  double candidate[kNumModelParameters] = {};
  for (int k = 0; k < *n; ++k) candidate[k] = x[k];
  std::vector<CorvanePoint2D> carried;
  carried.reserve(d->sourcePoints.size());
  applyBaseModel(d->sourcePoints, candidate, d->linearFlag, carried);
  // One distance per spot, never negative: the solver squares it.
  for (int i = 0; i < *m; ++i) {
    const double dx = carried[i].x - d->targetPoints[i].x;
    const double dy = carried[i].y - d->targetPoints[i].y;
    f[i] = std::sqrt(dx * dx + dy * dy);
  }
}

int nonLinearLeastSquareOptimizationParameterFinder(double* x, double* fvec, double* fjac,
                                                    double* lw, double* up, double* eps, int m,
                                                    int n, void* data) {
  TrHandle handle = nullptr;
  const int iter1 = kMaxIterations;
  const int iter2 = kMaxTrialIterations;
  const double rs = kInitialStepBound;
  if (dtrnlspbc_init(&handle, &n, &m, x, lw, up, eps, &iter1, &iter2, &rs) != TRS_OK) {
    return reportSolverFailure("Error in dtrnlspbc_init");
  }
  int request = 0;
  for (;;) {
    // The handle is left alive on the failing ways out, as designed.
    if (dtrnlspbc_solve(&handle, fvec, fjac, &request) != TRS_OK) {
      return reportSolverFailure("Error in dtrnlspbc_solve");
    }
    // Done, whatever the reason: also a stop on the radius short of the
    // optimum, which one mismeasured spot can bring about. Intended.
    if (request >= -6 && request <= -1) break;
    if (request == 1) {
      calculateObjectiveFunctionParameterFinder(&m, &n, x, fvec, data);
    } else if (request == 2) {
      // eps[0] is the Jacobian's step; its status is not looked at.
      djacobix(calculateObjectiveFunctionParameterFinder, &n, &m, fjac, x, eps, data);
    }
  }
  int iterations = 0, stopReason = 0;
  double r1 = 0.0, r2 = 0.0;
  if (dtrnlspbc_get(&handle, &iterations, &stopReason, &r1, &r2) != TRS_OK) {
    return reportSolverFailure("Error in dtrnlspbc_get");
  }
  if (dtrnlspbc_delete(&handle) != TRS_OK) {
    return reportSolverFailure("Error in dtrnlspbc_delete");
  }
  TRS_FREE_BUFFERS();
  return 0;
}

void fittingProcess(double** image, double** reference, int numRows, int numCols, int linearFlag,
                    double* parameters, double* meanError, double* errorDeviation) {
  std::vector<CorvanePoint2D> imagePoints, referencePoints;
  findCorrespondencePoint(image, reference, numRows, numCols, imagePoints, referencePoints);
  if (imagePoints.empty()) return;

  // The spots of the warped image, back in the channel's own frame.
  std::vector<CorvanePoint2D> mappedPoints;
  applyBaseModel(imagePoints, parameters, linearFlag, mappedPoints);
  if (directionFilterApplies(parameters, linearFlag)) {
    filterPairsByDirection(imagePoints, referencePoints, mappedPoints);
  }
  const int count = static_cast<int>(referencePoints.size());
  if (count == 0) return;

  double lower[kMaxBaseModelParameters], upper[kMaxBaseModelParameters];
  const int n = fillParameterBounds(linearFlag, numRows, numCols, lower, upper);
  double eps[kNumPrecisions];
  for (double& e : eps) e = kPrecision;
  std::vector<double> fvec(count), fjac(static_cast<std::size_t>(count) * n);
  int solved;
  {
    ParameterFinderData data{linearFlag, referencePoints, mappedPoints};
    solved = nonLinearLeastSquareOptimizationParameterFinder(parameters, fvec.data(), fjac.data(),
                                                             lower, upper, eps, count, n, &data);
  }
  // After a solver failure the parameters stay as the solver left them.
  if (solved != 0) return;

  measureFit(referencePoints, mappedPoints, parameters, linearFlag, meanError, errorDeviation);
}
