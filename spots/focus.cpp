// Focus section search: every Z section of a channel is cut into a grid of
// sub-regions, each region's contrast is measured from the spread between its
// darkest and brightest twentieth, each region votes for its sharpest
// section, and a trimmed mean of the votes is the answer. Two sections of
// floats are held, one measured on all threads while the next is read; the
// stack is never loaded whole.

#include <emmintrin.h>
#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <vector>

#include "app/settings.h"
#include "imsubs/imsubs.h"
#include "spots/internal.h"
#include "spots/spots.h"

namespace {

constexpr int kContrastBins = 100;
// Bins whose mean level stands for the darkest and brightest twentieth.
constexpr int kLowBinFirst = 0, kLowBinLast = 4;
constexpr int kHighBinFirst = 95, kHighBinLast = 99;

// The votes summed after the smallest and the largest of the sixteen drop
// out. Fixed, not derived from the grid: only the 4 by 4 grid is used.
constexpr int kTrimmedVotes = 14;

constexpr double kRunningMaxStart = -1.0;
constexpr double kRunningMinStart = 1.7976931348623157e308;

constexpr int kFocusTimePoint = 0;

// Ends the run after a failing image call.
[[noreturn]] void stopReading(int stream, const char* technicalLine) {
  puts("Reading QF Input File Failed\n");
  puts("Calibration Stopped");
  fflush(stdout);
  fputs(technicalLine, stderr);
  IMClose(stream);
  exit(1);
}

[[noreturn]] void failRead(const char* technicalLine) {
  throw FocusReadFailure{technicalLine};
}

// Count-weighted mean bin centre over bins first to last.
double meanBinLevel(const std::vector<double>& centers, const std::vector<double>& counts,
                    int first, int last) {
  double weighted = 0.0, total = 0.0;
  for (int j = first; j <= last; ++j) {
    weighted += centers[j] * counts[j];
    total += counts[j];
  }
  return weighted / total;
}

// Bin of `v` among nondecreasing edges, found from an arithmetic guess and
// moved to the one bin the edge test accepts; -1 when no bin holds `v`.
int findBin(double v, const std::vector<double>& edges, double lowest, double width, int numBins) {
  if (v == edges[0]) return 0;
  const double guess = std::floor((v - lowest) / width);
  int j = 0;
  if (guess >= numBins - 1) {
    j = numBins - 1;
  } else if (guess >= 0.0) {
    j = static_cast<int>(guess);
  }
  while (j > 0 && !(v > edges[j])) --j;
  while (j < numBins - 1 && !(v <= edges[j + 1])) ++j;
  return (v > edges[j] && v <= edges[j + 1]) ? j : -1;
}

// Counts every value into its bin among finite, nondecreasing edges. The
// guess is a product, not a quotient and a floor, and one step either way
// settles almost every value; any other goes to the stepwise search, so the
// bins are those the edge test defines whatever the guess. Consecutive values
// mostly share a bin, so four interleaved integer tallies keep the increments
// from waiting on each other; counts far below 2^53 sum exactly.
void countOrderedBins(const double* values, std::size_t count, const std::vector<double>& edges,
                      double lowest, double width, std::vector<double>& binCounts) {
  constexpr std::size_t kTallies = 4;
  const int numBins = static_cast<int>(binCounts.size());
  const std::size_t stride = binCounts.size();
  std::vector<std::uint64_t> tally(kTallies * stride, 0);
  const double inverse = 1.0 / width;
  const double top = numBins - 1;
  for (std::size_t k = 0; k < count; ++k) {
    const double v = values[k];
    // NaN and out-of-range guesses clamp into [0, top].
    int j = static_cast<int>(std::max(0.0, std::min((v - lowest) * inverse, top)));
    if (!(v > edges[j])) {
      j -= j > 0;
    } else if (j < numBins - 1 && v > edges[j + 1]) {
      ++j;
    }
    if (!(v > edges[j] && v <= edges[j + 1])) j = findBin(v, edges, lowest, width, numBins);
    if (j >= 0) ++tally[(k % kTallies) * stride + j];
  }
  for (std::size_t j = 0; j < stride; ++j) {
    std::uint64_t sum = 0;
    for (std::size_t t = 0; t < kTallies; ++t) sum += tally[t * stride + j];
    binCounts[j] = static_cast<double>(sum);
  }
}

// Copies `cols` pixels from `first` of each of `rows` rows from `top` as
// doubles and folds them into the running extremes, which NaN never enters.
// Two-lane registers keep the comparisons from waiting on each other; the
// lanes can disagree with one running pair only on the sign of a zero
// extreme, which changes neither the range nor any normalised value's bin.
void widenWithExtremes(float** section, int top, int rows, std::size_t first, int cols, double* out,
                       double* minimum, double* maximum) {
  __m128d high = _mm_set1_pd(*maximum), low = _mm_set1_pd(*minimum);
  double highTail = *maximum, lowTail = *minimum;
  for (int r = top; r < top + rows; ++r) {
    const float* row = section[r] + first;
    int c = 0;
    for (; c + 2 <= cols; c += 2) {
      const __m128i pair = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + c));
      const __m128d p = _mm_cvtps_pd(_mm_castsi128_ps(pair));
      _mm_storeu_pd(out + c, p);
      high = _mm_max_pd(p, high);  // p > high ? p : high
      low = _mm_min_pd(p, low);    // p < low ? p : low
    }
    for (; c < cols; ++c) {
      const double p = row[c];
      out[c] = p;
      if (p > highTail) highTail = p;
      if (p < lowTail) lowTail = p;
    }
    out += cols;
  }
  double highs[2], lows[2];
  _mm_storeu_pd(highs, high);
  _mm_storeu_pd(lows, low);
  *maximum = std::max({highs[0], highs[1], highTail});
  *minimum = std::min({lows[0], lows[1], lowTail});
}

