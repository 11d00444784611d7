// The target generator against its own truth: spots appear where the model
// says (pull direction included) in the section the Z offset says, the
// parameter file reads back to the applied models, the default density suits
// the calibration's detection rules, and a seed fixes the output bytes.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "spots/spots.h"
#include "support/testutil.h"
#include "tools/common/assess.h"
#include "tools/common/synth.h"

namespace {

// A small target: three channels, few sections, the default density.
synth::Config smallConfig(int linearFlag, bool highOrder) {
  synth::Config c;
  c.seed = 11;
  c.geometry.numCols = 320;
  c.geometry.numRows = 256;
  c.geometry.numZ = 12;
  c.geometry.wavelengths = {450.0f, 550.0f, 650.0f};
  c.linearFlag = linearFlag;
  c.highOrder = highOrder;
  c.bounds.zOffset = 2;
  return c;
}

std::vector<float> section(const std::string& path, int z, int w) {
  assess::StackInfo info;
  EXPECT_EQ(assess::readStackInfo(path, &info), "");
  std::vector<float> pixels;
  EXPECT_EQ(assess::readSection(path, info, z, w, 0, &pixels), "");
  return pixels;
}

struct GeometryCase {
  const char* name;
  int linearFlag;
  bool highOrder;
  synth::ChannelOverride channel1;  // empty: random
};

TEST(GeneratorTest, SpotsAppearWhereTheModelPutsThem) {
  const GeometryCase cases[] = {
      {"random radial", 0, false, {}},
      {"random linear with second order", 1, true, {}},
      {"given translation", 0, false, {{"tx", 5.0}, {"ty", -3.25}, {"dz", 2.0}}},
      {"given linear", 1, false, {{"magx", 1.004}, {"magy", 0.997}, {"rot", 0.004}, {"tx", -7.5}}},
      {"focus below the reference's", 0, false, {{"dz", -2.0}}},
  };
  for (const GeometryCase& gc : cases) {
    SCOPED_TRACE(gc.name);
    synth::Config config = smallConfig(gc.linearFlag, gc.highOrder);
    if (!gc.channel1.empty()) config.overrides[1] = gc.channel1;
    ASSERT_EQ(synth::validateConfig(config), "");
    const synth::Truth truth = synth::makeTruth(config);
    const std::vector<synth::Spot> spots = synth::makeSpots(config);
    testutil::ScratchDir dir;
    ASSERT_EQ(synth::writeTarget(dir.file("t.qf"), config, truth, spots, 2), "");

    for (int c = 0; c < 3; ++c) {
      const int focus = truth.focusSection + truth.channels[c].zOffset;
      std::vector<double> scores;  // the sharpest section is the channel's focus
      for (int z = 0; z < config.geometry.numZ; ++z) {
        const std::vector<float> pixels = section(dir.file("t.qf"), z, c);
        scores.push_back(assess::focusScore(pixels.data(), pixels.size()));
      }
      EXPECT_EQ(assess::bestFocus(scores).section, focus) << "channel " << c;
      const std::vector<float> pixels = section(dir.file("t.qf"), focus, c);
      double background, noise;
      assess::backgroundAndNoise(pixels.data(), pixels.size(), &background, &noise);
      for (const synth::Spot& s : spots) {
        const CorvanePoint2D q = synth::mapToChannel(truth, c, s.x, s.y);
        assess::Spot found;
        ASSERT_TRUE(assess::fitSpot(pixels.data(), config.geometry.numCols, config.geometry.numRows,
                                    static_cast<int>(std::lround(q.x)),
                                    static_cast<int>(std::lround(q.y)), background, &found));
        EXPECT_NEAR(found.x, q.x, 0.1) << "channel " << c;
        EXPECT_NEAR(found.y, q.y, 0.1) << "channel " << c;
      }
    }
    if (!gc.channel1.empty() && gc.channel1.count("tx") && !gc.channel1.count("rot")) {
      // Pull direction: content at reference p sits at p + t in the channel.
      const CorvanePoint2D q = synth::mapToChannel(truth, 1, spots[0].x, spots[0].y);
      EXPECT_NEAR(q.x - spots[0].x, 5.0, 1e-5);
      EXPECT_NEAR(q.y - spots[0].y, -3.25, 1e-5);
    }
    if (gc.channel1.count("dz")) {
      EXPECT_EQ(truth.channels[1].zOffset, gc.channel1.at("dz"));
    }
  }
}

TEST(GeneratorTest, ParameterFileReadsBackToTheAppliedModels) {
  for (int linearFlag : {0, 1}) {
    synth::Config config = smallConfig(linearFlag, linearFlag == 1);
    config.geometry.spacingZ = 0.2f;  // not a binary fraction
    config.reference = 1;
    const synth::Truth truth = synth::makeTruth(config);
    ASSERT_EQ(truth.rows.size(), 3u);
    testutil::ScratchDir dir;
    const std::string path = dir.file("truth.txt");
    writeAlignmentParameter(path.c_str(), truth.rows);
    std::vector<std::vector<double>> rows;
    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    readAlignmentParameter(name.data(), rows);
    const synth::Geometry& g = config.geometry;
    convertAlignmentParameterToPixels(rows, g.numRows, g.numCols, g.spacingX, g.spacingY,
                                      g.spacingZ);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[2][kSlotWavelength], 550.0);  // the reference closes the file
    int row = 0;
    for (int c : {0, 2}) {
      for (int k = 0; k < kNumModelParameters; ++k) {
        EXPECT_EQ(rows[row][kSlotFirstParameter + k], truth.channels[c].parameters[k])
            << "channel " << c << " element " << k;
      }
      EXPECT_EQ(static_cast<int>(rows[row][kSlotZOffset]), truth.channels[c].appliedShift);
      EXPECT_EQ(truth.channels[c].appliedShift, truth.channels[c].zOffset);
      ++row;
    }
  }
}

