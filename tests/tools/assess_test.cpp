// The assessment on stacks built here with known offsets, its figures on
// hand-computed displacements, pairing, the mapping comparison, and the
// command line.
#include "tools/common/assess.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"
#include "support/stack_writer.h"
#include "support/testutil.h"
#include "tools/common/synth.h"

namespace {

constexpr int kStream = 21;
constexpr int kCols = 200, kRows = 160, kSections = 9;
constexpr float kSpacing = 0.1f;  // micrometres: 1 px = 100 nm

// A spot target of two channels with float pixels, drawn here with its own
// simple Gaussian: channel 1 holds every spot displaced by `shift` (plus
// `scale` - 1 times its distance from the middle) and in focus `dz`
// sections after channel 0. A faint ripple stands in for noise.
struct Constructed {
  double shiftX, shiftY, scale;
  int dz;
};

CorvanePoint2D displaced(const Constructed& k, double x, double y) {
  return {kCols / 2.0 + k.scale * (x - kCols / 2.0) + k.shiftX,
          kRows / 2.0 + k.scale * (y - kRows / 2.0) + k.shiftY};
}

std::vector<CorvanePoint2D> referenceSpots() {
  std::vector<CorvanePoint2D> spots;
  for (int j = 0; j < 3; ++j) {
    for (int i = 0; i < 4; ++i) spots.push_back({30.3 + 45.1 * i, 31.7 + 47.9 * j});
  }
  return spots;
}

void writeConstructed(const std::string& path, const Constructed& k) {
  const testutil::StackLayout layout{kCols,    kRows, kSections,       2, 1, kSpacing,
                                     kSpacing, 0.2f,  {500.0f, 600.0f}};
  const auto fill = [&](std::vector<float>& pixels, int z, int w, int) {
    const int focus = 3 + (w == 1 ? k.dz : 0);
    const double sigma = 1.5 * std::sqrt(1.0 + (z - focus) * (z - focus));
    for (int y = 0; y < kRows; ++y) {
      for (int x = 0; x < kCols; ++x) pixels[y * kCols + x] = 50.0f + ((x * 7 + y * 3) % 5);
    }
    for (const CorvanePoint2D& s : referenceSpots()) {
      const CorvanePoint2D p = w == 1 ? displaced(k, s.x, s.y) : s;
      for (int y = 0; y < kRows; ++y) {
        for (int x = 0; x < kCols; ++x) {
          const double r2 = (x - p.x) * (x - p.x) + (y - p.y) * (y - p.y);
          pixels[y * kCols + x] +=
              static_cast<float>(2000.0 / (sigma * sigma) * std::exp(-0.5 * r2 / (sigma * sigma)));
        }
      }
    }
  };
  ASSERT_TRUE(testutil::writeStack(path, layout, fill, kStream));
}

TEST(AssessTest, MeasuresKnownOffsetsOfConstructedStacks) {
  const Constructed cases[] = {
      {0.0, 0.0, 1.0, 0},  {2.3, -1.7, 1.0, 2}, {-0.4, 0.25, 1.0, -1},
      {12.0, 5.0, 1.0, 1}, {1.0, 0.5, 1.01, 0},
  };
  for (const Constructed& k : cases) {
    SCOPED_TRACE(testing::Message() << "shift " << k.shiftX << ", " << k.shiftY << " scale "
                                    << k.scale << " dz " << k.dz);
    testutil::ScratchDir dir;
    writeConstructed(dir.file("s.qf"), k);
    assess::StackInfo info;
    std::vector<assess::ChannelReport> reports;
    ASSERT_EQ(assess::assessStack(dir.file("s.qf"), assess::Options{}, nullptr, &info, &reports),
              "");
    ASSERT_EQ(reports.size(), 2u);
    std::vector<CorvanePoint2D> expected;
    for (const CorvanePoint2D& s : referenceSpots()) {
      const CorvanePoint2D q = displaced(k, s.x, s.y);
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
    EXPECT_EQ(reports[0].error.count, 12);
    EXPECT_LT(reports[0].error.rmsPx, 1e-9);  // the reference against itself
  }
}

TEST(AssessTest, ErrorFiguresByHand) {
  const std::vector<CorvanePoint2D> d = {{3.0, 4.0}, {0.0, 0.0}, {6.0, 8.0}, {-3.0, -4.0}};
  const assess::ErrorStats s = assess::errorStats(d, 0.1, 0.2);
  EXPECT_EQ(s.count, 4);
  EXPECT_DOUBLE_EQ(s.rmsPx, std::sqrt((25.0 + 0.0 + 100.0 + 25.0) / 4.0));
  EXPECT_DOUBLE_EQ(s.p95Px, 10.0);  // nearest rank: the 4th of 4
  EXPECT_DOUBLE_EQ(s.meanDx, 1.5);
  EXPECT_DOUBLE_EQ(s.meanDy, 2.0);
  // 100 nm per pixel across, 200 nm down: (3, 4) is hypot(300, 800) nm.
  EXPECT_DOUBLE_EQ(s.p95Nm, std::hypot(600.0, 1600.0));
  EXPECT_EQ(assess::errorStats({}, 1.0, 1.0).count, 0);
}

TEST(AssessTest, PairsMutualNearestNeighboursWithinTheDistance) {
  const std::vector<assess::Spot> a = {{10, 10, 1, 1}, {50, 10, 1, 1}, {90, 10, 1, 1}};
  // b[0] is nearest to a[0]; b[1] lies between a[1] and a[2] but nearer
  // a[1]; a[2] has nothing within reach.
  const std::vector<assess::Spot> b = {{12, 11, 1, 1}, {60, 10, 1, 1}, {200, 200, 1, 1}};
  const auto pairs = assess::pairSpots(a, b, 20.0);
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0], std::make_pair(0, 0));
  EXPECT_EQ(pairs[1], std::make_pair(1, 1));
  EXPECT_TRUE(assess::pairSpots(a, b, 2.0).empty());
}

