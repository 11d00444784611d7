// Calibration as a user meets it: targets with known misregistration written
// with the image stream library, the corvane binary run on them with every
// flag combination, the parameter file checked against the truth and then
// accepted by a correction run; and the targets that can't be used.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "model/model.h"
#include "model/target_stack.h"
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
  const bool high = kind == ModelKind::kRadialHigh || kind == ModelKind::kLinearHigh;
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
  if (high) {
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

struct CalibrationRunFiles {
  testutil::ScratchDir dir;
  std::string input = dir.file("target.qf");
  std::string output = dir.file("alignment.txt");
  std::string status = dir.file("status.txt");
  testutil::RunResult result;
};

void calibrate(CalibrationRunFiles& run, const std::vector<std::string>& options) {
  std::vector<std::string> args = {"calibration", run.input, run.output};
  args.insert(args.end(), options.begin(), options.end());
  run.result = testutil::run(CORVANE_BIN, args, kRunTimeout);
}

Rows readRows(const std::string& path) {
  Rows rows;
  std::string text = path;
  testing::internal::CaptureStdout();
  readAlignmentParameter(text.data(), rows);
  testing::internal::GetCapturedStdout();
  return rows;
}

// The model of a row, in pixels of the calibration stack, as the correction
// reads it back.
Model rowModel(const TargetSpec& s, Rows rows, std::size_t index) {
  convertAlignmentParameterToPixels(rows, s.numRows, s.numCols, s.spacingX, s.spacingY, s.spacingZ);
  Model p{};
  for (int k = 0; k < kNumModelParameters; ++k) p[k] = rows[index][kSlotFirstParameter + k];
  return p;
}

ModelKind fittedKind(bool linear, bool high) {
  if (linear) return high ? ModelKind::kLinearHigh : ModelKind::kLinear;
  return high ? ModelKind::kRadialHigh : ModelKind::kRadial;
}

std::string expectedSkeleton(const std::string& iterationLines) {
  std::string text =
      "Calibration Started\n\n"
      "QF Input File Opened\n\n"
      "Reference Channel 605\n"
      "Locating Channel Focus Of Z Section...\n"
      "Channel Focus Of Z Section: 2\n\n"
      "Calibration in progress 6 percent\n\n";
  const char* waves[] = {"525", "680", "705"};
  const char* focus[] = {"2", "3", "1"};
  const char* progress[] = {"25", "50", "75"};
  for (int i = 0; i < 3; ++i) {
    text += std::string("Calibrating Channel ") + waves[i] + " Started\n" +
            "Locating Channel Focus Of Z Section...\n" + "Channel Focus Of Z Section: " + focus[i] +
            "\n" + iterationLines + "Calibrating Channel " + waves[i] + " Completed\n\n" +
            "Calibration in progress " + progress[i] + " percent\n\n";
  }
  text +=
      "QF Input File Closed\n\n"
      "Alignment Parameter Output File Opened\n"
      "Alignment Paramenter Output File Closed\n\n"
      "Calibration Completed\n\n";
  return text;
}

}  // namespace

