// The demo script as a user runs it, at its small size: it must finish, and
// its summary must show a large misregistration before and a small one after.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/testutil.h"

namespace {

constexpr double kDemoTimeoutSeconds = 300.0;

// The number after `label` in the demo's output, or -1.
double numberAfter(const std::string& text, const std::string& label) {
  const size_t at = text.find(label);
  if (at == std::string::npos) return -1.0;
  double value = -1.0;
  std::sscanf(text.c_str() + at + label.size(), "%lf", &value);
  return value;
}

TEST(DemoTest, SmallDemoRunsEndToEnd) {
  testutil::ScratchDir dir;
  const testutil::RunResult r =
      testutil::run("/bin/bash",
                    {std::string(CORVANE_SOURCE_DIR) + "/scripts/demo.sh", "--small", "--no-build",
                     "--build-dir", CORVANE_BUILD_DIR, "--out", dir.file("demo")},
                    kDemoTimeoutSeconds);
  ASSERT_FALSE(r.timedOut);
  ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;

  const double before = numberAfter(r.out, "registration error before:");
  const double after = numberAfter(r.out, "registration error after:");
  // The random models shift channels by several pixels; a correction with
  // measured parameters leaves a fraction of a pixel, with the true ones
  // only the localisation noise.
  EXPECT_GT(before, 2.0) << r.out;
  EXPECT_GE(after, 0.0) << r.out;
  const bool calibrated = r.out.find("measured by corvane calibration") != std::string::npos;
  EXPECT_LT(after, calibrated ? 0.5 : 0.1) << r.out;
  EXPECT_TRUE(calibrated ||
              r.out.find("NOTE: correcting with the TRUE parameter file") != std::string::npos);
  EXPECT_TRUE(testutil::fileExists(dir.file("demo/target-corrected.qf")));
  EXPECT_TRUE(testutil::fileExists(dir.file("demo/specimen-corrected.qf")));
}

}  // namespace
