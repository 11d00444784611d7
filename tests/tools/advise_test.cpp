// corvane-assess --advise as a user runs it on a generated target: its
// counts must be the spot library's own, and its command line must name the
// advised threshold.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "app/settings.h"
#include "imsubs/imsubs.h"
#include "spots/spots.h"
#include "support/testutil.h"
#include "tools/common/synth.h"

namespace {

// Kept blobs of a cleaned section: the cleaning leaves the image mean or 0.0
// everywhere else, so they are the 4-connected blobs above the mean.
int keptBlobs(std::vector<double> plane, int numRows, int numCols) {
  double sum = 0.0;
  for (double v : plane) sum += v;
  const double mean = sum / static_cast<double>(plane.size());
  prepareFocusImage(plane.data(), numRows, numCols);
  std::vector<char> mask(plane.size());
  for (size_t i = 0; i < plane.size(); ++i) mask[i] = plane[i] > mean;
  std::vector<std::vector<int>> blobs;
  connectedComponentLabelingFour(mask.data(), blobs, numRows, numCols);
  return static_cast<int>(blobs.size());
}

TEST(AdviseTest, CountsAreTheLibrarysAndTheCommandNamesTheAdvisedThreshold) {
  synth::Config config;
  config.geometry.numCols = config.geometry.numRows = 320;
  config.geometry.numZ = 8;
  config.layout.pitch = 60;  // dense: the default threshold loses spots
  ASSERT_EQ(synth::validateConfig(config), "");
  testutil::ScratchDir dir;
  const std::string target = dir.file("t.qf");
  ASSERT_EQ(
      synth::writeTarget(target, config, synth::makeTruth(config), synth::makeSpots(config), 2),
      "");
  const testutil::RunResult r = testutil::run(CORVANE_ASSESS_BIN, {"--advise", target}, 120.0);
  ASSERT_EQ(r.exitStatus, 0) << r.err;

  // The default table: channel, wave, focus, kept, ...; compared with the
  // library's focus search and cleaning at the default threshold.
  const int numRows = 320, numCols = 320;
  gridThreshold = 0.995;
  std::istringstream lines(r.out.substr(r.out.find("(the default)")));
  std::string line;
  std::getline(lines, line);
  std::getline(lines, line);
  ASSERT_EQ(IMOpen(5, target.c_str(), "ro"), 0);
  std::vector<float> section(numRows * numCols);
  for (int w = 0; w < static_cast<int>(config.geometry.wavelengths.size()); ++w) {
    int channel = -1, focus = -1, kept = -1, libraryFocus = -2;
    double wave;
    ASSERT_TRUE(std::getline(lines, line));
    ASSERT_EQ(std::sscanf(line.c_str(), "%d %lf %d %d", &channel, &wave, &focus, &kept), 4) << line;
    getFocusImagePerChannel(5, w, 0, config.geometry.numZ, numRows, numCols, 4, 4, section.data(),
                            &libraryFocus);
    EXPECT_EQ(channel, w);
    EXPECT_EQ(focus, libraryFocus);
    EXPECT_EQ(kept,
              keptBlobs(std::vector<double>(section.begin(), section.end()), numRows, numCols));
  }
  IMClose(5);

  // The advised threshold is the one the command names.
  const size_t arrow = r.out.find("<- advised");
  ASSERT_NE(arrow, std::string::npos) << r.out;
  const double advised = std::stod(r.out.substr(r.out.rfind('\n', arrow) + 1));
  const size_t at = r.out.find("\ncorvane calibration " + target + " ");
  ASSERT_NE(at, std::string::npos) << r.out;
  std::istringstream command(r.out.substr(at + 1, r.out.find('\n', at + 1) - at - 1));
  std::vector<std::string> args;
  for (std::string word; command >> word;) args.push_back(word);
  ASSERT_GE(args.size(), 6u);
  EXPECT_EQ(args[args.size() - 2], "-gridThreshold");
  EXPECT_DOUBLE_EQ(std::stod(args.back()), advised);
}

}  // namespace