TEST(AssessTest, MappingDifferenceOfAModifiedParameterFile) {
  synth::Config config;
  config.geometry.numCols = 400;
  config.geometry.numRows = 300;
  config.geometry.numZ = 16;
  const synth::Truth truth = synth::makeTruth(config);
  const nlohmann::json j = synth::truthJson(config, truth, {});

  std::vector<assess::MappingReport> same;
  ASSERT_EQ(assess::compareMappings(truth.rows, j, &same), "");
  ASSERT_EQ(same.size(), 3u);
  for (const auto& r : same) {
    EXPECT_TRUE(r.found);
    EXPECT_LT(r.maxPx, 1e-6);
    EXPECT_EQ(r.recoveredShift, r.trueShift);
  }

  // Channel 1 moved by half a pixel along X, channel 3 missing, channel 2
  // one section off: the radial translation is in micrometres in the file.
  std::vector<std::vector<double>> rows = truth.rows;
  rows[0][kSlotRadialTranslationX] += 0.5 * config.geometry.spacingX;
  rows[1][kSlotZOffset] += config.geometry.spacingZ;
  rows.erase(rows.begin() + 2);
  std::vector<assess::MappingReport> changed;
  ASSERT_EQ(assess::compareMappings(rows, j, &changed), "");
  ASSERT_EQ(changed.size(), 3u);
  EXPECT_NEAR(changed[0].rmsPx, 0.5, 1e-4);
  EXPECT_NEAR(changed[0].maxPx, 0.5, 1e-4);
  EXPECT_NEAR(changed[0].rmsNm, 40.0, 0.01);
  EXPECT_LT(changed[1].rmsPx, 1e-6);
  EXPECT_EQ(changed[1].recoveredShift, changed[1].trueShift + 1);
  EXPECT_FALSE(changed[2].found);
}

TEST(AssessTest, ParameterFileReaderRefusesMalformedFiles) {
  testutil::ScratchDir dir;
  std::vector<std::vector<double>> rows;
  testutil::writeFile(dir.file("short"), "1 2 3");
  EXPECT_NE(assess::readParameterFile(dir.file("short"), &rows).find("not rows of 27"),
            std::string::npos);
  testutil::writeFile(dir.file("word"), "1 2 x");
  EXPECT_NE(assess::readParameterFile(dir.file("word"), &rows).find("not a number"),
            std::string::npos);
  EXPECT_NE(assess::readParameterFile(dir.file("none"), &rows), "");
  std::string two;
  for (int i = 0; i < 54; ++i) two += std::to_string(i) + (i == 26 ? "\n" : " ");
  testutil::writeFile(dir.file("two"), two);
  ASSERT_EQ(assess::readParameterFile(dir.file("two"), &rows), "");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[1][0], 27.0);
}

