// Section correction: resampling of one section through a channel's model, and
// the correction driver that writes the corrected stack.
#pragma once

#include <cstddef>

// Resamples the section `input` (numRows x numCols, row pointers) through the
// model `parameters` into `output`, a separate section of the same size: each
// output pixel is read from its mapped position in the input by cubic
// interpolation, or set to 0.0 when that position lies outside. The linear
// flag picks the linear model over the radial one; the high-order flag adds
// the second-order terms, on top of the linear model only. Writes every pixel
// of `output` and nothing else.
void imageTransform(double** input, double* parameters, int numRows, int numCols, int linearFlag,
                    int highOrderFlag, double** output);

// Resamples only the output rows firstRow up to endRow (excluded), exactly as
// imageTransform does them. Rows are independent: blocks of one section may
// run on several threads at once. imageTransform spreads its rows this way
// over the threads the run allows (OMP_NUM_THREADS, all cores by default).
void imageTransformRows(double** input, double* parameters, int numRows, int numCols,
                        int linearFlag, int highOrderFlag, double** output, int firstRow,
                        int endRow);
// The same from a section of floats, each widened as it is sampled: the
// output is that of the section widened first, to the bit, with half the
// memory read and no widened copy.
void imageTransformRows(float** input, double* parameters, int numRows, int numCols,
                        int linearFlag, int highOrderFlag, double** output, int firstRow,
                        int endRow);

// Narrows `count` doubles to the nearest floats: the plain conversion of a
// cast (no clamping, no rounding to an integer), two pixels an instruction.
void narrowSection(const double* from, float* to, std::size_t count);

// The Catmull-Rom cubic through `values` at positions -1, 0, 1, 2, evaluated at
// `t` between 0 and 1. Not clamped: it can overshoot the samples.
double cubicInterpolation(double* values, double t);

// The cubic with `tx` along each of the four rows of `values` (first index
// the row), then with `ty` down the four results.
double bicubicInterpolation(double (*values)[4], double tx, double ty);

// Reads the alignment parameter file, then resamples every section of every
// channel of the input stack into the output stack.
void performCorrection(char* pathParameterFile, char* pathInput, char* pathOutput);
