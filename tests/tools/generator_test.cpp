// The target generator against its own truth: spots appear where the model
// says (pull direction included) in the section the Z offset says, survive
// the calibration's detection rules, and the parameter file reads back to
// the applied models; a seed fixes the output bytes whatever the threads.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "spots/spots.h"
#include "support/testutil.h"
#include "tools/common/assess.h"
#include "tools/common/synth.h"

namespace {

std::vector<float> section(const std::string& path, int z, int w) {
  assess::StackInfo info;
  std::vector<float> pixels;
  EXPECT_EQ(assess::readStackInfo(path, &info), "");
  EXPECT_EQ(assess::readSection(path, info, z, w, 0, &pixels), "");
  return pixels;
}

TEST(GeneratorTest, SpotsAppearWhereTheModelPutsThemAndSurviveDetection) {
  struct Case {
    int linearFlag;
    bool highOrder;
    synth::ChannelOverride channel1;  // empty: random
  };
  const Case cases[] = {
      {0, false, {}},
      {1, true, {}},
      {0, false, {{"tx", 5.0}, {"ty", -3.25}, {"dz", 2.0}}},
      {1, false, {{"magx", 1.004}, {"magy", 0.997}, {"rot", 0.004}, {"tx", -7.5}, {"dz", -2.0}}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(testing::Message() << k.linearFlag << k.highOrder << k.channel1.size());
    synth::Config config;
    config.seed = 11;
    config.geometry.numCols = 320;
    config.geometry.numRows = 256;
    config.geometry.numZ = 12;
    config.geometry.wavelengths = {450.0f, 550.0f, 650.0f, 683.0f};
    config.linearFlag = k.linearFlag;
    config.highOrder = k.highOrder;
    config.bounds.zOffset = 2;
    config.reference = k.linearFlag;
    if (!k.channel1.empty()) config.overrides[k.linearFlag == 1 ? 2 : 1] = k.channel1;
    ASSERT_EQ(synth::validateConfig(config), "");
    const synth::Truth truth = synth::makeTruth(config);
    const std::vector<synth::Spot> spots = synth::makeSpots(config);
    testutil::ScratchDir dir;
    ASSERT_EQ(synth::writeTarget(dir.file("t.qf"), config, truth, spots, 2), "");
    const int cols = config.geometry.numCols, rows = config.geometry.numRows;
    for (int c = 0; c < 4; ++c) {
      SCOPED_TRACE(c);
      const int focus = truth.focusSection + truth.channels[c].zOffset;
      std::vector<double> scores;  // the sharpest section is the channel's focus
      for (int z = 0; z < config.geometry.numZ; ++z) {
        const std::vector<float> pixels = section(dir.file("t.qf"), z, c);
        scores.push_back(assess::focusScore(pixels.data(), pixels.size()));
      }
      EXPECT_EQ(assess::bestFocus(scores).section, focus);
      const std::vector<float> pixels = section(dir.file("t.qf"), focus, c);
      std::vector<double> plane(pixels.begin(), pixels.end());
      prepareFocusImage(plane.data(), rows, cols);  // keeps blobs of 16 to 299 pixels
      double background, noise;
      assess::backgroundAndNoise(pixels.data(), pixels.size(), &background, &noise);
      for (const synth::Spot& s : spots) {
        const CorvanePoint2D q = synth::mapToChannel(truth, c, s.x, s.y);
        const int x = static_cast<int>(std::lround(q.x)), y = static_cast<int>(std::lround(q.y));
        assess::Spot found;
        ASSERT_TRUE(assess::fitSpot(pixels.data(), cols, rows, x, y, background, &found));
        EXPECT_NEAR(found.x, q.x, 0.1);
        EXPECT_NEAR(found.y, q.y, 0.1);
        EXPECT_EQ(plane[y * cols + x], pixels[y * cols + x])
            << "spot at " << x << ", " << y << " dropped";
      }
    }
    if (k.channel1.count("ty")) {  // pull: content at reference p sits at p + t in the channel
      const CorvanePoint2D q = synth::mapToChannel(truth, 1, spots[0].x, spots[0].y);
      EXPECT_NEAR(q.x - spots[0].x, 5.0, 1e-5);
      EXPECT_NEAR(q.y - spots[0].y, -3.25, 1e-5);
    }
    // The parameter file reads back to the applied models, the reference last.
    writeAlignmentParameter(dir.file("truth.txt").c_str(), truth.rows);
    std::string name = dir.file("truth.txt");
    std::vector<std::vector<double>> rows2;
    readAlignmentParameter(name.data(), rows2);
    const synth::Geometry& g = config.geometry;
    convertAlignmentParameterToPixels(rows2, g.numRows, g.numCols, g.spacingX, g.spacingY,
                                      g.spacingZ);
    ASSERT_EQ(rows2.size(), 4u);
    EXPECT_EQ(rows2[3][kSlotWavelength], g.wavelengths[config.reference]);
    for (int row = 0, c = 0; c < 4; ++c) {
      if (c == config.reference) continue;
      for (int p = 0; p < kNumModelParameters; ++p) {
        EXPECT_EQ(rows2[row][kSlotFirstParameter + p], truth.channels[c].parameters[p])
            << c << " " << p;
      }
      EXPECT_EQ(static_cast<int>(rows2[row++][kSlotZOffset]), truth.channels[c].zOffset);
      if (k.channel1.count("dz") && c == (k.linearFlag == 1 ? 2 : 1)) {
        EXPECT_EQ(truth.channels[c].zOffset, k.channel1.at("dz"));
      }
    }
  }
}

TEST(GeneratorTest, CommandLineAndSameSeedSameBytesWhateverTheThreads) {
  testutil::ScratchDir dir;
  // 4 channels of 7 sections: the parallel writer's last batch is a partial one.
  auto generate = [&](const std::string& out, const std::string& seed, const std::string& threads) {
    const testutil::RunResult r = testutil::run(
        CORVANE_SYNTH_BIN,
        {"--size", "160x96", "--sections", "7", "--quiet", "--max-z-offset", "2", "--model",
         "linear", "--high-order", "--seed", seed, "--threads", threads, dir.file(out)});
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

  const testutil::RunResult help = testutil::run(CORVANE_SYNTH_BIN, {"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("99.5th"), std::string::npos);
  const std::vector<std::pair<std::vector<std::string>, const char*>> refused = {
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
  for (const auto& [args, message] : refused) {
    const testutil::RunResult result = testutil::run(CORVANE_SYNTH_BIN, args);
    EXPECT_EQ(result.exitStatus, 2) << message;
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
  }
}

}  // namespace
