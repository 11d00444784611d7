// Pairs spots between a reference section and a channel's section: candidates
// are bright regional maxima of the reference away from the edges, and each
// pair is the sub-pixel fit at the same integer position in both images.
// There is no partner search; the capture range is the fit's search window.

#include <algorithm>
#include <cstddef>
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

void findCorrespondencePoint(double** image, double** reference, int numRows, int numCols,
                             std::vector<CorvanePoint2D>& imagePoints,
                             std::vector<CorvanePoint2D>& referencePoints) {
  if (numRows <= 0 || numCols <= 0) return;
  std::vector<int> candidateRows, candidateCols;
  findSpotCandidates(reference, numRows, numCols, candidateRows, candidateCols);

  // Every candidate is fitted in both images on its own; the pairs are then
  // taken in candidate order, so the lists do not depend on the threads.
  struct Pair {
    bool kept = false;
    CorvanePoint2D image{}, reference{};
  };
  std::vector<Pair> pairs(candidateRows.size());
  forEachSpotInOrder(static_cast<int>(pairs.size()), [&](int k) {
    const int row = candidateRows[k], col = candidateCols[k];
    double fittedRow, fittedCol;
    if (fitPoint(reference, numRows, numCols, row, col, &fittedRow, &fittedCol) != 0) return;
    pairs[k].reference = CorvanePoint2D{fittedCol, fittedRow};
    // The same integer position, not the refined one: a pair shares its start.
    if (fitPoint(image, numRows, numCols, row, col, &fittedRow, &fittedCol) != 0) return;
    pairs[k].image = CorvanePoint2D{fittedCol, fittedRow};
    pairs[k].kept = true;
  });
  for (const Pair& pair : pairs) {
    if (!pair.kept) continue;
    referencePoints.push_back(pair.reference);
    imagePoints.push_back(pair.image);
  }
}
