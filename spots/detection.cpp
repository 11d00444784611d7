// Image-plane operations that make bright compact spots stand alone: the
// cleaning of a focus section, 4-connected blob listing, regional maxima and
// window moments. Plain functions on caller-owned buffers; none keeps state.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "app/settings.h"
#include "spots/internal.h"
#include "spots/spots.h"

namespace {

bool isNan(double v) {
  return v != v;
}

// Moves NaN values behind the numbers; returns the number of numbers.
std::size_t partitionNumbersFirst(std::vector<double>& values) {
  auto firstNan = std::partition(values.begin(), values.end(), [](double v) { return !isNan(v); });
  return static_cast<std::size_t>(firstNan - values.begin());
}

// Centre and spread along one axis from its clipped profile; positions count
// from 1. `fallbackSize` is the axis length used when the profile is empty.
void profileMoments(std::vector<double>& sums, int fallbackSize, double* centre, double* spread) {
  double weight = 0.0;
  double first = 0.0;
  for (std::size_t k = 0; k < sums.size(); ++k) {
    if (sums[k] <= 0.0) sums[k] = 0.0;
    weight += sums[k];
    first += sums[k] * static_cast<double>(k + 1);
  }
  if (weight > 0.0) {
    *centre = first / weight;
    double second = 0.0;
    for (std::size_t k = 0; k < sums.size(); ++k) {
      double d = static_cast<double>(k + 1) - *centre;
      second += d * d * sums[k];
    }
    *spread = std::sqrt(second / weight);
  } else {
    *centre = 0.5 * fallbackSize;
    *spread = fallbackSize;
  }
}

}  // namespace

void sortAscendingNanLast(std::vector<double>& values) {
  std::size_t numbers = partitionNumbersFirst(values);
  std::sort(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(numbers));
}

double percentileValue(std::vector<double>& values, double fraction) {
  assert(!values.empty());
  const std::size_t n = values.size();
  double position = std::floor(static_cast<double>(n) * fraction);
  // A fraction of 1.0 or more, or NaN, would read past the end: it takes the
  // largest value instead, so that nothing lies strictly above the result.
  std::size_t k = n - 1;
  if (position >= 0.0 && position < static_cast<double>(n)) {
    k = static_cast<std::size_t>(position);
  } else if (position < 0.0) {
    k = 0;
  }
  std::size_t numbers = partitionNumbersFirst(values);
  if (k >= numbers) return values[k];  // a NaN: no pixel compares above it
  // Selection gives exactly the element a full sort would put at k.
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k),
                   values.begin() + static_cast<std::ptrdiff_t>(numbers));
  return values[k];
}

void prepareFocusImage(double* image, int numRows, int numCols) {
  if (numRows <= 0 || numCols <= 0) return;
  const std::size_t n = static_cast<std::size_t>(numRows) * static_cast<std::size_t>(numCols);

  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += image[i];
  const double mean = sum / static_cast<double>(n);

  std::vector<double> sorted(image, image + n);
  const double threshold = percentileValue(sorted, gridThreshold);
  sorted = std::vector<double>();

  std::vector<char> notAboveMean(n), largeBlob(n), keptBlob(n);
  for (std::size_t i = 0; i < n; ++i) {
    notAboveMean[i] = !(image[i] > mean);
    largeBlob[i] = keptBlob[i] = image[i] > threshold;
  }

  std::vector<std::vector<int>> components;
  connectedComponentLabelingFour(largeBlob.data(), components, numRows, numCols);
  for (const std::vector<int>& component : components) {
    const int size = static_cast<int>(component.size());
    if (size <= kMaxSpotPixels) {
      for (int i : component) largeBlob[i] = 0;
    }
    if (size < kMinSpotPixels) {
      for (int i : component) keptBlob[i] = 0;
    }
  }

  // One formula for every pixel, kept as written also when the threshold lies
  // below the mean: pixels just above the mean become 0.0, under the level the
  // background is lifted to, so each kept spot sits in a moat of zeros.
  for (std::size_t i = 0; i < n; ++i) {
    const double keep = static_cast<double>(keptBlob[i] - largeBlob[i]);
    const double lift = static_cast<double>(notAboveMean[i] + largeBlob[i]);
    image[i] = keep * image[i] + lift * mean;
  }
}

