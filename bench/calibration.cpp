// Calibration timings on a generated 4-channel 1024 x 1024 x 64 target with
// about 300 spots per channel: the whole run as the tool makes it, and the
// stages it is made of (focus search, section cleaning, one pass of pairing
// and fit, the warp between passes, the high-order stage), so that the whole
// can be accounted for. The target is written once per process and removed
// at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "correction/correction.h"
#include "imsubs/imsubs.h"
#include "model/model.h"
#include "spots/spots.h"
#include "bench/target_stack.h"

namespace {

using targettest::Model;
using targettest::ModelKind;
using targettest::TargetSpec;

constexpr int kStackStream = 5;
constexpr int kNumChannels = 4;
constexpr int kReferenceChannel = 0;

TargetSpec benchTarget() {
  TargetSpec s;
  s.numCols = s.numRows = 1024;
  s.numZ = 64;
  s.firstSpot = 70;
  s.spotPitch = 52;
  s.spotsPerRow = 17;    // 289 spots
  s.depthOfField = 8.0;  // sections; keeps far-from-focus spots compact
  s.amplitude = 3000.0;
  const Model identity = targettest::identityModel(s, ModelKind::kRadial);
  Model a = identity, b = identity, c = identity;
  a[2] = 1.003, a[3] = 0.002, a[4] = 2.7, a[5] = -1.6;
  b[2] = 0.998, b[3] = -0.0025, b[4] = -3.1, b[5] = 2.2;
  c[2] = 1.001, c[3] = 0.001, c[4] = 1.4, c[5] = 3.9;
  s.channels = {{525.0f, 31, ModelKind::kRadial, identity},
                {605.0f, 32, ModelKind::kRadial, a},
                {680.0f, 30, ModelKind::kRadial, b},
                {705.0f, 33, ModelKind::kRadial, c}};
  return s;
}

// The target on disk for the life of the process.
struct BenchTarget {
  TargetSpec layout = benchTarget();
  std::string path;
  std::string output;

  BenchTarget() {
    char dir[] = "/tmp/corvane-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) std::abort();
    path = std::string(dir) + "/target.qf";
    output = std::string(dir) + "/alignment.txt";
    if (!targettest::writeTargetStack(path, layout)) std::abort();
  }
  ~BenchTarget() {
    unlink(path.c_str());
    unlink(output.c_str());
    rmdir(path.substr(0, path.rfind('/')).c_str());
  }
};

BenchTarget& target() {
  static BenchTarget t;
  return t;
}

struct Plane {
  std::vector<double> pixels;
  std::vector<double*> rows;
  Plane(int numRows, int numCols) : pixels(static_cast<std::size_t>(numRows) * numCols) {
    for (int r = 0; r < numRows; ++r) rows.push_back(pixels.data() + std::size_t(r) * numCols);
  }
};

// Prepared focus sections of the reference and of one channel.
struct FocusPlanes {
  Plane reference{1024, 1024};
  Plane channel{1024, 1024};
};

void focusPlane(int channel, Plane& plane) {
  const TargetSpec& s = target().layout;
  std::vector<float> section(plane.pixels.size());
  int focus = 0;
  IMOpen(kStackStream, target().path.c_str(), "ro");
  getFocusImagePerChannel(kStackStream, channel, 0, s.numZ, s.numRows, s.numCols, 4, 4,
                          section.data(), &focus);
  IMClose(kStackStream);
  std::copy(section.begin(), section.end(), plane.pixels.begin());
}

FocusPlanes& preparedPlanes() {
  static FocusPlanes planes = [] {
    FocusPlanes p;
    focusPlane(kReferenceChannel, p.reference);
    focusPlane(1, p.channel);
    prepareFocusImage(p.reference.pixels.data(), 1024, 1024);
    prepareFocusImage(p.channel.pixels.data(), 1024, 1024);
    return p;
  }();
  return planes;
}

// Standard output goes to /dev/null while the tool talks.
class QuietStdout {
 public:
  QuietStdout() {
    fflush(stdout);
    saved_ = dup(1);
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, 1);
    close(devNull);
  }
  ~QuietStdout() {
    fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }

 private:
  int saved_;
};

std::vector<double> startParameters(int linearFlag) {
  std::vector<double> p(kNumModelParameters, 0.0);
  p[0] = p[1] = 512.0;
  p[2] = 1.0;
  if (linearFlag != 0) p[3] = 1.0;
  return p;
}

