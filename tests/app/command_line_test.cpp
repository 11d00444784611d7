// The command line as a user meets it: run the built binary and compare its
// standard output, standard error and exit status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/testutil.h"

namespace {

using testutil::corvaneBinary;
using testutil::run;

std::string usageText() {
  const std::string p = corvaneBinary();
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

struct Case {
  const char* name;
  std::vector<std::string> args;
  std::string expectedOut;  // "USAGE" stands for the usage text
  int expectedStatus;
};

void PrintTo(const Case& c, std::ostream* os) {
  *os << c.name;
}

class CommandLine : public ::testing::TestWithParam<Case> {};

TEST_P(CommandLine, PrintsAndExitsAsDocumented) {
  const Case& c = GetParam();
  auto result = run(corvaneBinary(), c.args, 20.0);
  ASSERT_FALSE(result.timedOut);
  std::string expected = c.expectedOut == "USAGE" ? usageText() : c.expectedOut;
  EXPECT_EQ(result.out, expected);
  EXPECT_EQ(result.exitStatus, c.expectedStatus);
}

const std::string kMissing = "/nonexistent/corvane/in.qf";

std::vector<std::string> calibrationWith(std::vector<std::string> options) {
  std::vector<std::string> args = {"calibration", kMissing, "/nonexistent/out.txt"};
  args.insert(args.end(), options.begin(), options.end());
  return args;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CommandLine,
    ::testing::Values(
        Case{"HelpAlone", {"-help"}, "USAGE", 0}, Case{"NoArguments", {}, "USAGE", 1},
        Case{"HelpWithMore", {"-help", "x"}, "USAGE", 1},
        Case{"UnknownMode", {"align", "a", "b"}, "USAGE", 1},
        Case{"CalibrationHelp", {"calibration", "-help"}, "USAGE", 1},
        Case{"CalibrationHelpAsOption", calibrationWith({"-help"}), "USAGE", 1},
        Case{"CalibrationTooFew", {"calibration", "a"}, "USAGE", 1},
        Case{"CalibrationNonOption", calibrationWith({"stray"}), "USAGE", 1},
        Case{"CalibrationMissingValue", calibrationWith({"-numIteration"}), "USAGE", 1},
        Case{"CalibrationUnknownOption", calibrationWith({"-zShift", "1"}), "USAGE", 1},
        Case{"CaseSensitive", calibrationWith({"-numiteration", "3"}), "USAGE", 1},
        Case{"IterationZero", calibrationWith({"-numIteration", "0"}),
             "numIteration value should be positive integer number.\n", 1},
        Case{"IterationText", calibrationWith({"-numIteration", "abc"}),
             "numIteration value should be positive integer number.\n", 1},
        Case{"IterationTrailingText", calibrationWith({"-numIteration", "3x"}),
             kAcceptedCalibration, 1},
        Case{"ReferenceText", calibrationWith({"-referenceChannelIndex", "abc"}),
             kAcceptedCalibration, 1},
        Case{"ReferenceNegative", calibrationWith({"-referenceChannelIndex", "-1"}),
             "referenceChannelIndex value should be zero or positive integer number.\n", 1},
        Case{"ResidualZero", calibrationWith({"-maxResidual", "0"}),
             "maxResidual value should be positive number.\n", 1},
        Case{"ResidualNan", calibrationWith({"-maxResidual", "nan"}), kAcceptedCalibration, 1},
        Case{"GridNegative", calibrationWith({"-gridThreshold", "-0.5"}),
             "gridThreshold value should be positive number.\n", 1},
        Case{"GridLarge", calibrationWith({"-gridThreshold", "5"}), kAcceptedCalibration, 1},
        Case{"GridNan", calibrationWith({"-gridThreshold", "nan"}), kAcceptedCalibration, 1},
        Case{"AllFlags",
             calibrationWith({"-doLinearModelFitting", "-doHighOrderModelFitting", "-statusFile",
                              "/nonexistent/dir/status"}),
             kAcceptedCalibration, 1},
        Case{"SixteenArguments",
             calibrationWith(std::vector<std::string>(12, "-doLinearModelFitting")),
             kAcceptedCalibration, 1},
        Case{"SeventeenArguments",
             calibrationWith(std::vector<std::string>(13, "-doLinearModelFitting")), "USAGE", 1},
        Case{"CorrectionTooFew", {"correction", "a", "b"}, "USAGE", 1},
        Case{"CorrectionNonOption", {"correction", "a", "b", "c", "stray"}, "USAGE", 1},
        Case{"CorrectionMissingValue", {"correction", "a", "b", "c", "-zShift"}, "USAGE", 1},
        Case{"CorrectionTenArguments",
             {"correction", "a", "b", "c", "-zShift", "1", "-zShift", "2", "-help"},
             "USAGE",
             1}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

// An unknown correction option is compared again without end: the parser
// hangs by design, so the run must still be going when the test gives up.
TEST(CommandLineHang, UnknownCorrectionOptionNeverReturns) {
  auto result = run(corvaneBinary(), {"correction", "a", "b", "c", "-help"}, 1.5);
  EXPECT_TRUE(result.timedOut);
  EXPECT_EQ(result.out, "");
}

}  // namespace
