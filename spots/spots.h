// Spot measurement: focus search, spot detection, sub-pixel Gaussian fit and
// pairing of spots between two focus sections.
//
// Planes are row-major blocks of doubles (linear index row * numCols + col),
// masks and flags one byte per pixel. Rows come before columns in every
// argument list. This is the only header that callers include.
#pragma once

#include <functional>
#include <vector>

#include "model/model.h"

// ---------------------------------------------------------------------------
// Focus section search
// ---------------------------------------------------------------------------

// Finds the Z section of `channel` in best focus and reads it into `section`
// (numRows * numCols floats, the caller's). `time` is accepted and ignored:
// time point 0 is searched and read. Stores the chosen Z index in
// *focusIndex. A failing image call prints the reading failure and ends the
// process with status 1.
void getFocusImagePerChannel(int stream, int channel, int time, int numZ, int numRows, int numCols,
                             int rowDivisions, int columnDivisions, float* section,
                             int* focusIndex);

// A failing image call of the focus search; technicalLine is the line that
// getFocusImagePerChannel prints on standard error for it.
struct FocusReadFailure {
  const char* technicalLine;
};

// getFocusImagePerChannel for time point 0, except that a failing image call
// throws FocusReadFailure, prints nothing and leaves the stream open: for a
// caller that must finish other work before it stops.
void findFocusSection(int stream, int channel, int numZ, int numRows, int numCols,
                      int rowDivisions, int columnDivisions, float* section, int* focusIndex);

// Reads the section at the stream's position into `section`, room for
// columns x rows floats, whatever the stack's pixel type: 8-byte floats are
// narrowed to floats here, every other type is converted by the library.
// Returns the status of the failing library call, or 0.
int readSectionAsFloats(int stream, float* section);

// Reads every Z section of (channel, time) once, finds the sharpest section of
// each sub-region on its own and returns the trimmed mean of those indices,
// rounded half up. Ends the process on a failing image call.
int getFocusImageIndexPerChannel(int stream, int channel, int time, int numZ, int numRows,
                                 int numCols, int rowDivisions, int columnDivisions);

// Appends rowDivisions * columnDivisions contrast values to `contrast`, one
// per sub-region in block-row order. Rows and columns left over by the
// integer division belong to no region.
void calculateSubRegionContrast(float** section, int numRows, int numCols, int rowDivisions,
                                int columnDivisions, std::vector<double>& contrast);

// Sorts `data` ascending in place, appends numBins bin centres to
// `binCenters` (empty on entry) and replaces `binCounts` with numBins counts.
// Bins are (edge j, edge j + 1], except that bin 0 also holds its low edge.
void histgram(std::vector<double>& data, int numBins, std::vector<double>& binCenters,
              std::vector<double>& binCounts);

// ---------------------------------------------------------------------------
// Spot detection
// ---------------------------------------------------------------------------

// Blob sizes, in pixels, that a spot may have after thresholding: smaller
// blobs are noise, larger ones are debris or out-of-focus haze.
constexpr int kMinSpotPixels = 16;
constexpr int kMaxSpotPixels = 299;

// The value at position floor(n * fraction) of `values` in ascending order,
// the product taken in double: the gridThreshold percentile. Reorders
// `values`. A position at or past the end (a fraction of 1.0 or more) or a NaN
// one takes the largest value, so that nothing is strictly above the result;
// a negative position takes the smallest. NaN values order after all numbers.
// `values` must not be empty.
double percentileValue(std::vector<double>& values, double fraction);

// Cleans a focus section in place so that bright spots of 16 to 299 pixels
// stand alone in a moat of zeros on a field at the image mean. Reads the
// global gridThreshold.
void prepareFocusImage(double* image, int numRows, int numCols);

// Appends one list of linear pixel indices per 4-connected blob of `mask`
// (bytes not 0), in the raster order of each blob's first pixel.
void connectedComponentLabelingFour(const char* mask, std::vector<std::vector<int>>& components,
                                    int numRows, int numCols);

// Sets regionalMax[i] to 1 at the regional maxima of `image` and 0 elsewhere.
// The eight neighbours are taken by linear index, so they wrap across rows.
void imageRegionalMax(double* image, int numRows, int numCols, char* regionalMax);

