// The assessment on a generated target before and after a correction by
// corvane with the true parameter file, and the demo script as a user runs
// it, at its small size.
#include "tools/common/assess.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/testutil.h"
#include "tools/common/synth.h"

namespace {

// On a generated target the uncorrected stack must measure as the truth says,
// and the same stack corrected by corvane with the true parameter file must
// measure as registered, within the localisation noise.
TEST(AssessTest, HonestOnAGeneratedTargetBeforeAndAfterTrueCorrection) {
  synth::Config config;
  config.seed = 3;
  config.geometry.numCols = config.geometry.numRows = 320;
  config.geometry.numZ = 12;
  config.geometry.pixels = synth::PixelKind::kFloat;
  config.linearFlag = 1;
  config.highOrder = true;
  config.bounds.zOffset = 2;
  ASSERT_EQ(synth::validateConfig(config), "");
  const synth::Truth truth = synth::makeTruth(config);
  const std::vector<synth::Spot> spots = synth::makeSpots(config);
  testutil::ScratchDir dir;
  ASSERT_EQ(synth::writeTarget(dir.file("t.qf"), config, truth, spots, 2), "");
  writeAlignmentParameter(dir.file("truth.txt").c_str(), truth.rows);
  const nlohmann::json j = synth::truthJson(config, truth, spots);
  assess::StackInfo info;
  std::vector<assess::ChannelReport> before, after;
  ASSERT_EQ(assess::assessStack(dir.file("t.qf"), assess::Options{}, &j, &info, &before), "");
  for (const assess::ChannelReport& r : before) {
    SCOPED_TRACE(r.index);
    EXPECT_EQ(r.pairs, static_cast<int>(spots.size()));
    EXPECT_NEAR(r.error.rmsPx, r.truthError.rmsPx, 0.03);
    EXPECT_NEAR(r.error.meanDx, r.truthError.meanDx, 0.03);
    EXPECT_NEAR(r.error.meanDy, r.truthError.meanDy, 0.03);
    EXPECT_EQ(static_cast<int>(std::lround(r.zOffset)), r.trueZOffset);
    EXPECT_LT(r.localisation.rmsPx, 0.05);
  }
  const testutil::RunResult corrected = testutil::run(
      CORVANE_BIN, {"correction", dir.file("t.qf"), dir.file("truth.txt"), dir.file("c.qf")});
  ASSERT_EQ(corrected.exitStatus, 0) << corrected.out;
  ASSERT_EQ(assess::assessStack(dir.file("c.qf"), assess::Options{}, nullptr, &info, &after), "");
  for (const assess::ChannelReport& r : after) {
    SCOPED_TRACE(r.index);
    EXPECT_EQ(r.pairs, static_cast<int>(spots.size()));
    EXPECT_LT(r.error.rmsPx, 0.06);
    EXPECT_NEAR(r.zOffset, 0.0, 0.1);
  }
}

// The number after `label` in the demo's output, or -1.
double numberAfter(const std::string& text, const std::string& label) {
  double value = -1.0;
  const size_t at = text.find(label);
  if (at != std::string::npos) std::sscanf(text.c_str() + at + label.size(), "%lf", &value);
  return value;
}

TEST(DemoTest, SmallDemoRunsEndToEnd) {
  testutil::ScratchDir dir;
  const testutil::RunResult r =
      testutil::run("/bin/bash",
                    {std::string(CORVANE_SOURCE_DIR) + "/scripts/demo.sh", "--small", "--no-build",
                     "--build-dir", CORVANE_BUILD_DIR, "--out", dir.file("demo")},
                    300.0);
  ASSERT_FALSE(r.timedOut);
  ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
  // The random models shift channels by several pixels; a correction with
  // measured parameters leaves a fraction of a pixel, with the true ones
  // only the localisation noise.
  const double before = numberAfter(r.out, "registration error before:");
  const double after = numberAfter(r.out, "registration error after:");
  const bool calibrated = r.out.find("measured by corvane calibration") != std::string::npos;
  EXPECT_GT(before, 2.0) << r.out;
  EXPECT_GE(after, 0.0) << r.out;
  EXPECT_LT(after, calibrated ? 0.5 : 0.1) << r.out;
  EXPECT_TRUE(calibrated ||
              r.out.find("NOTE: correcting with the TRUE parameter file") != std::string::npos);
  EXPECT_TRUE(testutil::fileExists(dir.file("demo/target-corrected.qf")));
  EXPECT_TRUE(testutil::fileExists(dir.file("demo/specimen-corrected.qf")));
}

}  // namespace