// The calibration keeps a spot when its blob above the 99.5th percentile has
// 16 to 299 pixels: with the default density every spot must survive
// prepareFocusImage in every channel.
TEST(GeneratorTest, DefaultDensitySuitsTheDetectionRules) {
  synth::Config config = smallConfig(0, false);
  config.geometry.wavelengths = {435.0f, 528.0f, 608.0f, 683.0f};
  const synth::Truth truth = synth::makeTruth(config);
  const std::vector<synth::Spot> spots = synth::makeSpots(config);
  testutil::ScratchDir dir;
  ASSERT_EQ(synth::writeTarget(dir.file("t.qf"), config, truth, spots, 2), "");
  const int cols = config.geometry.numCols, rows = config.geometry.numRows;
  for (int c = 0; c < 4; ++c) {
    const std::vector<float> pixels =
        section(dir.file("t.qf"), truth.focusSection + truth.channels[c].zOffset, c);
    std::vector<double> plane(pixels.begin(), pixels.end());
    prepareFocusImage(plane.data(), rows, cols);
    for (const synth::Spot& s : spots) {
      const CorvanePoint2D q = synth::mapToChannel(truth, c, s.x, s.y);
      const size_t i = static_cast<size_t>(std::lround(q.y)) * cols + std::lround(q.x);
      EXPECT_EQ(plane[i], pixels[i])
          << "channel " << c << ": spot at " << q.x << ", " << q.y << " was not kept";
    }
  }
}

TEST(GeneratorTest, LayoutsKeepSpotsApartAndInside) {
  for (synth::Layout layout : {synth::Layout::kGrid, synth::Layout::kRandom}) {
    synth::Config config = smallConfig(0, false);
    config.geometry.numCols = config.geometry.numRows = 1024;
    config.layout.layout = layout;
    const std::vector<synth::Spot> spots = synth::makeSpots(config);
    EXPECT_NEAR(static_cast<double>(spots.size()), 144.0, 5.0);
    for (size_t i = 0; i < spots.size(); ++i) {
      EXPECT_GT(std::min(spots[i].x, spots[i].y), 30.0);
      EXPECT_LT(std::max(spots[i].x, spots[i].y), 1024.0 - 31.0);
      for (size_t j = 0; j < i; ++j) {
        EXPECT_GE(std::hypot(spots[i].x - spots[j].x, spots[i].y - spots[j].y), 40.0);
      }
    }
  }
}