// Maps every value v to (v - minimum) * scale and gives the span an ascending
// sort with NaN last would give: lowest and highest number, highest NaN when
// a value is NaN, both NaN when no value is a number.
void normalizeWithSpan(std::vector<double>& values, double minimum, double scale, double* lowest,
                       double* highest) {
  const __m128d shift = _mm_set1_pd(minimum), factor = _mm_set1_pd(scale);
  const double inf = std::numeric_limits<double>::infinity();
  __m128d low = _mm_set1_pd(inf), high = _mm_set1_pd(-inf);
  __m128d nan = _mm_setzero_pd(), number = _mm_setzero_pd();
  std::size_t k = 0;
  const std::size_t n = values.size();
  double* v = values.data();
  for (; k + 2 <= n; k += 2) {
    const __m128d p = _mm_mul_pd(_mm_sub_pd(_mm_loadu_pd(v + k), shift), factor);
    _mm_storeu_pd(v + k, p);
    low = _mm_min_pd(p, low);
    high = _mm_max_pd(p, high);
    nan = _mm_or_pd(nan, _mm_cmpunord_pd(p, p));
    number = _mm_or_pd(number, _mm_cmpord_pd(p, p));
  }
  double lows[2], highs[2];
  _mm_storeu_pd(lows, low);
  _mm_storeu_pd(highs, high);
  bool anyNan = _mm_movemask_pd(nan) != 0;
  bool anyNumber = _mm_movemask_pd(number) != 0;
  double lo = std::min(lows[0], lows[1]), hi = std::max(highs[0], highs[1]);
  for (; k < n; ++k) {
    const double p = (v[k] - minimum) * scale;
    v[k] = p;
    if (p != p) {
      anyNan = true;
      continue;
    }
    anyNumber = true;
    lo = std::min(lo, p);
    hi = std::max(hi, p);
  }
  *lowest = anyNumber ? lo : NAN;
  *highest = anyNumber && !anyNan ? hi : NAN;
}

// Position of the largest value; strict comparison, so the first one wins.
int positionOfMaximum(const std::vector<double>& series) {
  int best = 0;
  for (int z = 1; z < static_cast<int>(series.size()); ++z) {
    if (series[z] > series[best]) best = z;
  }
  return best;
}

// Trimmed mean of the regions' votes, rounded half up. Grids of fewer than
// sixteen regions sum what lies between the smallest and the largest vote,
// and with fewer than three regions there is nothing to trim.
int trimmedMeanVote(std::vector<int> votes) {
  std::sort(votes.begin(), votes.end());
  const int numRegions = static_cast<int>(votes.size());
  if (numRegions < 3) {
    double sum = 0.0;
    for (int v : votes) sum += v;
    return numRegions == 0 ? 0 : static_cast<int>(std::floor(sum / numRegions + 0.5));
  }
  const int last = std::min(kTrimmedVotes, numRegions - 2);
  int sum = 0;
  for (int k = 1; k <= last; ++k) sum += votes[k];
  return static_cast<int>(std::floor(sum / (numRegions - 2.0) + 0.5));
}

// Scratch of one thread's region measurements, reused from region to region.
struct RegionScratch {
  std::vector<double> values, binCenters, binCounts;
};

