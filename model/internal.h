// Helpers shared inside the alignment model library and its tests; not for
// other callers. They are the small steps of the fits and of the channel
// iteration, kept apart so that each rule can be checked on its own.
#pragma once

#include <array>
#include <cstdio>
#include <functional>
#include <vector>

#include "model/model.h"

// ---------------------------------------------------------------------------
// Base model fitting.

constexpr int kNumLinearModelParameters = 8;
constexpr int kNumRadialModelParameters = 6;
constexpr int kMaxBaseModelParameters = kNumLinearModelParameters;

// Carries `points` through the base model: `change` with a non-zero
// linearFlag, `fradial` without. Appends to `result`.
void applyBaseModel(const std::vector<CorvanePoint2D>& points, const double* parameters,
                    int linearFlag, std::vector<CorvanePoint2D>& result);

// True when the direction filter runs in a pass with these parameters: it
// stays out while element 2 or 3 holds its exact start value.
bool directionFilterApplies(const double* parameters, int linearFlag);

// True when the directions from `mapped` to `reference` and from `mapped` to
// `image` agree within the tolerance, the wrap at the full circle included.
bool directionsAgree(CorvanePoint2D image, CorvanePoint2D reference, CorvanePoint2D mapped);

// Keeps, in order, the entries of `referencePoints` and `mappedPoints` whose
// directions agree; `imagePoints` is read only. All three are in step.
void filterPairsByDirection(const std::vector<CorvanePoint2D>& imagePoints,
                            std::vector<CorvanePoint2D>& referencePoints,
                            std::vector<CorvanePoint2D>& mappedPoints);

// Fills the bounds of the base model's free parameters (room for 8 each) and
// returns their number: 8 for the linear model, 6 for the radial one.
int fillParameterBounds(int linearFlag, int numRows, int numCols, double* lower, double* upper);

// Writes into `inverse` (20 doubles) the parameters of the exact inverse of
// the fitted base model in `parameters`, to be evaluated by the same model.
void invertBaseModel(const double* parameters, int linearFlag, double* inverse);

// ---------------------------------------------------------------------------
// High-order model fitting.

// A measured residual that large is taken for a mismatch, not a distortion.
constexpr double kMaxHighOrderResidual = 0.8;

// The residual itself when its size is below the cut, else 0.0 (NaN too).
double cutHighOrderResidual(double residual);

// ---------------------------------------------------------------------------
// Channel iteration.

using ModelParameters = std::array<double, kNumModelParameters>;

// One entry per pass, in pass order.
struct PassHistory {
  std::vector<ModelParameters> parameters;
  std::vector<double> meanErrors;
  std::vector<double> errorDeviations;
};

// One fit pass: updates the parameters and, when it measures, the errors.
using FitPass = std::function<void(double* parameters, double* meanError, double* errorDeviation)>;
// Rebuilds the working section through the given parameters (not changed).
using WarpStep = std::function<void(double* parameters)>;

// Runs passes until one leaves all parameters exactly as they were, or ends
// with a mean error below errThreshold, or numIteration passes are done; warps
// between passes, never after the last. Prints "Iteration %d" with the count
// of passes left at the head of each pass, and records every pass.
void iterateFitPasses(int numIteration, double errThreshold, const FitPass& fit,
                      const WarpStep& warp, double* parameters, double* meanError,
                      double* errorDeviation, PassHistory& history);

// The index of the smallest mean error, the earliest among equals. The scan
// starts at the first entry and replaces only on a strictly smaller value.
// `meanErrors` must not be empty.
int chooseBestPass(const std::vector<double>& meanErrors);

// ---------------------------------------------------------------------------
// Parameter file.

// Scans rows of 27 values from `file` until the scan of the last number
// reaches the end of the file, appending each row to `rows`. Returns false on
// a short row, a non-numeric token or white space after the last value; the
// file stays open either way.
bool scanAlignmentRows(FILE* file, std::vector<std::vector<double>>& rows);
