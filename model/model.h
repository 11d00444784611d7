// Alignment model: the parameter record and its file, the model evaluators,
// the fits, and the calibration driver.
#pragma once

// Opens the calibration stack on stream 1, measures every channel against the
// reference channel and writes the alignment parameter file at the very end.
void performCalibration(char* pathInput, char* pathOutput, int referenceChannelIndex,
                        int numIteration, double errThreshold, int linearFlag, int highOrderFlag);