TEST(GeneratorTest, SameSeedSameBytesWhateverTheThreads) {
  testutil::ScratchDir dir;
  // 4 channels of 7 sections: the parallel writer's last batch is a partial one.
  const std::vector<std::string> common = {"--size",  "160x96",         "--sections", "7",
                                           "--quiet", "--max-z-offset", "2",          "--model",
                                           "linear",  "--high-order"};
  auto generate = [&](const std::string& out, const std::string& seed, const std::string& threads) {
    std::vector<std::string> args = common;
    args.insert(args.end(), {"--seed", seed, "--threads", threads, dir.file(out)});
    const testutil::RunResult r = testutil::run(CORVANE_SYNTH_BIN, args);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
  };
  generate("a", "5", "1");
  generate("b", "5", "2");
  generate("c", "6", "2");
  for (const char* file : {"target.qf", "specimen.qf", "truth.txt", "truth.json"}) {
    EXPECT_EQ(testutil::readFile(dir.file("a/") + file), testutil::readFile(dir.file("b/") + file))
        << file;
  }
  EXPECT_NE(testutil::readFile(dir.file("a/target.qf")),
            testutil::readFile(dir.file("c/target.qf")));
  const nlohmann::json truth = nlohmann::json::parse(testutil::readFile(dir.file("a/truth.json")));
  EXPECT_EQ(truth["seed"], 5);
  EXPECT_EQ(truth["model"], "linear");
  EXPECT_EQ(truth["channels"].size(), 4u);
}