void BM_WholeCalibration(benchmark::State& state) {
  const int linearFlag = static_cast<int>(state.range(0));
  const int highOrderFlag = static_cast<int>(state.range(1));
  std::string input = target().path, output = target().output;
  for (auto _ : state) {
    QuietStdout quiet;
    performCalibration(input.data(), output.data(), kReferenceChannel, 5, 0.5, linearFlag,
                       highOrderFlag);
  }
  state.SetLabel("4 channels, 1024 x 1024 x 64");
}
BENCHMARK(BM_WholeCalibration)
    ->ArgNames({"linear", "high"})
    ->Args({0, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

void BM_FocusSearchOneChannel(benchmark::State& state) {
  const TargetSpec& s = target().layout;
  std::vector<float> section(std::size_t(s.numRows) * s.numCols);
  IMOpen(kStackStream, target().path.c_str(), "ro");
  int focus = 0;
  for (auto _ : state) {
    getFocusImagePerChannel(kStackStream, 1, 0, s.numZ, s.numRows, s.numCols, 4, 4, section.data(),
                            &focus);
    benchmark::DoNotOptimize(section.data());
  }
  IMClose(kStackStream);
  state.counters["focus"] = focus;
}
BENCHMARK(BM_FocusSearchOneChannel)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_PrepareFocusImage(benchmark::State& state) {
  Plane raw(1024, 1024), work(1024, 1024);
  focusPlane(1, raw);
  for (auto _ : state) {
    state.PauseTiming();
    work.pixels = raw.pixels;
    state.ResumeTiming();
    prepareFocusImage(work.pixels.data(), 1024, 1024);
  }
}
BENCHMARK(BM_PrepareFocusImage)->Unit(benchmark::kMillisecond)->Iterations(5);

// One pass of the base model fit from the start values: pairing (spot
// detection and two sub-pixel fits per spot) and the bounded solve.
void BM_FittingPass(benchmark::State& state) {
  const int linearFlag = static_cast<int>(state.range(0));
  FocusPlanes& planes = preparedPlanes();
  double meanError = -1.0, errorDeviation = -1.0;
  for (auto _ : state) {
    std::vector<double> p = startParameters(linearFlag);
    QuietStdout quiet;
    fittingProcess(planes.channel.rows.data(), planes.reference.rows.data(), 1024, 1024, linearFlag,
                   p.data(), &meanError, &errorDeviation);
  }
  std::vector<CorvanePoint2D> imagePoints, referencePoints;
  findCorrespondencePoint(planes.channel.rows.data(), planes.reference.rows.data(), 1024, 1024,
                          imagePoints, referencePoints);
  state.counters["pairs"] = static_cast<double>(imagePoints.size());
}
BENCHMARK(BM_FittingPass)->ArgName("linear")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Pairing alone, to split the pass into spot work and the model solve.
void BM_Pairing(benchmark::State& state) {
  FocusPlanes& planes = preparedPlanes();
  for (auto _ : state) {
    std::vector<CorvanePoint2D> imagePoints, referencePoints;
    QuietStdout quiet;
    findCorrespondencePoint(planes.channel.rows.data(), planes.reference.rows.data(), 1024, 1024,
                            imagePoints, referencePoints);
    benchmark::DoNotOptimize(imagePoints.data());
  }
}
BENCHMARK(BM_Pairing)->Unit(benchmark::kMillisecond);

// The warp between two passes: every pixel through the model. The models are
// like the fitted ones, with a scale, a turn or shear and a shift on both
// axes, so that positions are fractional in X and in Y, as in a real warp.
void BM_WarpBetweenPasses(benchmark::State& state) {
  const int linearFlag = static_cast<int>(state.range(0));
  FocusPlanes& planes = preparedPlanes();
  Plane output(1024, 1024);
  std::vector<double> p = startParameters(linearFlag);
  if (linearFlag != 0) {
    p[2] = 1.003, p[3] = 0.998, p[4] = 0.0015, p[5] = -0.002, p[6] = 2.7, p[7] = -1.6;
  } else {
    p[2] = 1.003, p[3] = 0.002, p[4] = 2.7, p[5] = -1.6;
  }
  for (auto _ : state) {
    imageTransform(planes.channel.rows.data(), p.data(), 1024, 1024, linearFlag, 0,
                   output.rows.data());
  }
}
BENCHMARK(BM_WarpBetweenPasses)->ArgName("linear")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_HighOrderStage(benchmark::State& state) {
  FocusPlanes& planes = preparedPlanes();
  double meanError = -1.0, errorDeviation = -1.0;
  std::vector<double> fitted = startParameters(1);
  {
    QuietStdout quiet;
    fittingProcess(planes.channel.rows.data(), planes.reference.rows.data(), 1024, 1024, 1,
                   fitted.data(), &meanError, &errorDeviation);
  }
  for (auto _ : state) {
    std::vector<double> p = fitted;
    QuietStdout quiet;
    fittingProcessHighOrder(planes.channel.rows.data(), planes.reference.rows.data(), 1024, 1024, 1,
                            p.data(), &meanError, &errorDeviation);
  }
}
BENCHMARK(BM_HighOrderStage)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
