// Sub-pixel spot centres: brightest pixel in a wide window, moments in a
// smaller one, then Gaussian fits along a row, along a column and over the
// whole window, each starting from the last accepted estimate. A stage whose
// centre leaves the window is ignored; only a solver failure fails the fit.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <vector>

#include "spots/internal.h"
#include "spots/spots.h"
#include "trsolver/trsolver.h"

namespace {

constexpr int kFitHalfWidth = 9;      // pixels to each side of the brightest pixel
constexpr double kNoPeak = -1.0;      // the peak search only takes pixels above this

// Largest credible spread of a spot, in pixels.
constexpr double kMaxSigma = 10.0;

// Solver settings shared by both Gaussian fits.
constexpr int kMaxIterations = 1000;
constexpr int kMaxTrialIterations = 100;
constexpr double kInitialStepBound = 100.0;
constexpr double kPrecision = 0.0001;
constexpr int kNumPrecisions = 6;

constexpr int kParamsOneDimension = 4;
constexpr int kParamsTwoDimension = 6;

double roundToPixel(double v) {
  return std::floor(v + 0.5);
}

// True when `centre` rounds to an index inside [0, size). NaN fails.
bool roundsInside(double centre, int size) {
  const double r = roundToPixel(centre);
  return r < size && r >= 0;
}

// floor(centre + 0.5) as an offset from a window's first row or column, for
// which `available` image rows or columns exist from there on. The moment
// centre counts from 1, so in a window clipped at the image's far edge it can
// round one past the last row or column; that, and a NaN, is pulled back
// onto the image. Everywhere else the rounded value stands as it is.
int clampedIndex(double centre, int available) {
  const double r = roundToPixel(centre);
  if (!(r >= 0)) return 0;
  if (r >= available) return available - 1;
  return static_cast<int>(r);
}

std::vector<int> countingPositions(int size) {
  std::vector<int> positions(size);
  for (int i = 0; i < size; ++i) positions[i] = i;
  return positions;
}

// Runs the unconstrained solver's reverse-communication loop on `objective`.
// The failure lines of the last two calls name the bounded family; those are
// the texts this system prints, and they stay.
int solveUnconstrained(TrResidualFunction objective, double* x, double* fvec, double* fjac,
                       double* eps, int m, int n, void* data) {
  TrHandle handle = nullptr;
  const int iter1 = kMaxIterations;
  const int iter2 = kMaxTrialIterations;
  const double rs = kInitialStepBound;
  if (DTRNLSP_INIT(&handle, &n, &m, x, eps, &iter1, &iter2, &rs) != TRS_OK) {
    printFitLine("error in dtrnlsp_init");
    TRS_FREE_BUFFERS();
    return 1;
  }
  int request = 0;
  for (;;) {
    // The handle is left alive on the failing ways out, as designed.
    if (DTRNLSP_SOLVE(&handle, fvec, fjac, &request) != TRS_OK) {
      printFitLine("error in dtrnlsp_solve");
      TRS_FREE_BUFFERS();
      return 1;
    }
    if (request >= -6 && request <= -1) break;  // finished, whatever the reason
    if (request == 1) {
      objective(&m, &n, x, fvec, data);
    } else if (request == 2) {
      DJACOBIX(objective, &n, &m, fjac, x, eps, data);  // status ignored by design
    }
  }
  int iterations = 0, stopReason = 0;
  double r1 = 0.0, r2 = 0.0;
  if (DTRNLSP_GET(&handle, &iterations, &stopReason, &r1, &r2) != TRS_OK) {
    printFitLine("error in dtrnlspbc_get");
    TRS_FREE_BUFFERS();
    return 1;
  }
  if (DTRNLSP_DELETE(&handle) != TRS_OK) {
    printFitLine("error in dtrnlspbc_delete");
    TRS_FREE_BUFFERS();
    return 1;
  }
  TRS_FREE_BUFFERS();
  return 0;
}

// Fits the one-dimensional Gaussian to a profile from the start in x, with
// residual and Jacobian buffers of its own. Returns the wrapper's result.
int fitProfile(std::vector<double>& values, std::vector<int>& positions, double* x, double* eps) {
  const int m = static_cast<int>(values.size());
  std::vector<double> fvec(m), fjac(static_cast<std::size_t>(m) * kParamsOneDimension);
  GaussianOneDimensionData data{values.data(), positions.data()};
  return nonLinearLeastSquareOptimizationGaussianOneDimension(x, fvec.data(), fjac.data(), eps, m,
                                                              kParamsOneDimension, &data);
}

}  // namespace