TEST(CalibrationRun, EveryFlagCombinationRecoversTheTruthAndCorrects) {
  struct Case {
    const char* name;
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
  const Case cases[] = {
      {"radial", false, false, ModelKind::kRadial, 0.05, 0.1, {}, "Iteration 5\n"},
      {"linear",
       true,
       false,
       ModelKind::kLinear,
       0.05,
       0.1,
       {"-numIteration", "3"},
       "Iteration 3\n"},
      // The stage's figures are measured through the transform, which leaves
      // the polynomial out under the radial model: they show the distortion.
      {"radial, high order",
       false,
       true,
       ModelKind::kRadialHigh,
       0.1,
       0.4,
       {"-numIteration", "1"},
       "Iteration 1\n"},
      {"linear, high order",
       true,
       true,
       ModelKind::kLinearHigh,
       0.1,
       0.1,
       {"-numIteration", "2", "-maxResidual", "nan"},
       "Iteration 2\nIteration 1\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TargetSpec s = fourChannelTarget(c.truth);
    CalibrationRunFiles run;
    ASSERT_TRUE(targettest::writeTargetStack(run.input, s));
    std::vector<std::string> options = {"-referenceChannelIndex", "1", "-statusFile", run.status};
    if (c.linear) options.push_back("-doLinearModelFitting");
    if (c.high) options.push_back("-doHighOrderModelFitting");
    options.insert(options.end(), c.options.begin(), c.options.end());
    calibrate(run, options);
    ASSERT_EQ(run.result.exitStatus, 0) << run.result.out << run.result.err;
    EXPECT_EQ(run.result.out, expectedSkeleton(c.iterationLines));
    EXPECT_EQ(testutil::readFile(run.status), "100.00\nCalibration Completed");

    const Rows rows = readRows(run.output);
    ASSERT_EQ(rows.size(), 4u);
    const int channelOf[] = {0, 2, 3};
    for (int i = 0; i < 3; ++i) {
      const ChannelTruth& truth = s.channels[channelOf[i]];
      SCOPED_TRACE(truth.wavelength);
      const std::vector<double>& row = rows[i];
      EXPECT_EQ(row[kSlotWavelength], truth.wavelength);
      EXPECT_EQ(row[kSlotLinearFlag], c.linear ? 1.0 : 0.0);
      EXPECT_FLOAT_EQ(row[kSlotZOffset], (truth.focusSection - 2) * s.spacingZ);
      // Fit figures in physical units: the truncated mean of sub-pixel
      // distances is 0, the deviation small and the same on both axes.
      EXPECT_EQ(row[2], 0.0);
      EXPECT_EQ(row[3], 0.0);
      EXPECT_LT(row[4], c.deviationTolerance * s.spacingX);
      EXPECT_EQ(row[4], row[5]);
      bool anyHighOrder = false;
      for (int k = 15; k < kNumRowSlots; ++k) anyHighOrder |= row[k] != 0.0;
      EXPECT_EQ(anyHighOrder, c.high);

      const Model fitted = rowModel(s, rows, i);
      const double rms = targettest::mappingRms(s, truth.kind, truth.model.data(),
                                                fittedKind(c.linear, c.high), fitted.data());
      EXPECT_LT(rms, c.rmsTolerance);
    }
    const std::vector<double>& last = rows[3];
    const std::vector<double> expectedLast = {
        605, c.linear ? 1.0 : 0.0, 0, 0, 0, 0, 0, 512, 512, 0.1f, 0.1f, 0.25f};
    for (std::size_t k = 0; k < expectedLast.size(); ++k) {
      EXPECT_FLOAT_EQ(last[k], expectedLast[k]) << "final row slot " << k;
    }
    for (int k = 12; k < kNumRowSlots; ++k) EXPECT_EQ(last[k], 0.0) << "final row slot " << k;

    // The correction accepts the file.
    const testutil::RunResult correction = testutil::run(
        CORVANE_BIN, {"correction", run.input, run.output, run.dir.file("c.qf")}, kRunTimeout);
    EXPECT_EQ(correction.exitStatus, 0) << correction.out << correction.err;
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
  const std::string opened = "Calibration Started\n\nQF Input File Opened\n\n";
  const std::vector<double> unmeasured = {600, 1,         -0.1f,     -0.1f, -0.1f, -0.1f,
                                          0,   48 * 0.1f, 48 * 0.1f, 1,     1};
  struct Case {
    std::vector<ChannelTruth> channels;  // empty: no input
    double background;
    std::vector<std::string> options;
    int exitStatus;
    std::string out;  // the whole standard output, or its end when `tail`
    bool tail;
    std::string err;               // the start of standard error
    std::vector<double> firstRow;  // its leading slots, the rest 0.0
    std::size_t rows;              // 0: the output is not written
  };
  const Case cases[] = {
      {{},
       0.0,
       {},
       1,
       "Calibration Started\n\nCan Not Open QF Input File\n\n",
       false,
       "IMOpen 1",
       {},
       0},
      {{dark0, dark1},
       100.0,
       {"-referenceChannelIndex", "2"},
       1,
       opened + "Reference Channel Index Out Of Boundary\n\nCalibration Stopped\n",
       false,
       "",
       {},
       0},
      {{dark0},
       100.0,
       {"-doLinearModelFitting"},
       0,
       "Channel Focus Of Z Section: 0\n\nCalibration in progress 25 percent\n\n"
       "QF Input File Closed\n\nAlignment Parameter Output File Opened\n"
       "Alignment Paramenter Output File Closed\n\nCalibration Completed\n\n",
       true,
       "",
       {500, 1, 0, 0, 0, 0, 0, 96, 96, 0.1f, 0.1f, 0.25f},
       1},
      {{dark0, dark1},
       -5.0,
       {"-doLinearModelFitting"},
       0,
       "Calibrating Channel 600 Started\nLocating Channel Focus Of Z Section...\n"
       "Channel Focus Of Z Section: 0\nIteration 5\nCalibrating Channel 600 Completed\n\n"
       "Calibration in progress 50 percent\n\nQF Input File Closed\n\n"
       "Alignment Parameter Output File Opened\nAlignment Paramenter Output File Closed\n\n"
       "Calibration Completed\n\n",
       true,
       "",
       unmeasured,
       2},
      {{dark0},
       100.0,
       {"-o"},
       1,
       "QF Input File Closed\n\nCan Not Open Alignment Parameter Output File\n\n",
       true,
       "",
       {},
       0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    CalibrationRunFiles run;
    TargetSpec s = small;
    s.channels = c.channels;
    s.background = c.background;
    if (!c.channels.empty()) {
      ASSERT_TRUE(targettest::writeTargetStack(run.input, s));
    }
    testutil::writeFile(run.output, "earlier");
    std::vector<std::string> options = c.options;
    if (!options.empty() && options[0] == "-o")
      options.clear(), run.output = run.dir.file("missing/alignment.txt");
    calibrate(run, options);
    EXPECT_EQ(run.result.exitStatus, c.exitStatus) << run.result.out;
    const std::string& out = run.result.out;
    EXPECT_EQ(c.tail && out.size() >= c.out.size() ? out.substr(out.size() - c.out.size()) : out,
              c.out);
    EXPECT_EQ(run.result.err.substr(0, c.err.size()), c.err);
    EXPECT_TRUE(!c.err.empty() || run.result.err.empty()) << run.result.err;
    if (c.rows == 0) {
      EXPECT_TRUE(!testutil::fileExists(run.output) || testutil::readFile(run.output) == "earlier");
      continue;
    }
    const Rows rows = readRows(run.output);
    ASSERT_EQ(rows.size(), c.rows);
    std::vector<double> expected = c.firstRow;
    expected.resize(kNumRowSlots, 0.0);
    for (int k = 0; k < kNumRowSlots; ++k) EXPECT_FLOAT_EQ(rows[0][k], expected[k]) << k;
    // A correction accepts a file from an unusable target too.
    const testutil::RunResult correction = testutil::run(
        CORVANE_BIN, {"correction", run.input, run.output, run.dir.file("c.qf")}, kRunTimeout);
    EXPECT_EQ(correction.exitStatus, 0) << correction.out;
  }
}
