// Calibration as a user meets it: targets with known misregistration, the
// corvane binary run on them with every flag combination and on one and on
// three threads, the parameter file checked against the truth and accepted by
// a correction run; and the targets that can't be used.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "bench/target_stack.h"
#include "model/model.h"
#include "support/testutil.h"

namespace {

using targettest::ChannelTruth;
using targettest::Model;
using targettest::ModelKind;
using targettest::TargetSpec;
using Rows = std::vector<std::vector<double>>;

constexpr double kRunTimeout = 300.0;

// Four channels; channel 1 is the reference. Channels 0, 2 and 3 carry
// distinct models of `kind`, and two of them a focus offset.
TargetSpec fourChannelTarget(ModelKind kind) {
  TargetSpec s;
  const bool linear = kind == ModelKind::kLinear || kind == ModelKind::kLinearHigh;
  const Model identity = targettest::identityModel(s, kind);
  Model a = identity, b = identity, c = identity;
  if (linear) {
    a[2] = 1.006, a[3] = 0.996, a[4] = 0.004, a[5] = -0.003, a[6] = 2.6, a[7] = -1.9;
    b[2] = 0.995, b[3] = 1.003, b[4] = -0.002, b[5] = 0.005, b[6] = -3.4, b[7] = 1.3;
    c[2] = 1.002, c[3] = 1.001, c[6] = 0.7, c[7] = 4.1;
  } else {
    a[2] = 1.004, a[3] = 0.004, a[4] = 3.2, a[5] = -2.1;
    b[2] = 0.997, b[3] = -0.003, b[4] = -1.5, b[5] = 4.25;
    c[2] = 1.001, c[3] = 0.0015, c[4] = 0.6, c[5] = 2.1;
  }
  if (kind == ModelKind::kRadialHigh || kind == ModelKind::kLinearHigh) {
    // Up to about half a pixel at the corners of the spot grid.
    a[8] = 0.12, a[13] = 6e-6, a[18] = 5e-6;
    b[14] = -0.1, b[16] = -5e-6, b[12] = 4e-6;
    c[11] = 4e-4, c[19] = 3e-6;
  }
  const ModelKind reference = linear ? ModelKind::kLinear : ModelKind::kRadial;
  s.channels = {{525.0f, 2, kind, a},
                {605.0f, 2, reference, targettest::identityModel(s, reference)},
                {680.0f, 3, kind, b},
                {705.0f, 1, kind, c}};
  return s;
}

// A run of the binary on `threads` threads (0: as the machine decides).
testutil::RunResult corvane(const std::vector<std::string>& args, int threads = 0) {
  if (threads > 0) setenv("OMP_NUM_THREADS", std::to_string(threads).c_str(), 1);
  const testutil::RunResult r = testutil::run(CORVANE_BIN, args, kRunTimeout);
  unsetenv("OMP_NUM_THREADS");
  return r;
}

Rows readRows(const std::string& path) {
  Rows rows;
  std::string text = path;
  testing::internal::CaptureStdout();
  readAlignmentParameter(text.data(), rows);
  testing::internal::GetCapturedStdout();
  return rows;
}

// Root mean square, over every pixel of the section, of the distance between
// the mappings of the true and the fitted model of a row, the row read back
// into pixels as the correction reads it.
double mappingRms(const TargetSpec& s, const ChannelTruth& truth, Rows rows, std::size_t index,
                  ModelKind fitted) {
  convertAlignmentParameterToPixels(rows, s.numRows, s.numCols, s.spacingX, s.spacingY, s.spacingZ);
  std::vector<CorvanePoint2D> grid;
  for (int r = 0; r < s.numRows; ++r) {
    for (int c = 0; c < s.numCols; ++c) grid.push_back({double(c), double(r)});
  }
  const auto a = targettest::applyModel(truth.kind, truth.model.data(), grid);
  const auto b = targettest::applyModel(fitted, &rows[index][kSlotFirstParameter], grid);
  double sum = 0.0;
  for (std::size_t i = 0; i < grid.size(); ++i) {
    sum += std::pow(a[i].x - b[i].x, 2) + std::pow(a[i].y - b[i].y, 2);
  }
  return std::sqrt(sum / grid.size());
}

const char kClosing[] =
    "QF Input File Closed\n\nAlignment Parameter Output File Opened\n"
    "Alignment Paramenter Output File Closed\n\nCalibration Completed\n\n";

std::string expectedSkeleton(const std::string& iterationLines) {
  std::string text =
      "Calibration Started\n\nQF Input File Opened\n\nReference Channel 605\n"
      "Locating Channel Focus Of Z Section...\nChannel Focus Of Z Section: 2\n\n"
      "Calibration in progress 6 percent\n\n";
  const char* waves[] = {"525", "680", "705"};
  const char* focus[] = {"2", "3", "1"};
  const char* progress[] = {"25", "50", "75"};
  for (int i = 0; i < 3; ++i) {
    text += std::string("Calibrating Channel ") + waves[i] +
            " Started\nLocating Channel Focus Of Z Section...\nChannel Focus Of Z Section: " +
            focus[i] + "\n" + iterationLines + "Calibrating Channel " + waves[i] +
            " Completed\n\nCalibration in progress " + progress[i] + " percent\n\n";
  }
  return text + kClosing;
}

}  // namespace