void calculateObjectiveFunctionGaussianOneDimension(int* m, int* /*n*/, double* x, double* f,
                                                    void* data) {
  const auto* d = static_cast<const GaussianOneDimensionData*>(data);
  const double centre = x[0], sigma = x[1], amplitude = x[2], offset = x[3];
  // No guard against a zero sigma: only its square enters, and the fit is free.
  const double a = -1.0 / ((sigma + sigma) * sigma);
  for (int i = 0; i < *m; ++i) {
    const double dx = static_cast<double>(d->positions[i]) - centre;
    f[i] = amplitude * std::exp(a * (dx * dx)) + offset - d->values[i];
  }
}

void calculateObjectiveFunctionGaussianTwoDimension(int* /*m*/, int* /*n*/, double* x, double* f,
                                                    void* data) {
  const auto* d = static_cast<const GaussianTwoDimensionData*>(data);
  const double rowCentre = x[0], rowSigma = x[1], colCentre = x[2], colSigma = x[3];
  const double amplitude = x[4], offset = x[5];
  const double a = -1.0 / ((rowSigma + rowSigma) * rowSigma);
  const double b = -1.0 / ((colSigma + colSigma) * colSigma);
  for (int i = 0; i < d->numRows; ++i) {
    const double dr = static_cast<double>(d->rowPositions[i]) - rowCentre;
    const double rowTerm = a * (dr * dr);
    for (int j = 0; j < d->numCols; ++j) {
      const double dc = static_cast<double>(d->colPositions[j]) - colCentre;
      const std::size_t k = static_cast<std::size_t>(i) * d->numCols + j;
      f[k] = amplitude * std::exp(b * (dc * dc) + rowTerm) + offset - d->pixels[k];
    }
  }
}

int nonLinearLeastSquareOptimizationGaussianOneDimension(double* x, double* fvec, double* fjac,
                                                         double* eps, int m, int n, void* data) {
  return solveUnconstrained(calculateObjectiveFunctionGaussianOneDimension, x, fvec, fjac, eps, m,
                            n, data);
}

int nonLinearLeastSquareOptimizationGaussianTwoDimension(double* x, double* fvec, double* fjac,
                                                         double* eps, int m, int n, void* data) {
  return solveUnconstrained(calculateObjectiveFunctionGaussianTwoDimension, x, fvec, fjac, eps, m,
                            n, data);
}