// Contrast of region number `region` (block row region / columnDivisions,
// block column region % columnDivisions): the spread between the mean levels
// of its darkest and brightest twentieth, in image units; 0.0 for a flat
// region.
double regionContrast(float** section, int numRows, int numCols, int rowDivisions,
                      int columnDivisions, int region, RegionScratch& s) {
  const int regionRows = numRows / rowDivisions;
  const int regionCols = numCols / columnDivisions;
  const int i = region / columnDivisions;
  const int j = region % columnDivisions;
  s.binCenters.clear();
  s.binCounts.clear();
  // A region smaller than a pixel has nothing to measure, like a flat one.
  if (regionRows <= 0 || regionCols <= 0) return 0.0;
  s.values.resize(static_cast<std::size_t>(regionRows) * static_cast<std::size_t>(regionCols));
  double maximum = kRunningMaxStart, minimum = kRunningMinStart;
  widenWithExtremes(section, i * regionRows, regionRows, static_cast<std::size_t>(j) * regionCols,
                    regionCols, s.values.data(), &minimum, &maximum);
  const double range = maximum - minimum;
  if (range == 0.0) return 0.0;
  double lowest, highest;
  normalizeWithSpan(s.values, minimum, 1.0 / range, &lowest, &highest);
  binValues(s.values.data(), s.values.size(), lowest, highest, kContrastBins, s.binCenters,
            s.binCounts);
  const double low = meanBinLevel(s.binCenters, s.binCounts, kLowBinFirst, kLowBinLast);
  const double high = meanBinLevel(s.binCenters, s.binCounts, kHighBinFirst, kHighBinLast);
  return (high - low) * range;
}

// One section of floats with its row table.
struct SectionBuffer {
  std::vector<float> pixels;
  std::vector<float*> rows;
  SectionBuffer(int numRows, int numCols)
      : pixels(static_cast<std::size_t>(numRows) * static_cast<std::size_t>(numCols)),
        rows(numRows) {
    for (int r = 0; r < numRows; ++r) {
      rows[r] = pixels.data() + static_cast<std::size_t>(r) * numCols;
    }
  }
};

void readFocusSection(int stream, int z, int channel, int time, SectionBuffer& buffer) {
  if (IMPosnZWT(stream, z, channel, time) != 0) {
    failRead("getFocusImageIndexPerChannel:  IMPosnZWT failed.\n");
  }
  if (readSectionAsFloats(stream, buffer.pixels.data()) != 0) {
    failRead("getFocusImageIndexPerChannel: IMRdSec failed.\n");
  }
}

}  // namespace

void binValues(const double* values, std::size_t count, double lowest, double highest, int numBins,
               std::vector<double>& binCenters, std::vector<double>& binCounts) {
  if (numBins <= 0) {  // no bins, nothing to count
    binCounts.clear();
    return;
  }
  if (lowest == highest) {
    // One common value: a span numBins wide, so that every bin is 1.0 wide.
    lowest = lowest - std::floor(0.5 * numBins) - 0.5;
    highest = std::ceil(0.5 * numBins) + highest - 0.5;
  }
  const double width = (highest - lowest) / numBins;
  const double half = 0.5 * width;
  std::vector<double> edges(numBins + 1);
  for (int i = 0; i <= numBins; ++i) {
    edges[i] = i * width + lowest;
    if (i < numBins) binCenters.push_back(edges[i] + half);
  }
  edges[numBins] = highest;
  binCounts.assign(numBins, 0.0);

  // The arithmetic guess needs finite edges in order; they are, unless the
  // span overflowed or held a NaN, and then every value is scanned against
  // every bin as the definition reads.
  const bool ordered = std::isfinite(lowest) && std::isfinite(highest) && std::isfinite(width) &&
                       std::is_sorted(edges.begin(), edges.end());
  if (ordered) {
    countOrderedBins(values, count, edges, lowest, width, binCounts);
    return;
  }
  for (std::size_t k = 0; k < count; ++k) {
    const double v = values[k];
    if (v == edges[0]) {
      binCounts[0] += 1.0;
      continue;
    }
    for (int j = 0; j < numBins; ++j) {
      if (v > edges[j] && v <= edges[j + 1]) binCounts[j] += 1.0;
    }
  }
}

void histgram(std::vector<double>& data, int numBins, std::vector<double>& binCenters,
              std::vector<double>& binCounts) {
  assert(binCenters.empty());
  sortAscendingNanLast(data);
  // No data to span: bin as if every value were 0.0.
  const double lowest = data.empty() ? 0.0 : data.front();
  const double highest = data.empty() ? 0.0 : data.back();
  binValues(data.data(), data.size(), lowest, highest, numBins, binCenters, binCounts);
}