TEST(CalibrationRun, EveryFlagCombinationRecoversTheTruthOnAnyThreadCount) {
  struct Case {
    bool linear, high;
    ModelKind truth;
    double rmsTolerance;        // pixels, over the whole section
    double deviationTolerance;  // pixels, of the fit figure in the file
    std::vector<std::string> options;
    // Of each channel, counting down. The first pass measures sub-pixel
    // distances, a mean of 0.0, below the threshold; a NaN threshold never
    // stops the loop.
    std::string iterationLines;
  };
  // The stage's figures are measured through the transform, which leaves the
  // polynomial out under the radial model: they show the distortion.
  // clang-format off
  const Case cases[] = {
      {false, false, ModelKind::kRadial, 0.05, 0.1, {}, "Iteration 5\n"},
      {true, false, ModelKind::kLinear, 0.05, 0.1, {"-numIteration", "3"}, "Iteration 3\n"},
      {false, true, ModelKind::kRadialHigh, 0.1, 0.4, {"-numIteration", "1"}, "Iteration 1\n"},
      {true, true, ModelKind::kLinearHigh, 0.1, 0.1, {"-numIteration", "2", "-maxResidual", "nan"},
       "Iteration 2\nIteration 1\n"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "linear " << c.linear << ", high " << c.high);
    const TargetSpec s = fourChannelTarget(c.truth);
    testutil::ScratchDir dir;
    const std::string input = dir.file("t.qf"), output = dir.file("a.txt");
    ASSERT_TRUE(targettest::writeTargetStack(input, s));
    std::vector<std::string> args = {
        "calibration",     input, output, "-referenceChannelIndex", "1", "-statusFile",
        dir.file("status")};
    if (c.linear) args.push_back("-doLinearModelFitting");
    if (c.high) args.push_back("-doHighOrderModelFitting");
    args.insert(args.end(), c.options.begin(), c.options.end());
    const testutil::RunResult run = corvane(args, 1);
    ASSERT_EQ(run.exitStatus, 0) << run.out << run.err;
    EXPECT_EQ(run.out, expectedSkeleton(c.iterationLines));
    EXPECT_EQ(testutil::readFile(dir.file("status")), "100.00\nCalibration Completed");
    const std::string file = testutil::readFile(output);

    const Rows rows = readRows(output);
    ASSERT_EQ(rows.size(), 4u);
    const int channelOf[] = {0, 2, 3};
    const ModelKind fitted = c.linear ? (c.high ? ModelKind::kLinearHigh : ModelKind::kLinear)
                                      : (c.high ? ModelKind::kRadialHigh : ModelKind::kRadial);
    for (int i = 0; i < 3; ++i) {
      const ChannelTruth& truth = s.channels[channelOf[i]];
      SCOPED_TRACE(truth.wavelength);
      const std::vector<double>& row = rows[i];
      EXPECT_EQ(row[kSlotWavelength], truth.wavelength);
      EXPECT_EQ(row[kSlotLinearFlag], c.linear ? 1.0 : 0.0);
      EXPECT_FLOAT_EQ(row[kSlotZOffset], (truth.focusSection - 2) * s.spacingZ);
      // Fit figures in physical units: the truncated mean of sub-pixel
      // distances is 0, the deviation small and the same on both axes.
      EXPECT_TRUE(row[2] == 0.0 && row[3] == 0.0);
      EXPECT_LT(row[4], c.deviationTolerance * s.spacingX);
      EXPECT_EQ(row[4], row[5]);
      bool anyHighOrder = false;
      for (int k = 15; k < kNumRowSlots; ++k) anyHighOrder |= row[k] != 0.0;
      EXPECT_EQ(anyHighOrder, c.high);
      EXPECT_LT(mappingRms(s, truth, rows, i, fitted), c.rmsTolerance);
    }
    std::vector<double> last = {605,  c.linear ? 1.0 : 0.0, 0, 0, 0, 0, 0, 512, 512, 0.1f, 0.1f,
                                0.25f};
    last.resize(kNumRowSlots, 0.0);
    for (int k = 0; k < kNumRowSlots; ++k) EXPECT_FLOAT_EQ(rows[3][k], last[k]) << k;

    // Three threads give the same bytes; the correction accepts the file and
    // gives the same bytes on one and on three threads too.
    EXPECT_EQ(corvane(args, 3).out, run.out);
    EXPECT_TRUE(testutil::readFile(output) == file);
    std::string corrected[2];
    for (int threads : {1, 3}) {
      const testutil::RunResult r =
          corvane({"correction", input, output, dir.file("c.qf")}, threads);
      EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
      corrected[threads / 3] = testutil::readFile(dir.file("c.qf"));
    }
    EXPECT_GT(corrected[0].size(), 1024u);
    EXPECT_TRUE(corrected[0] == corrected[1]);
  }
}

