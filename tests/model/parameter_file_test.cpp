// The alignment parameter file from the outside: what the reader accepts and
// refuses, the writer's exact bytes, and values turned into integers (the
// conversion of rows into pixels is checked by the correction and
// calibration runs).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "model/model.h"
#include "support/testutil.h"

namespace {

using Rows = std::vector<std::vector<double>>;

const char kOpened[] = "Alignment Parameter Input File Opened\n";
const char kClosed[] = "Alignment Parameter Input File Closed\n\n";
const char kInvalid[] =
    "Alignment Parameter Input File Opened\n"
    "Invalid Alignment Parameter Input File\n\n"
    "Correction Stopped\n";

// `count` values 1, 2, 3, ... joined by `separator`.
std::string values(int count, const std::string& separator = " ", int first = 1) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    if (i > 0) text += separator;
    text += std::to_string(first + i);
  }
  return text;
}

std::string join(const std::vector<std::string>& fields) {
  std::string text;
  for (size_t i = 0; i < fields.size(); ++i) text += (i > 0 ? " " : "") + fields[i];
  return text;
}

// Runs the reader in a child with its standard output sent to standard error,
// where the death test can see it.
void readAndFail(const std::string& path) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  Rows rows;
  readAlignmentParameter(const_cast<char*>(path.c_str()), rows);
}

struct ReaderCase {
  const char* name;
  std::string content;
  int expectedRows;  // -1: the file is refused
};

TEST(ReadAlignmentParameterTest, AcceptsExactlyWhatTheWriterMakes) {
  // clang-format off
  const std::vector<ReaderCase> cases = {
      {"one row, no newline", values(27), 1}, {"two rows on one line", values(54), 2},
      {"rows on lines, any white space", values(27) + "\n" + values(27, "\t\n  ", 28), 2},
      {"nan and inf", "nan inf -inf " + values(24), 1},
      // 2^24 + 1 and 0.1 have no exact float: they arrive cut to a float.
      {"single precision", "16777217.00000000 0.10000000 2.5 " + values(24), 1},
      {"empty file", "", -1}, {"trailing newline", values(27) + "\n", -1},
      {"26 values", values(26), -1}, {"a short second row", values(27) + "\n" + values(26), -1},
      {"non-numeric token", values(4) + " abc " + values(22), -1},
      {"comma as separator", values(27, ","), -1}};
  // clang-format on
  testutil::ScratchDir dir;
  for (const ReaderCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.file("parameters.txt");
    testutil::writeFile(path, c.content);
    if (c.expectedRows < 0) {
      EXPECT_EXIT(readAndFail(path), testing::ExitedWithCode(1), testing::Eq(kInvalid));
      continue;
    }
    Rows rows = {{-7.0}};  // the reader appends after what is there
    testing::internal::CaptureStdout();
    readAlignmentParameter(const_cast<char*>(path.c_str()), rows);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(kOpened) + kClosed);
    ASSERT_EQ(static_cast<int>(rows.size()), c.expectedRows + 1);
    EXPECT_EQ(rows[0], std::vector<double>{-7.0});
    // Every value as its token read into a float.
    std::istringstream tokens(c.content);
    std::string token;
    for (std::size_t k = 0; tokens >> token; ++k) {
      const double want = std::strtof(token.c_str(), nullptr), got = rows[1 + k / 27].at(k % 27);
      EXPECT_TRUE(got == want || (std::isnan(got) && std::isnan(want))) << k << ": " << got;
    }
    for (int r = 1; r <= c.expectedRows; ++r) EXPECT_EQ(rows[r].size(), 27u);
  }
}

TEST(ReadAlignmentParameterTest, MissingFileStopsTheCorrection) {
  testutil::ScratchDir dir;
  EXPECT_EXIT(readAndFail(dir.file("absent.txt")), testing::ExitedWithCode(1),
              testing::Eq("Can Not Open Alignment Parameter Input File\n\nCorrection Stopped\n"));
}

TEST(WriteAlignmentParameterTest, ExactBytesAndNoNewlineAfterTheLastRow) {
  std::vector<double> channel(27, 0.0);
  channel[0] = 550.0;
  channel[1] = 1.0;
  channel[2] = 0.123456789;  // rounded at the eighth decimal
  channel[3] = -0.5;
  channel[26] = 1e-9;  // below the last decimal
  std::vector<double> last(27, 0.0);
  last[0] = NAN;
  last[1] = INFINITY;
  last[2] = -INFINITY;
  last[3] = 1234567.5;  // wider than the field: the field grows
  last[26] = -12.25;

  const std::string zero = "    0.00000000";
  std::vector<std::string> channelFields = {"  550.00000000", "    1.00000000", "    0.12345679",
                                            "   -0.50000000"};
  channelFields.resize(27, zero);
  std::vector<std::string> lastFields = {"           nan", "           inf", "          -inf",
                                         "1234567.50000000"};
  lastFields.resize(26, zero);
  lastFields.push_back("  -12.25000000");

  testutil::ScratchDir dir;
  const std::string path = dir.file("out.txt");
  testutil::writeFile(path, "an older file, longer than the new one ..." + std::string(5000, 'x'));
  testing::internal::CaptureStdout();
  writeAlignmentParameter(path.c_str(), {channel, last});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Alignment Parameter Output File Opened\n"
            "Alignment Paramenter Output File Closed\n\n");
  EXPECT_EQ(testutil::readFile(path), join(channelFields) + "\n" + join(lastFields));
}

TEST(WriteAlignmentParameterTest, FailuresToOpenAndToClose) {
  const Rows rows = {std::vector<double>(27, 1.0)};
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        writeAlignmentParameter("/nonexistent-directory/out.txt", rows);
      },
      testing::ExitedWithCode(1), testing::Eq("Can Not Open Alignment Parameter Output File\n\n"));

  // The full device accepts the open and fails the flush at close: reported,
  // and the run goes on.
  testing::internal::CaptureStdout();
  writeAlignmentParameter("/dev/full", rows);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Alignment Parameter Output File Opened\n"
            "Can Not Close Alignment Parameter Output File\n\n");
}

// Values of the file turned into integers: defined for every value a file
// can hold, unchanged for the ones in range.
TEST(ValueConversionTest, TruncatesTowardsZeroAndSaturatesOutOfRange) {
  const double inf = INFINITY;
  // clang-format off
  const std::pair<double, int> cases[] = {
      {2.9, 2}, {-2.9, -2}, {-0.5, 0}, {530.75, 530}, {2147483647.9, INT_MAX},
      {-2147483648.9, INT_MIN}, {2147483648.0, INT_MAX}, {-2147483904.0, INT_MIN},
      {inf, INT_MAX}, {-inf, INT_MIN}, {std::nan(""), 0}};
  // clang-format on
  for (const auto& [value, expected] : cases) EXPECT_EQ(truncateToInt(value), expected) << value;
}

}  // namespace