int fitPoint(double** image, int numRows, int numCols, int row, int col, double* outRow,
             double* outCol) {
  // Brightest pixel of the search window; the first in raster order wins.
  const int searchRowStart = std::max(row - kSpotSearchHalfWidth, 0);
  const int searchRowEnd = std::min(row + kSpotSearchHalfWidth, numRows - 1);
  const int searchColStart = std::max(col - kSpotSearchHalfWidth, 0);
  const int searchColEnd = std::min(col + kSpotSearchHalfWidth, numCols - 1);
  double best = kNoPeak;
  int peakRow = -1, peakCol = -1;
  for (int r = searchRowStart; r <= searchRowEnd; ++r) {
    for (int c = searchColStart; c <= searchColEnd; ++c) {
      if (image[r][c] > best) {
        best = image[r][c];
        peakRow = r;
        peakCol = c;
      }
    }
  }
  // A window off the image, or one without a pixel above -1.0, has no spot.
  if (peakRow < 0) return 1;

  const int rowStart = std::max(peakRow - kFitHalfWidth, 0);
  const int rowEnd = std::min(peakRow + kFitHalfWidth, numRows - 1);
  const int colStart = std::max(peakCol - kFitHalfWidth, 0);
  const int colEnd = std::min(peakCol + kFitHalfWidth, numCols - 1);
  const int winRows = rowEnd - rowStart + 1;
  const int winCols = colEnd - colStart + 1;
  assert(winRows > 0 && winCols > 0);  // the peak lies inside the window
  std::vector<double> window(static_cast<std::size_t>(winRows) * winCols);
  for (int r = 0; r < winRows; ++r) {
    std::copy(image[rowStart + r] + colStart, image[rowStart + r] + colEnd + 1,
              window.begin() + static_cast<std::ptrdiff_t>(r) * winCols);
  }
  // The solver's factorisation retries without end on a NaN Jacobian, so a
  // window holding a non-finite pixel is never handed to it: no spot here.
  if (!std::all_of(window.begin(), window.end(), [](double v) { return std::isfinite(v); }))
    return 1;

  const double peak = *std::max_element(window.begin(), window.end());
  double moments[5];
  calculateCenterOfMass(window.data(), winRows, winCols, moments);
  // The moment centres count from 1 and the fit positions from 0: the fits
  // start one pixel off, which is accepted.
  double centreRow = moments[0], centreCol = moments[1];
  double spreadRow = moments[2], spreadCol = moments[3];
  const double windowMean = moments[4];
  const double startAmplitude = peak - windowMean;
  double eps[kNumPrecisions];
  std::fill(eps, eps + kNumPrecisions, kPrecision);

  // Along the row through the moment centre.
  std::vector<double> rowValues(winCols);
  const double* imageRow = image[rowStart + clampedIndex(centreRow, numRows - rowStart)];
  std::copy(imageRow + colStart, imageRow + colEnd + 1, rowValues.begin());
  std::vector<int> colPositions = countingPositions(winCols);
  double x1[kParamsOneDimension] = {centreCol, spreadCol, startAmplitude, windowMean};
  if (fitProfile(rowValues, colPositions, x1, eps) != 0) return 1;
  int colIndex;
  if (roundsInside(x1[0], winCols)) {
    centreCol = x1[0];
    colIndex = static_cast<int>(roundToPixel(x1[0]));
  } else {
    colIndex = clampedIndex(centreCol, numCols - colStart);
  }
  if (x1[1] <= kMaxSigma && x1[1] > 0.0) spreadCol = x1[1];

  // Along the column through the row fit's centre; its amplitude is not
  // carried over.
  std::vector<double> colValues(winRows);
  for (int r = 0; r < winRows; ++r) colValues[r] = image[rowStart + r][colStart + colIndex];
  std::vector<int> rowPositions = countingPositions(winRows);
  double x2[kParamsOneDimension] = {centreRow, spreadRow, startAmplitude, windowMean};
  if (fitProfile(colValues, rowPositions, x2, eps) != 0) return 1;
  if (roundsInside(x2[0], winRows)) centreRow = x2[0];
  if (x2[1] <= kMaxSigma && x2[1] > 0.0) spreadRow = x2[1];
  const double fittedAmplitude = x2[2];

  // The whole window.
  const int m = winRows * winCols;
  std::vector<double> fvec(m), fjac(static_cast<std::size_t>(m) * kParamsTwoDimension);
  GaussianTwoDimensionData data{window.data(), rowPositions.data(), colPositions.data(), winRows,
                                winCols};
  double x3[kParamsTwoDimension] = {centreRow, spreadRow,       centreCol,
                                    spreadCol, fittedAmplitude, windowMean};
  if (nonLinearLeastSquareOptimizationGaussianTwoDimension(x3, fvec.data(), fjac.data(), eps, m,
                                                           kParamsTwoDimension, &data) != 0) {
    return 1;
  }
  if (roundsInside(x3[0], winRows)) centreRow = x3[0];
  if (roundsInside(x3[2], winCols)) centreCol = x3[2];

  *outRow = rowStart + centreRow;
  *outCol = colStart + centreCol;
  return 0;
}
