// The measurements behind the advice: blob counts under the cleaning rules,
// the candidates that the first pass of calibration can pair, and the model
// family that the pairs call for. Every rule comes from the spot library
// itself (percentile, blob sizes, border, capture window, moments), so that
// the counts are the calibration's own.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "app/settings.h"
#include "spots/spots.h"
#include "tools/assess/advise.h"

namespace advise {

namespace {

// The focus search's grid.
constexpr int kFocusDivisions = 4;

// Candidates closer than this to each other are one spot: the pixels of a
// flat top, or two maxima of one blob.
constexpr int kSameSpotPixels = 8;

// Half width of the window whose moments give a spot's centre: three
// sigmas of the widest in-focus spots (about 2.6 pixels in the far red).
constexpr int kCentreHalfWidth = 8;

// More candidates than one per this many pixels means the degenerate case in
// which every pixel is one.
constexpr int kDegenerateShare = 64;

// A more general model is advised only when it moves some pair by more than
// this: window moments of wide spots wander by a tenth of a pixel, and the
// more general fits of calibration are the less robust ones.
constexpr double kModelGainPx = 0.25;
// Fewer pairs than this cannot tell a second-order field from noise.
constexpr int kMinPairsForModel = 24;

std::vector<double*> rowPointers(std::vector<double>& plane, int numRows, int numCols) {
  std::vector<double*> rows(static_cast<std::size_t>(numRows));
  for (int r = 0; r < numRows; ++r) rows[r] = plane.data() + static_cast<std::size_t>(r) * numCols;
  return rows;
}

double imageMean(const std::vector<double>& plane) {
  double sum = 0.0;
  for (double v : plane) sum += v;
  return sum / static_cast<double>(plane.size());
}

bool insideCandidateBand(int row, int col, int numRows, int numCols) {
  return row >= kCandidateBorder && row <= numRows - kCandidateBorder - 1 &&
         col >= kCandidateBorder && col <= numCols - kCandidateBorder - 1;
}

double median(std::vector<double> values) {
  if (values.empty()) return 0.0;
  const std::size_t mid = values.size() / 2;
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(mid), values.end());
  return values[mid];
}

// A spot of a prepared section: its first candidate in raster order.
struct Candidate {
  int row, col;
};

// Candidates bucketed on a grid of cells as wide as the capture window, so
// that the spots near a position are found among nine cells.
class SpotGrid {
 public:
  SpotGrid(int numRows, int numCols)
      : cellCols_(numCols / kCell + 1), cells_(static_cast<std::size_t>(numRows / kCell + 1) *
                                               static_cast<std::size_t>(numCols / kCell + 1)) {}
  void add(const Candidate& c) { cells_[cellOf(c.row, c.col)].push_back(c); }
  // The spots within `reach` of (row, col) on both axes.
  std::vector<Candidate> near(int row, int col, int reach) const {
    std::vector<Candidate> found;
    const int cr = row / kCell, cc = col / kCell;
    for (int r = cr - 1; r <= cr + 1; ++r) {
      for (int c = cc - 1; c <= cc + 1; ++c) {
        if (r < 0 || c < 0 || c >= cellCols_) continue;
        const std::size_t cell = static_cast<std::size_t>(r) * cellCols_ + c;
        if (cell >= cells_.size()) continue;
        for (const Candidate& s : cells_[cell])
          if (std::abs(s.row - row) <= reach && std::abs(s.col - col) <= reach) found.push_back(s);
      }
    }
    return found;
  }

