// Spot measurement timings on a synthetic 1024 x 1024 section with about 300
// Gaussian spots and Poisson noise: focus contrast per section, section
// cleaning, one sub-pixel fit, and the pairing of two sections.

#include "spots/spots.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "app/settings.h"

namespace {

constexpr int kSize = 1024;
constexpr int kGridRows = 17, kGridCols = 18;  // 306 spots
constexpr double kBackground = 20.0;

struct Section {
  std::vector<double> px;
  std::vector<double*> rows;
  std::vector<double> spotRows, spotCols;
};

// Spots on a jittered grid, 40 pixels or more from the edges.
Section makeSection(double shiftRow, double shiftCol) {
  Section s;
  s.px.assign(static_cast<std::size_t>(kSize) * kSize, kBackground);
  std::mt19937 rng(42);
  std::uniform_real_distribution<double> jitter(-3.0, 3.0), sigma(1.2, 2.5), amp(300.0, 600.0);
  const double stepRow = (kSize - 80.0) / (kGridRows - 1),
               stepCol = (kSize - 80.0) / (kGridCols - 1);
  for (int i = 0; i < kGridRows; ++i) {
    for (int j = 0; j < kGridCols; ++j) {
      const double r0 = 40.0 + i * stepRow + jitter(rng) + shiftRow;
      const double c0 = 40.0 + j * stepCol + jitter(rng) + shiftCol;
      const double sg = sigma(rng), a = amp(rng);
      s.spotRows.push_back(r0);
      s.spotCols.push_back(c0);
      for (int r = int(r0) - 12; r <= int(r0) + 12; ++r) {
        for (int c = int(c0) - 12; c <= int(c0) + 12; ++c) {
          const double d2 = (r - r0) * (r - r0) + (c - c0) * (c - c0);
          s.px[std::size_t(r) * kSize + c] += a * std::exp(-d2 / (2 * sg * sg));
        }
      }
    }
  }
  std::mt19937 noise(7);
  for (double& v : s.px) v = std::poisson_distribution<int>(v)(noise);
  for (int r = 0; r < kSize; ++r) s.rows.push_back(s.px.data() + std::size_t(r) * kSize);
  return s;
}

const Section& reference() {
  static const Section s = makeSection(0.0, 0.0);
  return s;
}

void BM_SubRegionContrast(benchmark::State& state) {
  std::vector<float> px(reference().px.begin(), reference().px.end());
  std::vector<float*> rows;
  for (int r = 0; r < kSize; ++r) rows.push_back(px.data() + std::size_t(r) * kSize);
  std::vector<double> contrast;
  for (auto _ : state) {
    contrast.clear();
    calculateSubRegionContrast(rows.data(), kSize, kSize, 4, 4, contrast);
    benchmark::DoNotOptimize(contrast.data());
  }
}
BENCHMARK(BM_SubRegionContrast)->Unit(benchmark::kMillisecond);

// The histogram as the contrast would use it with sorting: one region.
void BM_HistgramOneRegion(benchmark::State& state) {
  std::vector<double> region(reference().px.begin(), reference().px.begin() + 256 * 256);
  std::vector<double> data, centers, counts;
  for (auto _ : state) {
    data = region;
    centers.clear();
    histgram(data, 100, centers, counts);
    benchmark::DoNotOptimize(counts.data());
  }
}
BENCHMARK(BM_HistgramOneRegion)->Unit(benchmark::kMillisecond);

void BM_PrepareFocusImage(benchmark::State& state) {
  gridThreshold = 0.995;
  std::vector<double> image;
  for (auto _ : state) {
    state.PauseTiming();
    image = reference().px;
    state.ResumeTiming();
    prepareFocusImage(image.data(), kSize, kSize);
    benchmark::DoNotOptimize(image.data());
  }
}
BENCHMARK(BM_PrepareFocusImage)->Unit(benchmark::kMillisecond);

void BM_FitPoint(benchmark::State& state) {
  Section s = makeSection(0.0, 0.0);
  std::size_t k = 0;
  double row, col;
  for (auto _ : state) {
    const int r = int(std::floor(s.spotRows[k] + 0.5)), c = int(std::floor(s.spotCols[k] + 0.5));
    benchmark::DoNotOptimize(fitPoint(s.rows.data(), kSize, kSize, r, c, &row, &col));
    k = (k + 1) % s.spotRows.size();
  }
}
BENCHMARK(BM_FitPoint)->Unit(benchmark::kMicrosecond);

void BM_FindCorrespondencePoint(benchmark::State& state) {
  gridThreshold = 0.995;
  Section ref = makeSection(0.0, 0.0), img = makeSection(1.7, -2.4);
  prepareFocusImage(ref.px.data(), kSize, kSize);
  prepareFocusImage(img.px.data(), kSize, kSize);
  std::size_t pairs = 0;
  for (auto _ : state) {
    std::vector<CorvanePoint2D> imagePoints, referencePoints;
    findCorrespondencePoint(img.rows.data(), ref.rows.data(), kSize, kSize, imagePoints,
                            referencePoints);
    pairs = imagePoints.size();
  }
  state.counters["pairs"] = double(pairs);
}
BENCHMARK(BM_FindCorrespondencePoint)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
