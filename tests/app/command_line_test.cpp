// The command line as a user meets it: run the built binary and compare its
// standard output, standard error and exit status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/testutil.h"

namespace {

using testutil::run;

std::string usageText() {
  const std::string p = CORVANE_BIN;
  return "usage (1): " + p +
         " calibration \n"
         "           pathQFInputFile \n"
         "           pathAlignmentParameterOutputFile \n"
         "           [ -doLinearModelFitting ]\n"
         "           [ -doHighOrderModelFitting ]\n"
         "           [ -referenceChannelIndex value ]\n"
         "           [ -numIteration value ]\n"
         "           [ -maxResidual value ]\n"
         "           [ -gridThreshold value ]\n"
         "           [ -statusFile pathStatusFile ]\n"
         "           [ -help]\n"
         "\n"
         "usage (2): " +
         p +
         " correction \n"
         "           pathQFInputFile \n"
         "           pathAlignmentParameterInputFile \n"
         "           pathQFOutputFile \n"
         "           [ -zShift value0:valueN ]\n"
         "           [ -statusFile pathStatusFile ]\n"
         "           [ -help]\n";
}

// What an accepted calibration command line prints when its input is missing:
// proof that parsing let it through to the driver.
const char* kAcceptedCalibration = "Calibration Started\n\nCan Not Open QF Input File\n\n";

std::vector<std::string> calibrationWith(std::vector<std::string> options) {
  std::vector<std::string> args = {"calibration", "/nonexistent/corvane/in.qf",
                                   "/nonexistent/out.txt"};
  args.insert(args.end(), options.begin(), options.end());
  return args;
}

TEST(CommandLine, PrintsAndExitsAsDocumented) {
  const std::string usage = usageText(), accepted = kAcceptedCalibration;
  const std::vector<std::string> lines(12, "-doLinearModelFitting");
  struct Case {
    std::vector<std::string> args;
    std::string out;
    int status;
  };
  // clang-format off
  const Case cases[] = {
      {{"-help"}, usage, 0}, {{}, usage, 1}, {{"-help", "x"}, usage, 1},
      {{"align", "a", "b"}, usage, 1}, {{"calibration", "-help"}, usage, 1},
      {calibrationWith({"-help"}), usage, 1}, {{"calibration", "a"}, usage, 1},
      {calibrationWith({"stray"}), usage, 1}, {calibrationWith({"-numIteration"}), usage, 1},
      {calibrationWith({"-zShift", "1"}), usage, 1},
      {calibrationWith({"-numiteration", "3"}), usage, 1},  // case sensitive
      {calibrationWith({"-numIteration", "0"}),
       "numIteration value should be positive integer number.\n", 1},
      {calibrationWith({"-numIteration", "3x"}), accepted, 1},
      {calibrationWith({"-referenceChannelIndex", "abc"}), accepted, 1},
      {calibrationWith({"-referenceChannelIndex", "-1"}),
       "referenceChannelIndex value should be zero or positive integer number.\n", 1},
      {calibrationWith({"-maxResidual", "0"}), "maxResidual value should be positive number.\n", 1},
      {calibrationWith({"-maxResidual", "nan"}), accepted, 1},
      {calibrationWith({"-gridThreshold", "-0.5"}),
       "gridThreshold value should be positive number.\n", 1},
      {calibrationWith({"-gridThreshold", "nan"}), accepted, 1},
      {calibrationWith({"-doLinearModelFitting", "-doHighOrderModelFitting", "-statusFile",
                        "/nonexistent/dir/status"}), accepted, 1},
      {calibrationWith(lines), accepted, 1},  // sixteen arguments
      {calibrationWith(std::vector<std::string>(13, lines[0])), usage, 1},  // seventeen
      {{"correction", "a", "b"}, usage, 1}, {{"correction", "a", "b", "c", "stray"}, usage, 1},
      {{"correction", "a", "b", "c", "-zShift"}, usage, 1},
      {{"correction", "a", "b", "c", "-zShift", "1", "-zShift", "2", "-help"}, usage, 1},
  };
  // clang-format on
  for (const Case& c : cases) {
    std::string line;
    for (const std::string& a : c.args) line += a + " ";
    SCOPED_TRACE(line);
    const testutil::RunResult result = run(CORVANE_BIN, c.args, 20.0);
    ASSERT_FALSE(result.timedOut);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.exitStatus, c.status);
  }
}

// An unknown correction option is compared again without end: the parser
// hangs by design, so the run must still be going when the test gives up.
TEST(CommandLineHang, UnknownCorrectionOptionNeverReturns) {
  auto result = run(CORVANE_BIN, {"correction", "a", "b", "c", "-help"}, 1.5);
  EXPECT_TRUE(result.timedOut);
  EXPECT_EQ(result.out, "");
}

}  // namespace
