// The high-order stage: a second-order polynomial correction per axis, fitted
// once to what the best base model leaves over at each reference spot, and
// the polynomial fit itself by a truncated pseudo-inverse from a singular
// value decomposition. No trust-region solve of its own: only spot fits.
#include <cblas.h>
#include <lapacke.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "correction/correction.h"
#include "app/settings.h"
#include "model/internal.h"
#include "model/model.h"
#include "spots/spots.h"
#include "trsolver/trsolver.h"

namespace {

constexpr int kHighOrder = 2;
constexpr int kHighOrderTerms = 6;
constexpr int kFirstXCoefficient = 8;
constexpr int kFirstYCoefficient = 14;

// Double-precision machine epsilon; its order-th root is the cut-off.
constexpr double kMachineEpsilon = 2.220446049250313e-16;

double roundToPixel(double v) {
  return std::floor(v + 0.5);
}

// v to a whole power by repeated products; any v to the power 0 is 1.0.
double integerPower(double v, int power) {
  double result = 1.0;
  for (int k = 0; k < power; ++k) result *= v;
  return result;
}

double largestMagnitude(const double* values, int count) {
  double largest = 0.0;
  for (int i = 0; i < count; ++i) largest = std::max(largest, std::fabs(values[i]));
  return largest;
}

std::vector<double> scaledCopy(const double* values, int count, double scale) {
  std::vector<double> scaled(values, values + count);
  for (double& v : scaled) v *= scale;
  return scaled;
}

// numPoints rows of numTerms columns, row-major, in the term order.
std::vector<double> designMatrix(const std::vector<double>& x, const std::vector<double>& y,
                                 int order, int numPoints, int numTerms) {
  std::vector<double> a(static_cast<std::size_t>(numPoints) * numTerms);
  for (int p = 0; p < numPoints; ++p) {
    int k = 0;
    for (int i = 0; i <= order; ++i) {
      for (int j = 0; j <= order - i; ++j, ++k) {
        a[static_cast<std::size_t>(p) * numTerms + k] =
            integerPower(x[p], i) * integerPower(y[p], j);
      }
    }
  }
  return a;
}

// Spots measured near the base model's prediction in the channel's section.
struct MeasuredSpots {
  std::vector<CorvanePoint2D> measured;
  std::vector<CorvanePoint2D> kept;  // the predictions of the spots that fitted
};

MeasuredSpots measureNearPredictions(double** image, int numRows, int numCols,
                                     const std::vector<CorvanePoint2D>& predictedPoints) {
  // Each prediction is fitted on its own; the results are taken in the order
  // of the predictions, whichever thread fitted them.
  const int count = static_cast<int>(predictedPoints.size());
  std::vector<CorvanePoint2D> fitted(count);
  std::vector<char> found(count, 0);
  forEachSpotInOrder(count, [&](int k) {
    const int column = static_cast<int>(roundToPixel(predictedPoints[k].x));
    const int row = static_cast<int>(roundToPixel(predictedPoints[k].y));
    double fittedRow, fittedCol;
    if (fitPoint(image, numRows, numCols, row, column, &fittedRow, &fittedCol) != 0) return;
    fitted[k] = CorvanePoint2D{fittedCol, fittedRow};
    found[k] = 1;
  });
  MeasuredSpots spots;
  for (int k = 0; k < count; ++k) {
    if (found[k] == 0) continue;
    spots.measured.push_back(fitted[k]);
    spots.kept.push_back(predictedPoints[k]);
  }
  return spots;
}

// Fits the cut residuals of both axes over the offsets from the model's
// centre and stores the coefficients in elements 8 to 19. A fit that does not
// run leaves its axis at 0.0.
void fitResidualPolynomials(const MeasuredSpots& spots, double* parameters) {
  const int count = static_cast<int>(spots.measured.size());
  std::vector<double> residualX(count), residualY(count), u(count), v(count);
  for (int i = 0; i < count; ++i) {
    // A cut spot still takes part, pulling towards no correction.
    residualX[i] = cutHighOrderResidual(spots.measured[i].x - spots.kept[i].x);
    residualY[i] = cutHighOrderResidual(spots.measured[i].y - spots.kept[i].y);
    u[i] = spots.kept[i].x - parameters[0];
    v[i] = spots.kept[i].y - parameters[1];
  }
  double coefficientsX[kHighOrderTerms] = {};
  double coefficientsY[kHighOrderTerms] = {};
  // Results ignored by design: after a failure the coefficients stay 0.0.
  fit2dPolySVD(u.data(), v.data(), residualX.data(), kHighOrder, coefficientsX, count,
               kHighOrderTerms);
  fit2dPolySVD(u.data(), v.data(), residualY.data(), kHighOrder, coefficientsY, count,
               kHighOrderTerms);
  std::copy(coefficientsX, coefficientsX + kHighOrderTerms, parameters + kFirstXCoefficient);
  std::copy(coefficientsY, coefficientsY + kHighOrderTerms, parameters + kFirstYCoefficient);
}

// Pairs the section corrected by the full model with the reference and
// measures it; leaves both errors alone when nothing pairs.
void measureCorrectedSection(double** image, double** reference, int numRows, int numCols,
                             int linearFlag, double* parameters, double* meanError,
                             double* errorDeviation) {
  std::vector<double> pixels(static_cast<std::size_t>(numRows) * numCols);
  std::vector<double*> output(numRows);
  for (int r = 0; r < numRows; ++r)
    output[r] = pixels.data() + static_cast<std::size_t>(r) * numCols;
  // Under the radial model the transform leaves the polynomial out, so the
  // figures then describe the radial model alone: accepted as designed.
  imageTransform(image, parameters, numRows, numCols, linearFlag, 1, output.data());
  std::vector<CorvanePoint2D> imagePoints, referencePoints;
  findCorrespondencePoint(output.data(), reference, numRows, numCols, imagePoints, referencePoints);
  if (imagePoints.empty()) return;
  calculateError(imagePoints, referencePoints, meanError, errorDeviation);
}

}  // namespace