 private:
  static constexpr int kCell = kSpotSearchHalfWidth + 1;
  std::size_t cellOf(int row, int col) const {
    return static_cast<std::size_t>(row / kCell) * cellCols_ + col / kCell;
  }
  int cellCols_;
  std::vector<std::vector<Candidate>> cells_;
};

// The spots of a prepared section, candidates within kSameSpotPixels of an
// earlier one merged into it. `*candidates` receives the raw count.
std::vector<Candidate> spotsOf(double** rows, int numRows, int numCols, SpotGrid* grid,
                               int* candidates) {
  std::vector<int> r, c;
  findSpotCandidates(rows, numRows, numCols, r, c);
  *candidates = static_cast<int>(r.size());
  std::vector<Candidate> spots;
  // With nothing bright inside the border every pixel is a candidate and
  // none is a spot: calibration then fits noise everywhere.
  if (r.size() > static_cast<std::size_t>(numRows) * numCols / kDegenerateShare) return spots;
  for (std::size_t k = 0; k < r.size(); ++k) {
    if (!grid->near(r[k], c[k], kSameSpotPixels).empty()) continue;
    spots.push_back({r[k], c[k]});
    grid->add(spots.back());
  }
  return spots;
}

// Centre (x, y) of the spot at (row, col): moments of the section's own
// pixels over the image mean in a window around it. The prepared section
// would pull the centre to the window's middle through its level field.
void centreOf(const std::vector<double>& plane, double mean, int numRows, int numCols,
              const Candidate& s, double* x, double* y) {
  const int r0 = std::max(s.row - kCentreHalfWidth, 0);
  const int r1 = std::min(s.row + kCentreHalfWidth, numRows - 1);
  const int c0 = std::max(s.col - kCentreHalfWidth, 0);
  const int c1 = std::min(s.col + kCentreHalfWidth, numCols - 1);
  std::vector<double> window;
  for (int r = r0; r <= r1; ++r) {
    for (int c = c0; c <= c1; ++c)
      window.push_back(std::max(0.0, plane[static_cast<std::size_t>(r) * numCols + c] - mean));
  }
  double moments[5];
  calculateCenterOfMass(window.data(), r1 - r0 + 1, c1 - c0 + 1, moments);
  *y = r0 + moments[0] - 1.0;  // moments count from 1
  *x = c0 + moments[1] - 1.0;
}

// Least squares by the normal equations, small systems only: rows of `a`
// (each `n` long) against `b`. Returns the solution, zeros when singular.
std::vector<double> leastSquares(const std::vector<std::vector<double>>& a,
                                 const std::vector<double>& b, int n) {
  std::vector<std::vector<double>> m(n, std::vector<double>(n + 1, 0.0));
  for (std::size_t k = 0; k < a.size(); ++k) {
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) m[i][j] += a[k][i] * a[k][j];
      m[i][n] += a[k][i] * b[k];
    }
  }
  for (int col = 0; col < n; ++col) {  // Gauss-Jordan with partial pivoting
    int pivot = col;
    for (int r = col + 1; r < n; ++r)
      if (std::fabs(m[r][col]) > std::fabs(m[pivot][col])) pivot = r;
    if (std::fabs(m[pivot][col]) < 1e-12) return std::vector<double>(n, 0.0);
    std::swap(m[pivot], m[col]);
    for (int r = 0; r < n; ++r) {
      if (r == col) continue;
      const double f = m[r][col] / m[col][col];
      for (int j = col; j <= n; ++j) m[r][j] -= f * m[col][j];
    }
  }
  std::vector<double> x(n);
  for (int i = 0; i < n; ++i) x[i] = m[i][n] / m[i][i];
  return x;
}

// Displacements predicted at the pairs by a similarity (the radial family),
// an affine map (the linear family) or a second-order map (linear with the
// high-order terms), fitted to the pairs. Coordinates are taken about the
// middle of the field and in half widths, for a well-conditioned system.
std::vector<CentrePair> fitted(const std::vector<CentrePair>& pairs, int numRows, int numCols,
                               ModelAdvice family) {
  const double cx = 0.5 * numCols, cy = 0.5 * numRows, s = 0.5 * std::max(numRows, numCols);
  auto terms = [&](const CentrePair& p) {
    const double u = (p.refX - cx) / s, v = (p.refY - cy) / s;
    if (family == ModelAdvice::kLinear) return std::vector<double>{1.0, u, v};
    return std::vector<double>{1.0, u, v, u * u, u * v, v * v};
  };
  std::vector<CentrePair> out = pairs;
  if (family == ModelAdvice::kRadial) {
    std::vector<std::vector<double>> a;
    std::vector<double> b;
    for (const CentrePair& p : pairs) {
      const double u = (p.refX - cx) / s, v = (p.refY - cy) / s;
      a.push_back({u, -v, 1.0, 0.0});
      b.push_back((p.x - cx) / s);
      a.push_back({v, u, 0.0, 1.0});
      b.push_back((p.y - cy) / s);
    }
    const std::vector<double> q = leastSquares(a, b, 4);
    for (std::size_t k = 0; k < pairs.size(); ++k) {
      out[k].x = cx + s * (a[2 * k][0] * q[0] + a[2 * k][1] * q[1] + q[2]);
      out[k].y = cy + s * (a[2 * k + 1][0] * q[0] + a[2 * k + 1][1] * q[1] + q[3]);
    }
    return out;
  }
  std::vector<std::vector<double>> a;
  std::vector<double> bx, by;
  for (const CentrePair& p : pairs) {
    a.push_back(terms(p));
    bx.push_back(p.x);
    by.push_back(p.y);
  }
  const int n = static_cast<int>(a.front().size());
  const std::vector<double> qx = leastSquares(a, bx, n), qy = leastSquares(a, by, n);
  for (std::size_t k = 0; k < pairs.size(); ++k) {
    out[k].x = out[k].y = 0.0;
    for (int i = 0; i < n; ++i) {
      out[k].x += a[k][i] * qx[i];
      out[k].y += a[k][i] * qy[i];
    }
  }
  return out;
}

double largestChange(const std::vector<CentrePair>& a, const std::vector<CentrePair>& b) {
  double largest = 0.0;
  for (std::size_t k = 0; k < a.size(); ++k)
    largest = std::max(largest, std::hypot(a[k].x - b[k].x, a[k].y - b[k].y));
  return largest;
}

}  // namespace

