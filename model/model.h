// Alignment model: the parameter record and its file, the model evaluators,
// the fits, and the calibration driver.
#pragma once

#include <cmath>
#include <initializer_list>
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
constexpr int kFirstHighOrderParameter = 8;

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

// A value of the file truncated towards zero to a 32-bit integer, as flags,
// sizes and keys are taken from it. Defined for every value: NaN gives 0 and
// values beyond the integer range give its nearest end.
int truncateToInt(double value);

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

// ---------------------------------------------------------------------------
// Base model fitting (radial, or linear with the linear flag).

// What the solver hands to the objective: the reference spots, the same spots
// in the channel's own frame, and the model to carry the first onto the second.
struct ParameterFinderData {
  int linearFlag;
  std::vector<CorvanePoint2D> sourcePoints;
  std::vector<CorvanePoint2D> targetPoints;
};

// One pass of the channel fit: pairs the spots of `image` (the channel warped
// by the present model) with those of `reference`, drops the pairs whose
// direction contradicts the present model, fits the base model inside its
// bounds starting from `parameters`, and measures the fit in the reference
// frame. `parameters` (20 doubles) is read and updated in place; *meanError
// and *errorDeviation are written only when the pass gets to the measurement.
void fittingProcess(double** image, double** reference, int numRows, int numCols, int linearFlag,
                    double* parameters, double* meanError, double* errorDeviation);

// Residual i is the distance from source point i, carried through the
// candidate model `x` (*n values), to target point i. `data` points to a
// ParameterFinderData. Safe on several threads at once.
void calculateObjectiveFunctionParameterFinder(int* m, int* n, double* x, double* f, void* data);

// Drives the bounded trust-region solver on the objective above. `x` holds
// the start and receives the result; fvec has room for m doubles, fjac for
// m * n, eps holds six precisions, lw and up n bounds each. Returns 0, or 1
// after printing the failing call and "Calibration may be inaccurate".
int nonLinearLeastSquareOptimizationParameterFinder(double* x, double* fvec, double* fjac,
                                                    double* lw, double* up, double* eps, int m,
                                                    int n, void* data);

// ---------------------------------------------------------------------------
// High-order model fitting.

// Refines the best base model in `parameters` by a second-order polynomial
// per axis, fitted to what the base model leaves over at each reference spot
// of the unwarped channel section `image`; writes elements 8 to 19 and, when
// the corrected section still pairs, overwrites both errors.
void fittingProcessHighOrder(double** image, double** reference, int numRows, int numCols,
                             int linearFlag, double* parameters, double* meanError,
                             double* errorDeviation);

// Least-squares polynomial of total order `order` in (x, y) through z, by a
// pseudo-inverse with an absolute cut-off on the singular values of the
// scaled design. `coefficients` receives numTerms values in the order
// (i, j) = (0,0), (0,1), ... with x to the power i and y to the power j, and
// is written only on success. Returns 0 on success, 1 when there is nothing to
// fit (no point, or x, y or z all zero), or the decomposition's positive code.
int fit2dPolySVD(const double* x, const double* y, const double* z, int order, double* coefficients,
                 int numPoints, int numTerms);

// ---------------------------------------------------------------------------
// Calibration driver.

// Opens the calibration stack on stream 1, measures every channel against the
// reference channel and writes the alignment parameter file at the very end.
void performCalibration(char* pathInput, char* pathOutput, int referenceChannelIndex,
                        int numIteration, double errThreshold, int linearFlag, int highOrderFlag);

// Calibrates every channel of the open `stream` but the reference one and
// appends one row per channel, then the final row describing the stack. Every
// failure prints its lines, closes the stream and ends the process. Channels
// are fitted on all threads while the next are read; the console, the status
// file and the rows come in file order, as from one thread.
void performCalibrationPerFile(int stream, int referenceChannelIndex, int numIteration,
                               double errThreshold, int linearFlag, int highOrderFlag,
                               std::vector<std::vector<double>>& rows);

// Brings one channel's prepared focus section onto the reference section:
// repeated fits, each on the channel warped by the fit before, then the best
// pass, then optionally the high-order stage. `parameters` comes in with its
// start values and goes out with the result; `channelRows` is not changed.
void performCalibrationPerChannel(double** channelRows, double** referenceRows, int numRows,
                                  int numCols, int numIteration, double errThreshold,
                                  int linearFlag, int highOrderFlag, double* parameters,
                                  double* meanError, double* errorDeviation);

// Reads size, counts and spacings of the stack on `stream`; rows come before
// columns here. A failing read prints its lines, closes the stream and ends
// the process.
void calibrationReadInputFileHeader(int stream, int* numRows, int* numCols, int* numZ,
                                    int* numChannels, int* numTimes, float* spacingX,
                                    float* spacingY, float* spacingZ);

// Ends a calibration or correction that cannot go on: `reason` (if not null)
// and `stopLine` on standard output, `technical` (if not null) on standard
// error, then the image streams in `openStreams` closed; status 1. Partial
// output stays where it is.
[[noreturn]] void stopRun(const char* reason, const char* stopLine, const char* technical,
                          std::initializer_list<int> openStreams);
