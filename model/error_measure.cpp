// The error measure of a fit: a trimmed mean and deviation of the distances
// between two matched point lists.
#include <algorithm>
#include <cassert>
#include <cmath>

#include "model/model.h"

namespace {

// About a tenth of the sorted distances drops out at each end.
constexpr double kTrimLow = 0.1;
constexpr double kTrimHigh = 0.9;

}  // namespace

void calculateError(const std::vector<CorvanePoint2D>& first,
                    const std::vector<CorvanePoint2D>& second, double* meanError,
                    double* errorDeviation) {
  assert(!first.empty());
  assert(second.size() >= first.size());
  const int count = static_cast<int>(first.size());
  std::vector<double> distances(count);
  for (int i = 0; i < count; ++i) {
    const double dx = first[i].x - second[i].x;
    const double dy = first[i].y - second[i].y;
    distances[i] = std::sqrt(dx * dx + dy * dy);
  }
  std::sort(distances.begin(), distances.end());

  // `high` is a position, not a count: the top end keeps one position more
  // than the bottom end.
  const int low = static_cast<int>(std::ceil(count * kTrimLow));
  const int high = static_cast<int>(std::floor(count * kTrimHigh));

  // The accumulator is an integer and the fraction is cut after every
  // addition, so a distance below 1.0 adds nothing. This coarse measure is
  // intended and kept as it is.
  int accumulator = 0;
  for (int i = low; i <= high; ++i) {
    accumulator = static_cast<int>(static_cast<double>(accumulator) + distances[i]);
  }
  // In double, so that no distance used (count 1) gives 0 / 0, a NaN.
  *meanError = static_cast<double>(accumulator) / static_cast<double>(high - low + 1);

  // The deviation uses the untruncated distances; its divisor is one less than
  // the number of terms.
  double sumOfSquares = 0.0;
  for (int i = low; i <= high; ++i) {
    const double offset = distances[i] - *meanError;
    sumOfSquares += offset * offset;
  }
  *errorDeviation = std::sqrt(sumOfSquares / static_cast<double>(high - low));
}
