// Alignment model: the parameter record and its file, the model evaluators,
// the fits, and the calibration driver.
#pragma once

#include <cmath>
#include <vector>

// A position in a section, in pixels with fractions: X is the column, Y the
// row, counted from the first pixel of the first row.
struct CorvanePoint2D {
  double x;
  double y;
};

// The model parameter vector: elements 0 to 7 depend on the model, 8 to 19
// are the high-order coefficients.
constexpr int kNumModelParameters = 20;

// One row of the alignment parameter file: exactly 27 values.
using AlignmentParameterRow = std::vector<double>;
constexpr int kNumRowSlots = 27;

// Slots of a row. A channel row holds the channel's identity, its fit figures
// and, from slot 7 on, its model parameter vector; the final row describes the
// calibration stack.
constexpr int kSlotWavelength = 0;
constexpr int kSlotLinearFlag = 1;
constexpr int kSlotZOffset = 6;
constexpr int kSlotFirstParameter = 7;  // slots 7 to 26 are elements 0 to 19
constexpr int kSlotCentreX = 7;
constexpr int kSlotCentreY = 8;
constexpr int kSlotRadialTranslationX = 11;
constexpr int kSlotRadialTranslationY = 12;
constexpr int kSlotLinearTranslationX = 13;
constexpr int kSlotLinearTranslationY = 14;
constexpr int kSlotStackColumns = 7;  // final row only
constexpr int kSlotStackRows = 8;
constexpr int kSlotStackSpacingX = 9;
constexpr int kSlotStackSpacingY = 10;
constexpr int kSlotStackSpacingZ = 11;

// Reads the alignment parameter file at `path` and appends one row of 27
// doubles for every 27 values in it. Values are scanned in single precision.
// Returns only with a valid file read; every failure prints its message and
// ends the process with status 1.
void readAlignmentParameter(char* path, std::vector<std::vector<double>>& rows);

// Writes `rows` (each of 27 values) to `path`, one row per line and no newline
// after the last row. A failed open ends the process with status 1; a failed
// close is reported and the run goes on.
void writeAlignmentParameter(const char* path, const std::vector<std::vector<double>>& rows);

// Converts every row except the last from the calibration stack's physical
// units into pixels of the stack being corrected: centres keep their distance
// from the middle of the section, translations and the Z offset are divided by
// the stack's spacings. The calibration stack's size, spacings and the linear
// flag are taken from the last row. `rows` must not be empty.
void convertAlignmentParameterToPixels(std::vector<std::vector<double>>& rows, int numRows,
                                       int numCols, float spacingX, float spacingY, float spacingZ);

// Per-point forms of the model evaluators, used by the vector forms below and
// by the per-pixel loop of the section transform. The arithmetic order is part
// of the result: the sums are formed left to right exactly as written.

// Radial model: turn about the centre p[0], p[1] by p[3], scale the distance
// from the centre by p[2], shift by p[4], p[5].
inline CorvanePoint2D radialPoint(const double* p, double x, double y) {
  const double dx = x - p[0];
  const double dy = y - p[1];
  const double r = std::sqrt(dx * dx + dy * dy);
  const double a = std::atan2(dy, dx) + p[3];
  const double s = r * p[2];
  return {(p[4] + p[0]) + s * std::cos(a), s * std::sin(a) + (p[5] + p[1])};
}

// Linear model about the centre p[0], p[1], with translation p[6], p[7].
inline CorvanePoint2D linearPoint(const double* p, double x, double y) {
  const double dx = x - p[0];
  const double dy = y - p[1];
  return {p[2] * dx + p[0] + p[4] * dy + p[6], p[3] * dy + p[1] + p[5] * dx + p[7]};
}

// The second-order correction p[8] to p[19], added to a point that the base
// model has already mapped; the offsets are taken from that mapped point.
inline CorvanePoint2D highOrderPoint(const double* p, CorvanePoint2D mapped) {
  const double u = mapped.x - p[0];
  const double v = mapped.y - p[1];
  return {mapped.x + p[8] + p[9] * v + p[10] * v * v + p[11] * u + p[12] * u * v + p[13] * u * u,
          mapped.y + p[14] + p[15] * v + p[16] * v * v + p[17] * u + p[18] * u * v + p[19] * u * u};
}

// The three model evaluators. Each maps a position of the reference frame to
// the position in the channel's own image from which that pixel is read, and
// appends one point to `result` per input point, in order; `result` is not
// cleared.
void fradial(const std::vector<CorvanePoint2D>& points, const double* parameters,
             std::vector<CorvanePoint2D>& result);
void change(const std::vector<CorvanePoint2D>& points, const double* parameters,
            std::vector<CorvanePoint2D>& result);
// The linear model (non-zero `linearFlag`) or the radial one, then the
// second-order correction.
void changeHigh(const std::vector<CorvanePoint2D>& points, const double* parameters,
                std::vector<CorvanePoint2D>& result, int linearFlag);

// Reduces two matched point lists to the mean and the deviation of their
// distances over the middle of the sorted distances. `second` holds at least as
// many points as `first`, and `first` is not empty.
void calculateError(const std::vector<CorvanePoint2D>& first,
                    const std::vector<CorvanePoint2D>& second, double* meanError,
                    double* errorDeviation);

// Opens the calibration stack on stream 1, measures every channel against the
// reference channel and writes the alignment parameter file at the very end.
void performCalibration(char* pathInput, char* pathOutput, int referenceChannelIndex,
                        int numIteration, double errThreshold, int linearFlag, int highOrderFlag);
