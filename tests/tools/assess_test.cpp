// The assessment on stacks built here with known offsets, through the library
// and its command line, and on a generated target before and after a
// correction by corvane with the true parameter file; and the demo script
// as a user runs it, at its small size.
#include "tools/common/assess.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/stack_writer.h"
#include "support/testutil.h"
#include "tools/common/synth.h"

namespace {

constexpr int kCols = 200, kRows = 160;
constexpr float kSpacing = 0.1f;  // micrometres: 1 px = 100 nm

// Two channels of float pixels drawn here with a simple Gaussian: channel 1
// holds every spot displaced by `shift` (plus `scale` - 1 times its distance
// from the middle) and in focus `dz` sections after channel 0. A faint
// ripple stands in for noise.
struct Constructed {
  double shiftX, shiftY, scale;
  int dz;
};

CorvanePoint2D displaced(const Constructed& k, const CorvanePoint2D& p) {
  return {kCols / 2.0 + k.scale * (p.x - kCols / 2.0) + k.shiftX,
          kRows / 2.0 + k.scale * (p.y - kRows / 2.0) + k.shiftY};
}

std::vector<CorvanePoint2D> referenceSpots() {
  std::vector<CorvanePoint2D> spots;
  for (int i = 0; i < 12; ++i) spots.push_back({30.3 + 45.1 * (i % 4), 31.7 + 47.9 * (i / 4)});
  return spots;
}

void writeConstructed(const std::string& path, const Constructed& k) {
  const testutil::StackLayout layout{kCols, kRows,           9, 2, 1, kSpacing, kSpacing,
                                     0.2f,  {500.0f, 600.0f}};
  const auto fill = [&](std::vector<float>& pixels, int z, int w, int) {
    const int focus = 3 + (w == 1 ? k.dz : 0);
    const double s2 = 2.25 * (1.0 + (z - focus) * (z - focus));
    for (int i = 0; i < kCols * kRows; ++i)
      pixels[i] = 50.0f + ((i % kCols * 7 + i / kCols * 3) % 5);
    for (const CorvanePoint2D& s : referenceSpots()) {
      const CorvanePoint2D p = w == 1 ? displaced(k, s) : s;
      for (int i = 0; i < kCols * kRows; ++i) {
        const double r2 = std::pow(i % kCols - p.x, 2) + std::pow(i / kCols - p.y, 2);
        pixels[i] += static_cast<float>(2000.0 / s2 * std::exp(-0.5 * r2 / s2));
      }
    }
  };
  ASSERT_TRUE(testutil::writeStack(path, layout, fill, 21));
}

TEST(AssessTest, MeasuresKnownOffsetsOfConstructedStacks) {
  const Constructed cases[] = {
      {0.0, 0.0, 1.0, 0},  {2.3, -1.7, 1.0, 2}, {-0.4, 0.25, 1.0, -1},
      {12.0, 5.0, 1.0, 1}, {1.0, 0.5, 1.01, 0},
  };
  for (const Constructed& k : cases) {
    SCOPED_TRACE(testing::Message()
                 << k.shiftX << ", " << k.shiftY << " scale " << k.scale << " dz " << k.dz);
    testutil::ScratchDir dir;
    writeConstructed(dir.file("s.qf"), k);
    assess::StackInfo info;
    std::vector<assess::ChannelReport> reports;
    ASSERT_EQ(assess::assessStack(dir.file("s.qf"), assess::Options{}, nullptr, &info, &reports),
              "");
    ASSERT_EQ(reports.size(), 2u);
    std::vector<CorvanePoint2D> expected;
    for (const CorvanePoint2D& s : referenceSpots()) {
      const CorvanePoint2D q = displaced(k, s);
      expected.push_back({q.x - s.x, q.y - s.y});
    }
    const assess::ErrorStats want = assess::errorStats(expected, kSpacing, kSpacing);
    const assess::ChannelReport& r = reports[1];
    EXPECT_EQ(r.spots, 12);
    EXPECT_EQ(r.pairs, 12);
    EXPECT_NEAR(r.error.rmsPx, want.rmsPx, 0.02);
    EXPECT_NEAR(r.error.p95Px, want.p95Px, 0.03);
    EXPECT_NEAR(r.error.rmsNm, 100.0 * want.rmsPx, 2.0);
    EXPECT_NEAR(r.error.meanDx, want.meanDx, 0.02);
    EXPECT_NEAR(r.error.meanDy, want.meanDy, 0.02);
    EXPECT_EQ(r.focus.section, 3 + k.dz);
    EXPECT_NEAR(r.zOffset, k.dz, 0.05);
    EXPECT_LT(reports[0].error.rmsPx, 1e-9);  // the reference against itself
  }
  // The figures by hand: 100 nm per pixel across, 200 nm down.
  const assess::ErrorStats s = assess::errorStats({{3, 4}, {0, 0}, {6, 8}, {-3, -4}}, 0.1, 0.2);
  EXPECT_EQ(s.count, 4);
  EXPECT_DOUBLE_EQ(s.rmsPx, std::sqrt(150.0 / 4.0));
  EXPECT_DOUBLE_EQ(s.p95Px, 10.0);  // nearest rank: the 4th of 4
  EXPECT_DOUBLE_EQ(s.p95Nm, std::hypot(600.0, 1600.0));
  EXPECT_DOUBLE_EQ(s.meanDx, 1.5);
}

TEST(AssessTest, CommandLineOutputs) {
  testutil::ScratchDir dir;
  writeConstructed(dir.file("s.qf"), {2.0, 0.0, 1.0, 1});
  const testutil::RunResult table = testutil::run(CORVANE_ASSESS_BIN, {dir.file("s.qf")});
  EXPECT_EQ(table.exitStatus, 0) << table.err;
  EXPECT_NE(table.out.find("rms px"), std::string::npos);
  const testutil::RunResult json = testutil::run(CORVANE_ASSESS_BIN, {"--json", dir.file("s.qf")});
  ASSERT_EQ(json.exitStatus, 0);
  const nlohmann::json j = nlohmann::json::parse(json.out)["registration"]["channels"][1];
  EXPECT_NEAR(j["error"]["rmsPx"].get<double>(), 2.0, 0.02);
  EXPECT_NEAR(j["zOffset"].get<double>(), 1.0, 0.05);
  const testutil::RunResult summary =
      testutil::run(CORVANE_ASSESS_BIN, {"--summary", dir.file("s.qf")});
  double rms = 0.0;
  int pairs = 0;
  ASSERT_EQ(
      std::sscanf(summary.out.c_str(), "rms_px=%lf p95_px=%*f rms_nm=%*f pairs=%d", &rms, &pairs),
      2)
      << summary.out;
  EXPECT_NEAR(rms, 2.0, 0.02);
  EXPECT_EQ(pairs, 12);
  EXPECT_EQ(testutil::run(CORVANE_ASSESS_BIN, {}).exitStatus, 2);
  EXPECT_EQ(testutil::run(CORVANE_ASSESS_BIN, {"--params", "x.txt"}).exitStatus, 2);
  EXPECT_EQ(testutil::run(CORVANE_ASSESS_BIN, {dir.file("missing.qf")}).exitStatus, 1);
}

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
