// Throughput of the section transform on a 1024 x 1024 section, for the
// radial, the linear, and the linear plus high-order model, in megapixels per
// second. The models are calibration-like: small turns, scales and shifts, so
// that nearly every pixel takes the two-dimensional interpolation path.
//
// BM_FloatSectionTransform is the work of the correction per section on one
// float section: resample (sampling the floats as they are), narrow. With CORVANE_BENCH_SECTION naming a
// file of 1024 x 1024 raw native floats it resamples that section, so that a
// script can time another program on the very same pixels
// (bench/transform_vs_opencv.sh).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "correction/correction.h"
#include "model/model.h"

namespace {

constexpr int kSide = 1024;

struct Plane {
  std::vector<double> pixels;
  std::vector<double*> rows;
  Plane() : pixels(kSide * kSide) {
    for (int y = 0; y < kSide; ++y) rows.push_back(pixels.data() + y * kSide);
  }
};

std::vector<double> parametersFor(int linearFlag, int highOrderFlag) {
  std::vector<double> p(kNumModelParameters, 0.0);
  p[0] = kSide / 2;
  p[1] = kSide / 2;
  if (linearFlag == 0) {
    p[2] = 1.0012;
    p[3] = 0.0015;  // radians
    p[4] = 1.37;
    p[5] = -0.82;
    return p;
  }
  p[2] = 1.0011;
  p[3] = 0.9993;
  p[4] = 0.0014;
  p[5] = -0.0012;
  p[6] = 1.37;
  p[7] = -0.82;
  if (highOrderFlag != 0) {
    const double terms[12] = {0.05,  1e-4, 2e-7,  -1e-4, 3e-7, -1e-7,
                              -0.04, 2e-4, -1e-7, 1e-4,  2e-7, 1e-7};
    for (int i = 0; i < 12; ++i) p[8 + i] = terms[i];
  }
  return p;
}

void BM_ImageTransform(benchmark::State& state) {
  const int linearFlag = static_cast<int>(state.range(0));
  const int highOrderFlag = static_cast<int>(state.range(1));
  Plane input;
  Plane output;
  uint32_t seed = 12345;
  for (double& v : input.pixels) {
    seed = seed * 1664525u + 1013904223u;
    v = static_cast<double>(seed >> 16);
  }
  std::vector<double> p = parametersFor(linearFlag, highOrderFlag);
  for (auto _ : state) {
    imageTransform(input.rows.data(), p.data(), kSide, kSide, linearFlag, highOrderFlag,
                   output.rows.data());
    benchmark::DoNotOptimize(output.pixels.data());
    benchmark::ClobberMemory();
  }
  state.counters["Mpixel/s"] = benchmark::Counter(static_cast<double>(kSide) * kSide / 1e6,
                                                  benchmark::Counter::kIsIterationInvariantRate);
}

// The section of CORVANE_BENCH_SECTION, or pseudo-random pixels without it.
std::vector<float> floatSection() {
  std::vector<float> section(kSide * kSide);
  const char* path = std::getenv("CORVANE_BENCH_SECTION");
  if (path != nullptr) {
    FILE* file = std::fopen(path, "rb");
    const bool complete = file != nullptr && std::fread(section.data(), sizeof(float),
                                                        section.size(), file) == section.size();
    if (file != nullptr) std::fclose(file);
    if (!complete) {
      std::fprintf(stderr, "bench_transform: cannot read %zu floats from %s\n", section.size(),
                   path);
      std::exit(2);
    }
    return section;
  }
  uint32_t seed = 54321;
  for (float& v : section) {
    seed = seed * 1664525u + 1013904223u;
    v = static_cast<float>(seed >> 16);
  }
  return section;
}

void BM_FloatSectionTransform(benchmark::State& state) {
  const int linearFlag = static_cast<int>(state.range(0));
  std::vector<float> section = floatSection();
  std::vector<float> result(section.size());
  std::vector<float*> inputRows;
  for (int y = 0; y < kSide; ++y) inputRows.push_back(section.data() + y * kSide);
  Plane output;
  std::vector<double> p = parametersFor(linearFlag, 0);
  for (auto _ : state) {
    imageTransformRows(inputRows.data(), p.data(), kSide, kSide, linearFlag, 1,
                       output.rows.data(), 0, kSide);
    narrowSection(output.pixels.data(), result.data(), result.size());
    benchmark::DoNotOptimize(result.data());
    benchmark::ClobberMemory();
  }
}

}  // namespace

BENCHMARK(BM_FloatSectionTransform)
    ->ArgName("linear")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond);

BENCHMARK(BM_ImageTransform)
    ->ArgNames({"linear", "highOrder"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