TEST(GeneratorTest, CommandLine) {
  testutil::ScratchDir dir;
  const testutil::RunResult help = testutil::run(CORVANE_SYNTH_BIN, {"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("99.5th"), std::string::npos);
  struct Refused {
    std::vector<std::string> args;
    const char* message;
  };
  const Refused refused[] = {
      {{"--high-order", dir.path()}, "linear model"},
      {{"--size", "32", dir.path()}, "at least 64"},
      {{"--sections", "4", dir.path()}, "do not fit"},
      {{"--wavelengths", "500.2,500.7", dir.path()}, "whole nanometres"},
      {{"--channel", "0:tx=1", dir.path()}, "reference channel"},
      {{"--channel", "1:spin=1", dir.path()}, "unknown model key"},
      {{"--channel", "1:dz=0.5", dir.path()}, "whole number of sections"},
      {{"--bogus", dir.path()}, "bad option"},
      {{}, "OUTPUT_DIR"},
  };
  for (const Refused& r : refused) {
    const testutil::RunResult result = testutil::run(CORVANE_SYNTH_BIN, r.args);
    EXPECT_EQ(result.exitStatus, 2) << r.message;
    EXPECT_NE(result.err.find(r.message), std::string::npos) << result.err;
  }
}

// Background pixels of a spot-free section: the mean is offset plus
// background, the variance shot noise plus read noise, on both the exact
// Poisson branch (small means) and the normal one.
TEST(GeneratorTest, NoiseHasTheCamerasMeanAndVariance) {
  struct Case {
    double background, readNoise;
  };
  for (const Case& k : {Case{100.0, 3.0}, Case{5.0, 3.0}, Case{2.0, 0.0}}) {
    SCOPED_TRACE(k.background);
    synth::Config config = smallConfig(0, false);
    config.optics.spotPhotons = 0.0;
    config.optics.background = k.background;
    config.optics.readNoise = k.readNoise;
    const synth::Truth truth = synth::makeTruth(config);
    std::vector<float> pixels(static_cast<size_t>(config.geometry.numCols) *
                              config.geometry.numRows);
    synth::renderTargetSection(config, truth, {}, 1, 0, 3, pixels.data());
    double sum = 0.0, sumSq = 0.0;
    for (float v : pixels) sum += v;
    const double mean = sum / pixels.size();
    for (float v : pixels) sumSq += (v - mean) * (v - mean);
    const double variance = sumSq / (pixels.size() - 1);
    const double wantVariance = k.background + k.readNoise * k.readNoise;
    // Five standard errors of the mean.
    EXPECT_NEAR(mean, config.optics.cameraOffset + k.background,
                5.0 * std::sqrt(wantVariance / pixels.size()));
    EXPECT_NEAR(variance, wantVariance, 0.03 * wantVariance);
  }
}

// Time points share the content and differ in noise only.
TEST(GeneratorTest, TimePointsDifferInNoiseOnly) {
  synth::Config config = smallConfig(0, false);
  config.geometry.numTimes = 2;
  const synth::Truth truth = synth::makeTruth(config);
  const std::vector<synth::Spot> spots = synth::makeSpots(config);
  const size_t n = static_cast<size_t>(config.geometry.numCols) * config.geometry.numRows;
  std::vector<float> first(n), second(n);
  synth::renderTargetSection(config, truth, spots, 0, 0, truth.focusSection, first.data());
  synth::renderTargetSection(config, truth, spots, 0, 1, truth.focusSection, second.data());
  EXPECT_NE(first, second);
  const std::vector<assess::Spot> a =
      assess::findSpots(first.data(), config.geometry.numCols, config.geometry.numRows);
  const std::vector<assess::Spot> b =
      assess::findSpots(second.data(), config.geometry.numCols, config.geometry.numRows);
  ASSERT_EQ(a.size(), spots.size());
  const auto pairs = assess::pairSpots(a, b, 1.0);
  ASSERT_EQ(pairs.size(), spots.size());
  for (const auto& [i, j] : pairs)
    EXPECT_NEAR(std::hypot(a[i].x - b[j].x, a[i].y - b[j].y), 0.0, 0.1);
}

// The whole-pixel shift that best lines up section b with section a.
std::pair<int, int> bestShift(const std::vector<float>& a, const std::vector<float>& b, int cols,
                              int rows, int reach) {
  std::pair<int, int> best{0, 0};
  double bestScore = -1.0;
  for (int sy = -reach; sy <= reach; ++sy) {
    for (int sx = -reach; sx <= reach; ++sx) {
      double score = 0.0;
      for (int y = reach; y < rows - reach; ++y) {
        for (int x = reach; x < cols - reach; ++x) {
          score += static_cast<double>(a[y * cols + x]) * b[(y + sy) * cols + (x + sx)];
        }
      }
      if (score > bestScore) {
        bestScore = score;
        best = {sx, sy};
      }
    }
  }
  return best;
}

// The specimen carries the same misregistration as the target: with a pure
// translation and a Z offset, channel 1 is channel 0 moved by both.
TEST(GeneratorTest, SpecimenCarriesTheMisregistration) {
  synth::Config config = smallConfig(0, false);
  config.geometry.numCols = config.geometry.numRows = 128;
  config.optics.background = 0.0;
  config.optics.readNoise = 0.0;
  config.overrides[1] = {{"tx", 4.0}, {"ty", -3.0}, {"dz", 1.0}};
  // One structure seen alike in both channels makes the correlation clean.
  const synth::Truth truth = synth::makeTruth(config);
  synth::Specimen specimen = synth::makeSpecimen(config);
  for (auto& w : specimen.weights) w = {1.0, 1.0, 1.0};
  const int n = config.geometry.numCols * config.geometry.numRows;
  std::vector<float> reference(n), channel(n);
  const int z = truth.focusSection;
  synth::renderSpecimenSection(config, truth, specimen, 0, 0, z, reference.data());
  synth::renderSpecimenSection(config, truth, specimen, 1, 0, z + 1, channel.data());
  const auto shift =
      bestShift(reference, channel, config.geometry.numCols, config.geometry.numRows, 6);
  EXPECT_EQ(shift, std::make_pair(4, -3));
}

}  // namespace