// Targets that can't be used, and an output that can't be opened: the
// documented end, and an earlier file of the output's name untouched by a
// stopped run. A usable file holds the documented rows: for one channel the
// final row alone; where no spot fits, the start values and the unmeasured
// -1.0 errors scaled by the spacing.
TEST(CalibrationRun, UnusableTargetsEndAsDocumented) {
  TargetSpec small;
  small.numCols = small.numRows = 96;
  small.numZ = 3;
  small.spots = false;
  small.noise = 0.0;
  const Model identity = targettest::identityModel(small, ModelKind::kLinear);
  const ChannelTruth dark0{500.0f, 0, ModelKind::kLinear, identity};
  const ChannelTruth dark1{600.0f, 0, ModelKind::kLinear, identity};
  const std::string twoChannels =
      "Calibrating Channel 600 Started\nLocating Channel Focus Of Z Section...\n"
      "Channel Focus Of Z Section: 0\nIteration 5\nCalibrating Channel 600 Completed\n\n"
      "Calibration in progress 50 percent\n\n";
  struct Case {
    std::vector<ChannelTruth> channels;
    double background;
    std::vector<std::string> options;  // "-o": an output that can't be opened
    std::string out;                   // the end of standard output
    std::vector<double> firstRow;      // its leading slots, the rest 0.0; empty: no output
    std::size_t rows;
    std::string err = "", status = "";  // status: the file's last record, if checked
  };
  const std::vector<std::string> linear = {"-doLinearModelFitting"};
  // clang-format off
  const Case cases[] = {
      {{dark0, dark1}, 100.0, {"-referenceChannelIndex", "2"},
       "QF Input File Opened\n\nReference Channel Index Out Of Boundary\n\nCalibration Stopped\n",
       {}, 0},
      {{dark0}, 100.0, linear,
       std::string("Channel Focus Of Z Section: 0\n\nCalibration in progress 25 percent\n\n") +
           kClosing, {500, 1, 0, 0, 0, 0, 0, 96, 96, 0.1f, 0.1f, 0.25f}, 1},
      {{dark0, dark1}, -5.0, linear, twoChannels + kClosing,
       {600, 1, -0.1f, -0.1f, -0.1f, -0.1f, 0, 48 * 0.1f, 48 * 0.1f, 1, 1}, 2},
      {{dark0}, 100.0, {"-o"},
       "QF Input File Closed\n\nCan Not Open Alignment Parameter Output File\n\n", {}, 0},
      // "-cut": the file ends inside the last channel's last section. Its read
      // fails while the channel before is still being fitted, and the failure
      // must come where a one-thread run meets it.
      {{dark0, dark1, dark0}, -5.0, {"-cut"}, std::string("Calibrating Channel 600 Completed\n\n"
       "Calibration in progress 33 percent\n\nCalibrating Channel 500 Started\n"
       "Locating Channel Focus Of Z Section...\nReading QF Input File Failed\n\n"
       "Calibration Stopped\n"), {}, 0, "IMRdSec 1: only 9191 pixels read (EOF=1).\n        Success\n"
       "getFocusImageIndexPerChannel: IMRdSec failed.\n",
       "33.00\nCalibration in progress"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    testutil::ScratchDir dir;
    std::string input = dir.file("t.qf"), output = dir.file("a.txt");
    TargetSpec s = small;
    s.channels = c.channels;
    s.background = c.background;
    ASSERT_TRUE(targettest::writeTargetStack(input, s));
    testutil::writeFile(output, "earlier");
    std::vector<std::string> args = {"calibration", input, output, "-statusFile",
                                     dir.file("status")};
    if (c.options[0] == "-o") {
      args[2] = dir.file("missing/a.txt");
    } else if (c.options[0] == "-cut") {
      ASSERT_EQ(truncate(input.c_str(), testutil::readFile(input).size() - 100), 0);
    } else {
      args.insert(args.end(), c.options.begin(), c.options.end());
    }
    const testutil::RunResult r = corvane(args, 3);
    EXPECT_EQ(r.exitStatus, c.firstRow.empty() ? 1 : 0) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - std::min(r.out.size(), c.out.size())), c.out);
    EXPECT_EQ(r.err, c.err);
    if (!c.status.empty()) {
      EXPECT_EQ(testutil::readFile(dir.file("status")), c.status);
    }
    const testutil::RunResult one = corvane(args, 1);
    EXPECT_EQ(one.out + one.err, r.out + r.err);
    if (c.firstRow.empty()) {
      EXPECT_EQ(testutil::readFile(output), "earlier");
      continue;
    }
    const Rows rows = readRows(output);
    ASSERT_EQ(rows.size(), c.rows);
    std::vector<double> expected = c.firstRow;
    expected.resize(kNumRowSlots, 0.0);
    for (int k = 0; k < kNumRowSlots; ++k) EXPECT_FLOAT_EQ(rows[0][k], expected[k]) << k;
    // A correction accepts a file from an unusable target too.
    EXPECT_EQ(corvane({"correction", input, output, dir.file("c.qf")}).exitStatus, 0);
  }
}