// Moments of a window: result = row centre, column centre, row spread,
// column spread, window mean. Centres count from 1.
void calculateCenterOfMass(double* image, int numRows, int numCols, double* result);

// ---------------------------------------------------------------------------
// Sub-pixel Gaussian spot fit
// ---------------------------------------------------------------------------

// Data of a one-dimensional profile, read only by the objective function.
struct GaussianOneDimensionData {
  double* values;
  int* positions;
};

// Data of a two-dimensional window, read only by the objective function.
struct GaussianTwoDimensionData {
  double* pixels;
  int* rowPositions;
  int* colPositions;
  int numRows;
  int numCols;
};

// Pixels to each side of a given position in which the fit looks for the
// brightest pixel: the capture range of a pair.
constexpr int kSpotSearchHalfWidth = 15;

// Refines (row, col) to the sub-pixel centre of the brightest spot within 15
// pixels. Returns 0 and sets *outRow, *outCol in whole-image coordinates, or
// returns 1 and leaves them unchanged after a solver failure or when no peak
// can be found.
int fitPoint(double** image, int numRows, int numCols, int row, int col, double* outRow,
             double* outCol);

// Residuals model - data of the Gaussian (centre, sigma, amplitude, offset).
// Safe on several threads at once with the same data.
void calculateObjectiveFunctionGaussianOneDimension(int* m, int* n, double* x, double* f,
                                                    void* data);

// Residuals model - data of the Gaussian (rowCentre, rowSigma, colCentre,
// colSigma, amplitude, offset). Safe on several threads at once.
void calculateObjectiveFunctionGaussianTwoDimension(int* m, int* n, double* x, double* f,
                                                    void* data);

// Unconstrained trust-region fits; x holds the start and receives the result.
// fvec has room for m doubles, fjac for m * n, eps for six. Return 0, or 1
// after printing the failing call.
int nonLinearLeastSquareOptimizationGaussianOneDimension(double* x, double* fvec, double* fjac,
                                                         double* eps, int m, int n, void* data);
int nonLinearLeastSquareOptimizationGaussianTwoDimension(double* x, double* fvec, double* fjac,
                                                         double* eps, int m, int n, void* data);

// ---------------------------------------------------------------------------
// Point correspondence
// ---------------------------------------------------------------------------

// Candidates keep this far from every edge, so that the search and fit
// windows of the reference spot lie inside the image.
constexpr int kCandidateBorder = 30;

// Appends the spot candidates of a prepared section to the two lists, in
// raster order: the regional maxima of the pixels above the gridThreshold
// percentile, kCandidateBorder pixels or more from every edge. With nothing
// bright inside the border every pixel is a candidate.
void findSpotCandidates(double** reference, int numRows, int numCols,
                        std::vector<int>& candidateRows, std::vector<int>& candidateCols);

// Appends matched sub-pixel spot positions: entry i of imagePoints and of
// referencePoints is the same spot. Candidates are the regional maxima above
// the gridThreshold percentile of `reference`, 30 pixels or more from every
// edge; each is fitted at the same integer position in both images. Neither
// image is changed; the lists are not cleared first. The reference's
// candidates and fits are kept, with a copy of its pixels, and used again
// while a reference of the same pixels and gridThreshold comes in.
void findCorrespondencePoint(double** image, double** reference, int numRows, int numCols,
                             std::vector<CorvanePoint2D>& imagePoints,
                             std::vector<CorvanePoint2D>& referencePoints);

// Measures the candidates of `reference` and its fits there now, and keeps
// them for the findCorrespondencePoint calls that follow, as that call
// would: for a caller that can do it while other work goes on.
void measureReferenceSpots(double** reference, int numRows, int numCols);

// Calls task(k) for every k from 0 to count - 1, spread over the threads the
// run allows (OMP_NUM_THREADS, all cores by default). The tasks must be
// independent of each other and keep their results apart, by k. The solver
// lines of the spot fits are held per task and printed after the last task in
// the order of k, so standard output reads as after a loop on one thread.
// Called on a thread of a team already at work, the k become tasks of that
// team.
void forEachSpotInOrder(int count, const std::function<void(int)>& task);
