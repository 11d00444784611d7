// Pairs spots between a reference section and a channel's section: candidates
// are bright regional maxima of the reference away from the edges, and each
// pair is the sub-pixel fit at the same integer position in both images.
// There is no partner search; the capture range is the fit's search window.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "app/settings.h"
#include "spots/internal.h"
#include "spots/spots.h"

namespace {

// The reference's pixels above the gridThreshold percentile, inside the
// border, at their own places in a block of zeros.
std::vector<double> brightInterior(double** reference, int numRows, int numCols) {
  const std::size_t n = static_cast<std::size_t>(numRows) * static_cast<std::size_t>(numCols);
  std::vector<double> block(n);
  for (int r = 0; r < numRows; ++r) {
    std::copy(reference[r], reference[r] + numCols,
              block.begin() + static_cast<std::ptrdiff_t>(r) * numCols);
  }
  const double threshold = percentileValue(block, gridThreshold);

  std::fill(block.begin(), block.end(), 0.0);
  for (int r = kCandidateBorder; r <= numRows - kCandidateBorder - 1; ++r) {
    for (int c = kCandidateBorder; c <= numCols - kCandidateBorder - 1; ++c) {
      if (reference[r][c] > threshold)
        block[static_cast<std::size_t>(r) * numCols + c] = reference[r][c];
    }
  }
  return block;
}

// A candidate of the reference and the reference's own fit there.
struct ReferenceSpot {
  int row = 0;
  int col = 0;
  bool fitted = false;
  CorvanePoint2D centre{};
  HeldOutput lines;  // what the fit printed; printed again at every pairing
};

// The reference's half of a pairing depends on nothing but its pixels and
// gridThreshold. A calibration pairs every pass of every channel with the
// same reference, so the last one measured is kept, with a copy of what it
// was measured from.
struct ReferenceMeasure {
  int numRows = 0;
  int numCols = 0;
  double threshold = 0.0;
  std::vector<double> pixels;
  std::vector<ReferenceSpot> spots;
};

// Bit for bit, so that a NaN or a signed zero can never pass for another.
bool measures(const ReferenceMeasure& measure, double** reference, int numRows, int numCols) {
  if (measure.numRows != numRows || measure.numCols != numCols ||
      std::memcmp(&measure.threshold, &gridThreshold, sizeof gridThreshold) != 0) {
    return false;
  }
  const std::size_t rowBytes = static_cast<std::size_t>(numCols) * sizeof(double);
  for (int r = 0; r < numRows; ++r) {
    const double* kept = measure.pixels.data() + static_cast<std::size_t>(r) * numCols;
    if (std::memcmp(kept, reference[r], rowBytes) != 0) return false;
  }
  return true;
}

std::shared_ptr<const ReferenceMeasure> measureAfresh(double** reference, int numRows,
                                                      int numCols) {
  auto measure = std::make_shared<ReferenceMeasure>();
  measure->numRows = numRows;
  measure->numCols = numCols;
  measure->threshold = gridThreshold;
  measure->pixels.resize(static_cast<std::size_t>(numRows) * numCols);
  for (int r = 0; r < numRows; ++r) {
    std::copy(reference[r], reference[r] + numCols,
              measure->pixels.begin() + static_cast<std::ptrdiff_t>(r) * numCols);
  }
  std::vector<int> rows, cols;
  findSpotCandidates(reference, numRows, numCols, rows, cols);
  std::vector<ReferenceSpot>& spots = measure->spots;
  spots.resize(rows.size());
  forEachSpotInOrder(static_cast<int>(spots.size()), [&](int k) {
    ReferenceSpot& spot = spots[k];
    spot.row = rows[k];
    spot.col = cols[k];
    holdOutput(spot.lines, [&] {
      double fittedRow, fittedCol;
      if (fitPoint(reference, numRows, numCols, spot.row, spot.col, &fittedRow, &fittedCol) != 0)
        return;
      spot.centre = CorvanePoint2D{fittedCol, fittedRow};
      spot.fitted = true;
    });
  });
  return measure;
}

std::mutex lastReferenceMutex;
std::shared_ptr<const ReferenceMeasure> lastReference;

std::shared_ptr<const ReferenceMeasure> measureReference(double** reference, int numRows,
                                                         int numCols) {
  const std::lock_guard<std::mutex> lock(lastReferenceMutex);
  if (!lastReference || !measures(*lastReference, reference, numRows, numCols)) {
    lastReference = measureAfresh(reference, numRows, numCols);
  }
  return lastReference;
}

}  // namespace

void findSpotCandidates(double** reference, int numRows, int numCols,
                        std::vector<int>& candidateRows, std::vector<int>& candidateCols) {
  if (numRows <= 0 || numCols <= 0) return;
  std::vector<double> block = brightInterior(reference, numRows, numCols);
  std::vector<char> flags(block.size());
  imageRegionalMax(block.data(), numRows, numCols, flags.data());

  // Raster order: by row, then by column. With nothing bright inside the
  // border every pixel stays flagged and is tried; that is how it is meant.
  for (int r = 0; r < numRows; ++r) {
    for (int c = 0; c < numCols; ++c) {
      if (flags[static_cast<std::size_t>(r) * numCols + c] == 1) {
        candidateRows.push_back(r);
        candidateCols.push_back(c);
      }
    }
  }
}

void measureReferenceSpots(double** reference, int numRows, int numCols) {
  if (numRows > 0 && numCols > 0) measureReference(reference, numRows, numCols);
}

void findCorrespondencePoint(double** image, double** reference, int numRows, int numCols,
                             std::vector<CorvanePoint2D>& imagePoints,
                             std::vector<CorvanePoint2D>& referencePoints) {
  if (numRows <= 0 || numCols <= 0) return;
  const std::shared_ptr<const ReferenceMeasure> measure =
      measureReference(reference, numRows, numCols);
  const std::vector<ReferenceSpot>& spots = measure->spots;

  // Every candidate is fitted in both images on its own; the pairs are then
  // taken in candidate order, so the lists do not depend on the threads.
  std::vector<CorvanePoint2D> fitted(spots.size());
  std::vector<char> kept(spots.size(), 0);
  forEachSpotInOrder(static_cast<int>(spots.size()), [&](int k) {
    const ReferenceSpot& spot = spots[k];
    spot.lines.print();
    if (!spot.fitted) return;
    // The same integer position, not the refined one: a pair shares its start.
    double fittedRow, fittedCol;
    if (fitPoint(image, numRows, numCols, spot.row, spot.col, &fittedRow, &fittedCol) != 0) return;
    fitted[k] = CorvanePoint2D{fittedCol, fittedRow};
    kept[k] = 1;
  });
  for (std::size_t k = 0; k < spots.size(); ++k) {
    if (kept[k] == 0) continue;
    referencePoints.push_back(spots[k].centre);
    imagePoints.push_back(fitted[k]);
  }
}