BlobCounts countBlobs(const Channel& channel, int numRows, int numCols) {
  const std::vector<double>& plane = channel.plane;
  BlobCounts counts;
  const double mean = imageMean(plane);
  std::vector<double> sorted = plane;
  const double threshold = percentileValue(sorted, gridThreshold);
  counts.levelOverNoise = channel.noise > 0.0 ? (threshold - channel.background) / channel.noise : 0.0;
  std::vector<char> bright(plane.size());
  for (std::size_t i = 0; i < plane.size(); ++i) bright[i] = plane[i] > threshold;
  std::vector<std::vector<int>> blobs;
  connectedComponentLabelingFour(bright.data(), blobs, numRows, numCols);

  std::vector<char> regionHasSpot(kFocusDivisions * kFocusDivisions, 0);
  const int regionRows = numRows / kFocusDivisions, regionCols = numCols / kFocusDivisions;
  std::vector<double> peaks;
  for (const std::vector<int>& blob : blobs) {
    const int size = static_cast<int>(blob.size());
    if (size < kMinSpotPixels) {
      ++counts.tooSmall;
      continue;
    }
    if (size > kMaxSpotPixels) {
      ++counts.tooLarge;
      continue;
    }
    ++counts.kept;
    const int peak = *std::max_element(blob.begin(), blob.end(),
                                       [&](int a, int b) { return plane[a] < plane[b]; });
    peaks.push_back(plane[peak] - mean);
    const int row = peak / numCols, col = peak % numCols;
    if (!insideCandidateBand(row, col, numRows, numCols)) ++counts.inBorder;
    const int regionRow = row / regionRows, regionCol = col / regionCols;
    if (regionRow < kFocusDivisions && regionCol < kFocusDivisions)
      regionHasSpot[regionRow * kFocusDivisions + regionCol] = 1;
  }
  counts.emptyRegions = static_cast<int>(std::count(regionHasSpot.begin(), regionHasSpot.end(), 0));
  counts.medianPeakOverMean = median(peaks);
  counts.lowestPeakOverMean = peaks.empty() ? 0.0 : *std::min_element(peaks.begin(), peaks.end());
  return counts;
}

Pairing pairCandidates(const std::vector<double>& reference, const std::vector<double>& channel,
                       int numRows, int numCols) {
  std::vector<double> preparedRef = reference, preparedChannel = channel;
  prepareFocusImage(preparedRef.data(), numRows, numCols);
  prepareFocusImage(preparedChannel.data(), numRows, numCols);
  std::vector<double*> refRows = rowPointers(preparedRef, numRows, numCols);
  std::vector<double*> channelRows = rowPointers(preparedChannel, numRows, numCols);
  SpotGrid refGrid(numRows, numCols), channelGrid(numRows, numCols);
  int unused = 0;
  Pairing pairing;
  const std::vector<Candidate> refSpots =
      spotsOf(refRows.data(), numRows, numCols, &refGrid, &pairing.candidates);
  spotsOf(channelRows.data(), numRows, numCols, &channelGrid, &unused);

  const double refMean = imageMean(reference), channelMean = imageMean(channel);
  for (const Candidate& s : refSpots) {
    // Pass 1 fits both images at the reference's position: a pair is sound
    // only when that window holds this spot alone in both.
    const auto own = refGrid.near(s.row, s.col, kSpotSearchHalfWidth);
    const auto partner = channelGrid.near(s.row, s.col, kSpotSearchHalfWidth);
    if (own.size() != 1 || partner.size() != 1) continue;
    ++pairing.usable;
    CentrePair p{};
    centreOf(reference, refMean, numRows, numCols, s, &p.refX, &p.refY);
    centreOf(channel, channelMean, numRows, numCols, partner.front(), &p.x, &p.y);
    pairing.centres.push_back(p);
  }
  return pairing;
}

ModelAdvice chooseModel(const std::vector<CentrePair>& pairs, int numRows, int numCols,
                        double gainPx[2]) {
  gainPx[0] = gainPx[1] = 0.0;
  if (static_cast<int>(pairs.size()) < kMinPairsForModel) return ModelAdvice::kUnknown;
  const std::vector<CentrePair> radial = fitted(pairs, numRows, numCols, ModelAdvice::kRadial);
  const std::vector<CentrePair> linear = fitted(pairs, numRows, numCols, ModelAdvice::kLinear);
  const std::vector<CentrePair> second =
      fitted(pairs, numRows, numCols, ModelAdvice::kLinearHighOrder);
  gainPx[0] = largestChange(radial, linear);
  gainPx[1] = largestChange(linear, second);
  if (gainPx[1] > kModelGainPx) return ModelAdvice::kLinearHighOrder;
  if (gainPx[0] > kModelGainPx) return ModelAdvice::kLinear;
  return ModelAdvice::kRadial;
}

}  // namespace advise