void connectedComponentLabelingFour(const char* mask, std::vector<std::vector<int>>& components,
                                    int numRows, int numCols) {
  if (numRows <= 0 || numCols <= 0) return;
  const std::size_t n = static_cast<std::size_t>(numRows) * static_cast<std::size_t>(numCols);
  std::vector<int> labels(n, 0);
  int nextLabel = 1;
  std::vector<std::pair<int, int>> stack;  // explicit: a blob may cover the image
  std::vector<int> component;
  static const int kRowStep[4] = {-1, 0, 1, 0};
  static const int kColStep[4] = {0, 1, 0, -1};

  for (int row = 0; row < numRows; ++row) {
    for (int col = 0; col < numCols; ++col) {
      const std::size_t start = static_cast<std::size_t>(row) * numCols + col;
      if (mask[start] == 0 || labels[start] != 0) continue;
      component.clear();
      stack.emplace_back(row, col);
      labels[start] = nextLabel;
      while (!stack.empty()) {
        const auto [r, c] = stack.back();
        stack.pop_back();
        component.push_back(r * numCols + c);
        for (int k = 0; k < 4; ++k) {
          const int nr = r + kRowStep[k];
          const int nc = c + kColStep[k];
          if (nr < 0 || nr >= numRows || nc < 0 || nc >= numCols) continue;
          const std::size_t q = static_cast<std::size_t>(nr) * numCols + nc;
          // Labelled on the push, so that no pixel enters the stack twice.
          if (mask[q] == 1 && labels[q] == 0) {
            labels[q] = nextLabel;
            stack.emplace_back(nr, nc);
          }
        }
      }
      ++nextLabel;
      components.push_back(component);
    }
  }
}

void imageRegionalMax(double* image, int numRows, int numCols, char* regionalMax) {
  if (numRows <= 0 || numCols <= 0) return;
  const std::int64_t n = static_cast<std::int64_t>(numRows) * numCols;
  const std::int64_t offsets[8] = {-numCols - 1, -numCols, -numCols + 1, -1, 1,
                                   numCols - 1,  numCols,  numCols + 1};
  std::fill(regionalMax, regionalMax + n, 1);
  std::vector<std::int64_t> stack;

  for (std::int64_t i = 0; i < n; ++i) {
    if (regionalMax[i] == 0) continue;
    const double v = image[i];
    bool higherNeighbour = false;
    // The bounds test looks at the linear index alone, so the first pixel of
    // a row neighbours the last pixel of the row above. This wrap is intended.
    for (std::int64_t offset : offsets) {
      const std::int64_t q = i + offset;
      if (q >= 0 && q < n && image[q] > v) {
        higherNeighbour = true;
        break;
      }
    }
    if (!higherNeighbour) continue;

    // Not a maximum, and neither is anything joined to it at the same level.
    regionalMax[i] = 0;
    stack.push_back(i);
    while (!stack.empty()) {
      const std::int64_t p = stack.back();
      stack.pop_back();
      for (std::int64_t offset : offsets) {
        const std::int64_t q = p + offset;
        if (q >= 0 && q < n && regionalMax[q] != 0 && image[q] == v) {
          regionalMax[q] = 0;
          stack.push_back(q);
        }
      }
    }
  }
}

void calculateCenterOfMass(double* image, int numRows, int numCols, double* result) {
  assert(numRows > 0 && numCols > 0);
  double total = 0.0;
  std::vector<double> rowSums(numRows, 0.0), colSums(numCols, 0.0);
  for (int r = 0; r < numRows; ++r) {
    for (int c = 0; c < numCols; ++c) {
      const double p = image[static_cast<std::size_t>(r) * numCols + c];
      total += p;
      rowSums[r] += p;
      colSums[c] += p;
    }
  }
  double rowCentre, colCentre, rowSpread, colSpread;
  profileMoments(colSums, numCols, &colCentre, &colSpread);
  profileMoments(rowSums, numRows, &rowCentre, &rowSpread);
  result[0] = rowCentre;
  result[1] = colCentre;
  result[2] = rowSpread;
  result[3] = colSpread;
  result[4] = total * (1.0 / (numRows * numCols));
}