void calculateSubRegionContrast(float** section, int numRows, int numCols, int rowDivisions,
                                int columnDivisions, std::vector<double>& contrast) {
  if (rowDivisions <= 0 || columnDivisions <= 0) return;
  const int numRegions = rowDivisions * columnDivisions;
  const std::size_t first = contrast.size();
  contrast.resize(first + numRegions);
  double* out = contrast.data() + first;
  // Regions are independent; each value lands in its own place, so the order
  // of the results is the region order whichever thread measured them.
  RegionFailure failure;
#pragma omp parallel if (!omp_in_parallel() && numRegions > 1)
  {
    RegionScratch scratch;
#pragma omp for schedule(dynamic, 1)
    for (int region = 0; region < numRegions; ++region) {
      failure.guard([&] {
        out[region] = regionContrast(section, numRows, numCols, rowDivisions, columnDivisions,
                                     region, scratch);
      });
    }
  }
  failure.rethrow();
}

int findFocusIndex(int stream, int channel, int time, int numZ, int numRows, int numCols,
                   int rowDivisions, int columnDivisions) {
  assert(numRows >= 0 && numCols >= 0);
  // A grid without rows or columns has no region and measures nothing.
  const int numRegions =
      rowDivisions > 0 && columnDivisions > 0 ? rowDivisions * columnDivisions : 0;
  const std::size_t stride = static_cast<std::size_t>(numRegions);
  std::vector<double> contrast(static_cast<std::size_t>(std::max(numZ, 0)) * stride);

  // Each thread takes the next section, reads it and measures all its
  // regions in a buffer of its own. Taking and reading happen under one lock:
  // the library is used by one thread at a time and sections are read in
  // order. One region for the whole stack, so no thread waits per section.
  std::mutex library;
  int next = 0;
  bool readFailed = false;  // after a failed read no thread reads on
  RegionFailure failure;
#pragma omp parallel if (!omp_in_parallel() && numZ > 1)
  failure.guard([&] {
    SectionBuffer buffer(numRows, numCols);
    RegionScratch scratch;
    for (;;) {
      int z = 0;
      {
        const std::lock_guard<std::mutex> lock(library);
        z = next++;
        if (z >= numZ || readFailed) return;
        try {
          readFocusSection(stream, z, channel, time, buffer);
        } catch (...) {
          readFailed = true;
          throw;
        }
      }
      for (int region = 0; region < numRegions; ++region) {
        contrast[z * stride + region] = regionContrast(
            buffer.rows.data(), numRows, numCols, rowDivisions, columnDivisions, region, scratch);
      }
    }
  });
  failure.rethrow();

  std::vector<int> votes;
  std::vector<double> series(std::max(numZ, 0));
  for (int region = 0; region < numRegions; ++region) {
    for (int z = 0; z < numZ; ++z) series[z] = contrast[z * stride + region];
    votes.push_back(numZ > 0 ? positionOfMaximum(series) : 0);
  }
  return trimmedMeanVote(votes);
}

void findFocusSection(int stream, int channel, int numZ, int numRows, int numCols,
                      int rowDivisions, int columnDivisions, float* section, int* focusIndex) {
  const int index = findFocusIndex(stream, channel, kFocusTimePoint, numZ, numRows, numCols,
                                   rowDivisions, columnDivisions);
  *focusIndex = index;
  if (IMPosnZWT(stream, index, channel, kFocusTimePoint) != 0) {
    failRead("getFocusImagePerChannel: IMPosnZWT failed.\n");
  }
  if (readSectionAsFloats(stream, section) != 0) {
    failRead("getFocusImagePerChannel: IMRdSec failed.\n");
  }
}

int getFocusImageIndexPerChannel(int stream, int channel, int time, int numZ, int numRows,
                                 int numCols, int rowDivisions, int columnDivisions) {
  try {
    return findFocusIndex(stream, channel, time, numZ, numRows, numCols, rowDivisions,
                          columnDivisions);
  } catch (const FocusReadFailure& failure) {
    stopReading(stream, failure.technicalLine);
  }
}

void getFocusImagePerChannel(int stream, int channel, int /*time*/, int numZ, int numRows,
                             int numCols, int rowDivisions, int columnDivisions, float* section,
                             int* focusIndex) {
  // The time point asked for is ignored on purpose: focus is searched and
  // read at the first time point.
  try {
    findFocusSection(stream, channel, numZ, numRows, numCols, rowDivisions, columnDivisions,
                     section, focusIndex);
  } catch (const FocusReadFailure& failure) {
    stopReading(stream, failure.technicalLine);
  }
}