double cutHighOrderResidual(double residual) {
  return std::fabs(residual) < kMaxHighOrderResidual ? residual : 0.0;
}

void fittingProcessHighOrder(double** image, double** reference, int numRows, int numCols,
                             int linearFlag, double* parameters, double* meanError,
                             double* errorDeviation) {
  std::vector<CorvanePoint2D> imagePoints, referencePoints;
  findCorrespondencePoint(image, reference, numRows, numCols, imagePoints, referencePoints);
  if (imagePoints.empty()) return;

  std::vector<CorvanePoint2D> predictedPoints;
  applyBaseModel(referencePoints, parameters, linearFlag, predictedPoints);
  const MeasuredSpots spots = measureNearPredictions(image, numRows, numCols, predictedPoints);
  if (spots.measured.empty()) return;

  // No roll-back: the polynomial stays even if the measure below is worse.
  fitResidualPolynomials(spots, parameters);
  measureCorrectedSection(image, reference, numRows, numCols, linearFlag, parameters, meanError,
                          errorDeviation);
}

int fit2dPolySVD(const double* x, const double* y, const double* z, int order, double* coefficients,
                 int numPoints, int numTerms) {
  if (numPoints < 1) return 1;
  const double largestX = largestMagnitude(x, numPoints);
  const double largestY = largestMagnitude(y, numPoints);
  const double largestZ = largestMagnitude(z, numPoints);
  if (largestZ == 0.0 || largestY == 0.0 || largestX == 0.0) return 1;

  // Scaled into [-1, 1] so that the cut-off below means the same for any
  // units and the powers of the design stay of one size.
  const double sx = 1.0 / largestX, sy = 1.0 / largestY, sz = 1.0 / largestZ;
  const std::vector<double> xs = scaledCopy(x, numPoints, sx);
  const std::vector<double> ys = scaledCopy(y, numPoints, sy);
  std::vector<double> zs = scaledCopy(z, numPoints, sz);
  std::vector<double> a = designMatrix(xs, ys, order, numPoints, numTerms);

  const int numSingular = std::min(numPoints, numTerms);
  std::vector<double> s(numSingular);
  std::vector<double> u(static_cast<std::size_t>(numPoints) * numPoints);
  std::vector<double> vt(static_cast<std::size_t>(numTerms) * numTerms);
  // min - 1 entries are needed; one more keeps the pointer valid for a
  // single point.
  std::vector<double> superb(numSingular);
  lapack_int info = 0;
  trs_blas_exclusive([&] {
    info = LAPACKE_dgesvd(LAPACK_ROW_MAJOR, 'A', 'A', numPoints, numTerms, a.data(), numTerms,
                          s.data(), u.data(), numPoints, vt.data(), numTerms, superb.data());
  });
  // A negative value (an argument refused) is not taken for a failure.
  if (info > 0) {
    consolePrint(stderr, "The algorithm computing SVD failed to converge.\n");
    return static_cast<int>(info);
  }

  // An absolute limit on the singular values of the scaled design, not one
  // relative to the largest: directions weaker than this are left out.
  const double tolerance = std::pow(kMachineEpsilon, 1.0 / order);
  std::vector<double> w(static_cast<std::size_t>(numPoints) * numTerms, 0.0);
  for (int i = 0; i < numSingular; ++i) {
    if (std::fabs(s[i]) >= tolerance) w[static_cast<std::size_t>(i) * numTerms + i] = 1.0 / s[i];
  }

  // Q = V W^T U^T is the pseudo-inverse of the design; coefficients = Q zs.
  std::vector<double> p(static_cast<std::size_t>(numTerms) * numPoints);
  std::vector<double> q(static_cast<std::size_t>(numTerms) * numPoints);
  trs_blas_exclusive([&] {
    cblas_dgemm(CblasRowMajor, CblasTrans, CblasTrans, numTerms, numPoints, numTerms, 1.0,
                vt.data(), numTerms, w.data(), numTerms, 0.0, p.data(), numPoints);
    cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasTrans, numTerms, numPoints, numPoints, 1.0,
                p.data(), numPoints, u.data(), numPoints, 0.0, q.data(), numPoints);
    cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, numTerms, 1, numPoints, 1.0, q.data(),
                numPoints, zs.data(), 1, 0.0, coefficients, 1);
  });

  // Back to the units of the inputs, term by term in the same order.
  int k = 0;
  for (int i = 0; i <= order; ++i) {
    for (int j = 0; j <= order - i; ++j, ++k) {
      coefficients[k] *= integerPower(sy, j) * integerPower(sx, i) * largestZ;
    }
  }
  return 0;
}
