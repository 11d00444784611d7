// Gaussian spot fits end to end through the free solver with the numerical
// Jacobian, as the sub-pixel fit runs them: a 19 x 19 window (m 361, n 6)
// and a 19-pixel profile (m 19, n 4), on one thread. Times are per fit.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <vector>

#include "bench/spot_models.h"

namespace {

constexpr int kWindow = 19;
constexpr int kSpots = 64;
constexpr double kNoise = 20.0;

struct SpotSet {
  std::vector<std::vector<double>> images;
  std::vector<std::vector<double>> starts;
  std::vector<int> positions;
};

SpotSet makeSpots(bool twoDimensional) {
  spotmodels::Draws draws(31337);
  SpotSet set;
  set.positions.resize(kWindow);
  for (int i = 0; i < kWindow; ++i) set.positions[i] = i;
  for (int k = 0; k < kSpots; ++k) {
    const double rowCentre = draws.uniform(7.0, 11.0), colCentre = draws.uniform(7.0, 11.0);
    const double rowSigma = draws.uniform(1.2, 2.5), colSigma = draws.uniform(1.2, 2.5);
    const double amplitude = draws.uniform(500.0, 2000.0), offset = 100.0;
    if (twoDimensional) {
      const double truth[6] = {rowCentre, rowSigma, colCentre, colSigma, amplitude, offset};
      set.images.push_back(spotmodels::sampleSpot(truth, kWindow, kWindow, kNoise, draws));
      set.starts.push_back({rowCentre + 0.6, rowSigma * 1.3, colCentre - 0.6, colSigma * 1.3,
                            amplitude * 0.8, offset + 30.0});
    } else {
      const double truth[4] = {colCentre, colSigma, amplitude, offset};
      set.images.push_back(spotmodels::sampleProfile(truth, kWindow, kNoise, draws));
      set.starts.push_back({colCentre + 0.6, colSigma * 1.3, amplitude * 0.8, offset + 30.0});
    }
  }
  return set;
}

void BM_GaussianFit2D(benchmark::State& state) {
  omp_set_num_threads(1);
  const SpotSet set = makeSpots(true);
  size_t k = 0;
  for (auto _ : state) {
    spotmodels::TwoDimensionData data{set.images[k].data(), set.positions.data(),
                                      set.positions.data(), kWindow, kWindow};
    std::vector<double> x = set.starts[k];
    const int status = spotmodels::fitFree(spotmodels::residualTwoDimension, &data, 6,
                                           kWindow * kWindow, x.data());
    benchmark::DoNotOptimize(status);
    benchmark::DoNotOptimize(x.data());
    k = (k + 1) % set.images.size();
  }
}
BENCHMARK(BM_GaussianFit2D)->Unit(benchmark::kMicrosecond);

void BM_GaussianFit1D(benchmark::State& state) {
  omp_set_num_threads(1);
  const SpotSet set = makeSpots(false);
  size_t k = 0;
  for (auto _ : state) {
    spotmodels::OneDimensionData data{set.images[k].data(), set.positions.data()};
    std::vector<double> x = set.starts[k];
    const int status =
        spotmodels::fitFree(spotmodels::residualOneDimension, &data, 4, kWindow, x.data());
    benchmark::DoNotOptimize(status);
    benchmark::DoNotOptimize(x.data());
    k = (k + 1) % set.images.size();
  }
}
BENCHMARK(BM_GaussianFit1D)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