TEST(AssessTest, CommandLineOutputs) {
  testutil::ScratchDir dir;
  writeConstructed(dir.file("s.qf"), {2.0, 0.0, 1.0, 1});
  const testutil::RunResult table = testutil::run(CORVANE_ASSESS_BIN, {dir.file("s.qf")});
  EXPECT_EQ(table.exitStatus, 0) << table.err;
  EXPECT_NE(table.out.find("rms px"), std::string::npos);

  const testutil::RunResult json = testutil::run(CORVANE_ASSESS_BIN, {"--json", dir.file("s.qf")});
  ASSERT_EQ(json.exitStatus, 0);
  const nlohmann::json j = nlohmann::json::parse(json.out);
  EXPECT_NEAR(j["registration"]["channels"][1]["error"]["rmsPx"].get<double>(), 2.0, 0.02);
  EXPECT_NEAR(j["registration"]["channels"][1]["zOffset"].get<double>(), 1.0, 0.05);

  const testutil::RunResult summary =
      testutil::run(CORVANE_ASSESS_BIN, {"--summary", dir.file("s.qf")});
  ASSERT_EQ(summary.exitStatus, 0);
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
  std::vector<assess::ChannelReport> before;
  ASSERT_EQ(assess::assessStack(dir.file("t.qf"), assess::Options{}, &j, &info, &before), "");
  for (const assess::ChannelReport& r : before) {
    SCOPED_TRACE(r.index);
    EXPECT_EQ(r.pairs, static_cast<int>(spots.size()));
    EXPECT_NEAR(r.error.rmsPx, r.truthError.rmsPx, 0.03);
    EXPECT_NEAR(r.error.meanDx, r.truthError.meanDx, 0.03);
    EXPECT_NEAR(r.error.meanDy, r.truthError.meanDy, 0.03);
    EXPECT_EQ(static_cast<int>(std::lround(r.zOffset)), r.trueZOffset);
    EXPECT_EQ(r.localisation.count, static_cast<int>(spots.size()));
    EXPECT_LT(r.localisation.rmsPx, 0.05);
  }

  const testutil::RunResult corrected = testutil::run(
      CORVANE_BIN, {"correction", dir.file("t.qf"), dir.file("truth.txt"), dir.file("c.qf")});
  ASSERT_EQ(corrected.exitStatus, 0) << corrected.out;
  std::vector<assess::ChannelReport> after;
  ASSERT_EQ(assess::assessStack(dir.file("c.qf"), assess::Options{}, nullptr, &info, &after), "");
  for (const assess::ChannelReport& r : after) {
    SCOPED_TRACE(r.index);
    EXPECT_EQ(r.pairs, static_cast<int>(spots.size()));
    EXPECT_LT(r.error.rmsPx, 0.06);
    EXPECT_NEAR(r.zOffset, 0.0, 0.1);
  }
}

TEST(AssessTest, FocusAndFitEdgeCases) {
  // Parabola through the best score and its neighbours; none at the ends;
  // the first of equal maxima.
  EXPECT_NEAR(assess::bestFocus({1.0, 3.0, 2.0}).position, 1.0 + 1.0 / 6.0, 1e-12);
  EXPECT_EQ(assess::bestFocus({5.0, 3.0, 2.0}).position, 0.0);
  EXPECT_EQ(assess::bestFocus({1.0, 4.0, 4.0, 1.0}).section, 1);
  EXPECT_EQ(assess::bestFocus({}).section, 0);

  // A flat window has no spot to fit; a window over the edge is refused.
  const int cols = 40, rows = 30;
  std::vector<float> flat(cols * rows, 10.0f);
  assess::Spot spot;
  EXPECT_FALSE(assess::fitSpot(flat.data(), cols, rows, 20, 15, 10.0, &spot));
  EXPECT_FALSE(assess::fitSpot(flat.data(), cols, rows, 3, 15, 10.0, &spot));
  EXPECT_TRUE(assess::findSpots(flat.data(), cols, rows).empty());
}

}  // namespace
