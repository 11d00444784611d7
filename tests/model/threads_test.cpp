// Calibration and correction give the same bytes whatever the number of
// threads: the parameter file, the corrected stack and the console output of
// 1, 2, 3 and 8 threads are compared with each other, run by the binary.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <string>
#include <vector>

#include "model/target_stack.h"
#include "support/testutil.h"

namespace {

using targettest::Model;
using targettest::ModelKind;
using targettest::TargetSpec;

constexpr double kRunTimeout = 300.0;

TargetSpec threeChannelTarget(ModelKind kind) {
  TargetSpec s;
  const Model identity = targettest::identityModel(s, kind);
  Model a = identity, b = identity;
  if (kind == ModelKind::kLinear) {
    a[2] = 1.005, a[3] = 0.996, a[4] = 0.003, a[5] = -0.002, a[6] = 2.6, a[7] = -1.9;
    b[2] = 0.996, b[3] = 1.003, b[6] = -3.4, b[7] = 1.3;
  } else {
    a[2] = 1.004, a[3] = 0.004, a[4] = 3.2, a[5] = -2.1;
    b[2] = 0.997, b[3] = -0.003, b[4] = -1.5, b[5] = 4.25;
  }
  s.channels = {{525.0f, 2, kind, a}, {605.0f, 2, kind, identity}, {680.0f, 3, kind, b}};
  return s;
}

// The output file and standard output of a run on `threads` threads; the
// output path is the last argument but for the options that follow it.
std::string runWithThreads(int threads, const std::vector<std::string>& args,
                           const std::string& out) {
  std::remove(out.c_str());
  setenv("OMP_NUM_THREADS", std::to_string(threads).c_str(), 1);
  const testutil::RunResult result = testutil::run(CORVANE_BIN, args, kRunTimeout);
  unsetenv("OMP_NUM_THREADS");
  EXPECT_EQ(result.exitStatus, 0) << result.out;
  return testutil::readFile(out) + "\n--- console ---\n" + result.out;
}

TEST(ThreadsTest, CalibrationAndCorrectionGiveTheSameBytesOnAnyThreadCount) {
  struct Case {
    const char* name;
    ModelKind kind;
    std::vector<std::string> options;
  };
  const Case cases[] = {
      {"radial", ModelKind::kRadial, {}},
      {"linear with high order",
       ModelKind::kLinear,
       {"-doLinearModelFitting", "-doHighOrderModelFitting", "-referenceChannelIndex", "1"}},
  };
  for (const Case& c : cases) {
    testutil::ScratchDir dir;
    const std::string target = dir.file("target.qf"), out = dir.file("out");
    ASSERT_TRUE(targettest::writeTargetStack(target, threeChannelTarget(c.kind)));
    std::vector<std::string> calibration = {"calibration", target, out};
    calibration.insert(calibration.end(), c.options.begin(), c.options.end());
    const std::vector<std::string> correction = {"correction", target, dir.file("rows.txt"), out};

    const std::string calibrated = runWithThreads(1, calibration, out);
    testutil::writeFile(dir.file("rows.txt"), testutil::readFile(out));
    const std::string corrected = runWithThreads(1, correction, out);
    ASSERT_GT(testutil::fileExists(out) ? testutil::readFile(out).size() : 0u, 1024u) << c.name;
    for (int threads : {2, 3, 8}) {
      EXPECT_EQ(runWithThreads(threads, calibration, out), calibrated)
          << c.name << ", calibration on " << threads << " threads";
      EXPECT_TRUE(runWithThreads(threads, correction, out) == corrected)
          << c.name << ", correction on " << threads << " threads";
    }
  }
}

}  // namespace
