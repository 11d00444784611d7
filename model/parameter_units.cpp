// Carries the rows of an alignment parameter file from the calibration
// stack's physical units into pixels of the stack being corrected.
#include <cassert>
#include <climits>

#include "model/model.h"

namespace {

// The section's middle, with the count truncated before it is halved.
double halfOf(int count) {
  return count * 0.5;
}

// A centre keeps its physical distance from the middle of the section.
double centreInStack(double centre, double calibrationSpacing, int calibrationCount,
                     double stackSpacing, int stackCount) {
  return (centre / calibrationSpacing - halfOf(calibrationCount)) *
             (calibrationSpacing / stackSpacing) +
         halfOf(stackCount);
}

}  // namespace

int truncateToInt(double value) {
  // A plain conversion of NaN or of a value out of range is undefined; such
  // values reach here from hand-edited or damaged files.
  if (value != value) return 0;
  if (value <= static_cast<double>(INT_MIN)) return INT_MIN;
  if (value >= static_cast<double>(INT_MAX)) return INT_MAX;
  return static_cast<int>(value);
}

void convertAlignmentParameterToPixels(std::vector<std::vector<double>>& rows, int numRows,
                                       int numCols, float spacingX, float spacingY,
                                       float spacingZ) {
  assert(!rows.empty());
  const std::vector<double>& last = rows.back();
  const int linearFlag = truncateToInt(last[kSlotLinearFlag]);
  const int calibrationCols = truncateToInt(last[kSlotStackColumns]);
  const int calibrationRows = truncateToInt(last[kSlotStackRows]);
  const double calibrationSpacingX = last[kSlotStackSpacingX];
  const double calibrationSpacingY = last[kSlotStackSpacingY];

  // The final row describes the calibration stack and stays as read.
  for (size_t i = 0; i + 1 < rows.size(); ++i) {
    std::vector<double>& row = rows[i];
    row[kSlotCentreX] =
        centreInStack(row[kSlotCentreX], calibrationSpacingX, calibrationCols, spacingX, numCols);
    row[kSlotCentreY] =
        centreInStack(row[kSlotCentreY], calibrationSpacingY, calibrationRows, spacingY, numRows);
    // Only the model the run used has its translation in physical units.
    if (linearFlag != 0) {
      row[kSlotLinearTranslationX] /= spacingX;
      row[kSlotLinearTranslationY] /= spacingY;
    } else {
      row[kSlotRadialTranslationX] /= spacingX;
      row[kSlotRadialTranslationY] /= spacingY;
    }
    row[kSlotZOffset] /= spacingZ;
  }
}
