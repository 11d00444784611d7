// Alignment model: the parameter record and its file, the model evaluators,
// the fits, and the calibration driver.
#pragma once

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

// Opens the calibration stack on stream 1, measures every channel against the
// reference channel and writes the alignment parameter file at the very end.
void performCalibration(char* pathInput, char* pathOutput, int referenceChannelIndex,
                        int numIteration, double errThreshold, int linearFlag, int highOrderFlag);
