// The correction run as a user meets it: stacks written with the image
// stream library, a parameter file from the writer, the corvane binary run in
// correction mode, and the output stack read back section by section.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"
#include "model/model.h"
#include "support/stack_writer.h"
#include "support/testutil.h"

namespace {

constexpr int kTestStream = 7;

struct StackSpec {
  int nx, ny, nz, nw, nt;
  std::vector<float> waves;
  float dx, dy, dz;
  bool extValues;  // with an extended header of type 4 holding values 0 to 4
};

// Distinct, exactly representable values: every position can be recognised.
float pixelValue(int x, int y, int z, int w, int t) {
  return static_cast<float>(x + 16 * y + 256 * z + 4096 * w + 16384 * t) * 0.5f - 100.0f;
}

double carriedValue(int valueId, int z, int w, int t) {
  return valueId * 1000.0 + z * 100.0 + w * 10.0 + t + 0.25;
}

void writeStack(const std::string& path, const StackSpec& s) {
  const testutil::StackLayout layout{s.nx, s.ny, s.nz, s.nw,    s.nt,
                                     s.dx, s.dy, s.dz, s.waves, s.extValues ? 5 : 0};
  const auto fill = [&](std::vector<float>& section, int z, int w, int t) {
    for (int y = 0; y < s.ny; ++y) {
      for (int x = 0; x < s.nx; ++x) section[y * s.nx + x] = pixelValue(x, y, z, w, t);
    }
  };
  ASSERT_TRUE(testutil::writeStack(path, layout, fill, kTestStream, carriedValue));
}

// A channel row of the linear model in physical units of the stack `s`:
// identity about the section's middle, a shift in whole pixels and a Z offset
// in whole sections.
std::vector<double> channelRow(const StackSpec& s, float wave, int shiftX, int shiftY,
                               int zOffset) {
  std::vector<double> row(27, 0.0);
  row[0] = wave;
  row[1] = 1.0;
  row[6] = zOffset * s.dz;
  row[7] = (s.nx / 2) * s.dx;
  row[8] = (s.ny / 2) * s.dy;
  row[9] = 1.0;
  row[10] = 1.0;
  row[13] = shiftX * s.dx;
  row[14] = shiftY * s.dy;
  return row;
}

std::vector<double> finalRow(const StackSpec& s, float wave) {
  std::vector<double> row(27, 0.0);
  row[0] = wave;
  row[1] = 1.0;
  row[7] = s.nx;
  row[8] = s.ny;
  row[9] = s.dx;
  row[10] = s.dy;
  row[11] = s.dz;
  return row;
}

void writeParameters(const std::string& path, const std::vector<std::vector<double>>& rows) {
  testing::internal::CaptureStdout();
  writeAlignmentParameter(path.c_str(), rows);
  testing::internal::GetCapturedStdout();
}

// What one output channel should hold: its input sections start at
// `firstInput` and its pixels are pulled from (x + shiftX, y + shiftY).
struct ExpectedChannel {
  int firstInput;
  int shiftX;
  int shiftY;
};

void checkOutput(const std::string& path, const StackSpec& in, int outputSections,
                 const std::vector<ExpectedChannel>& channels) {
  ASSERT_EQ(IMOpen(kTestStream, path.c_str(), "ro"), 0);
  int nz = 0, nw = 0, nt = 0, sequence = 0;
  ASSERT_EQ(IMRtZWT(kTestStream, &nz, &nw, &nt, &sequence), 0);
  EXPECT_EQ(nz, outputSections);
  EXPECT_EQ(nw, in.nw);
  EXPECT_EQ(nt, in.nt);
  int mode = -1;
  ASSERT_EQ(IMRtMode(kTestStream, &mode), 0);
  EXPECT_EQ(mode, 2);
  float dx = 0, dy = 0, dz = 0;
  ASSERT_EQ(IMRtDel2(kTestStream, &dx, &dy, &dz), 0);
  EXPECT_EQ(dx, in.dx);
  EXPECT_EQ(dy, in.dy);
  EXPECT_EQ(dz, in.dz);

  std::vector<float> section(in.nx * in.ny);
  for (int w = 0; w < in.nw; ++w) {
    const ExpectedChannel& e = channels[w];
    double lowest = 1.7976931348623157e308, highest = -1.0, sumOfMeans = 0.0;
    for (int t = 0; t < in.nt; ++t) {
      for (int k = 0; k < outputSections; ++k) {
        SCOPED_TRACE(testing::Message() << "channel " << w << ", time " << t << ", section " << k);
        const int z = e.firstInput + k;
        ASSERT_EQ(IMPosnZWT(kTestStream, k, w, t), 0);
        ASSERT_EQ(IMRdSec(kTestStream, section.data()), 0);
        double minimum = 1.7976931348623157e308, maximum = -1.0, sum = 0.0;
        for (int y = 0; y < in.ny; ++y) {
          for (int x = 0; x < in.nx; ++x) {
            const int sx = x + e.shiftX, sy = y + e.shiftY;
            const bool inside = sx >= 0 && sx < in.nx && sy >= 0 && sy < in.ny;
            const float want = inside ? pixelValue(sx, sy, z, w, t) : 0.0f;
            ASSERT_EQ(section[y * in.nx + x], want) << "at " << x << "," << y;
            minimum = std::min(minimum, static_cast<double>(want));
            maximum = std::max(maximum, static_cast<double>(want));
            sum += want;
          }
        }
        const double mean = sum / (in.nx * in.ny);
        double value = 0.0;
        const double expected[8] = {in.extValues ? carriedValue(0, z, w, t) : 0.0,
                                    in.extValues ? carriedValue(1, z, w, t) : 0.0,
                                    in.extValues ? carriedValue(2, z, w, t) : 0.0,
                                    in.extValues ? carriedValue(3, z, w, t) : 0.0,
                                    in.extValues ? carriedValue(4, z, w, t) : 0.0,
                                    minimum,
                                    maximum,
                                    mean};
        for (int id = 0; id < 8; ++id) {
          ASSERT_EQ(IMRtExHdrValueZWT(kTestStream, k, w, t, id, &value), 0);
          EXPECT_EQ(value, static_cast<float>(expected[id])) << "value " << id;
        }
        lowest = std::min(lowest, minimum);
        highest = std::max(highest, maximum);
        sumOfMeans += mean;
      }
    }
    float wave = 0, min = 0, max = 0, mean = 0;
    ASSERT_EQ(IMRtWav2(kTestStream, w, &wave), 0);
    EXPECT_EQ(wave, in.waves[w]);
    ASSERT_EQ(IMRtWavMMM(kTestStream, w, &min, &max, &mean), 0);
    EXPECT_EQ(min, static_cast<float>(lowest));
    EXPECT_EQ(max, static_cast<float>(highest));
    EXPECT_EQ(mean, static_cast<float>(sumOfMeans / (in.nt * outputSections)));
  }
  IMClose(kTestStream);
}

const StackSpec kStack = {8, 6, 4, 3, 2, {500.0f, 600.0f, 700.0f}, 0.5f, 0.25f, 2.0f, true};

const char kStdoutOfThreeChannels[] =
    "Correction Started\n\n"
    "Alignment Parameter Input File Opened\n"
    "Alignment Parameter Input File Closed\n\n"
    "QF Input File Opened\n\n"
    "QF Output File Opened\n\n"
    "Correcting Channel 500...\n\n"
    "Correction in progress 16 percent\n\n"
    "Correcting Channel 600...\n\n"
    "Correction in progress 50 percent\n\n"
    "Correcting Channel 700...\n\n"
    "Correction in progress 83 percent\n\n"
    "QF Input File Closed\n\n"
    "QF Output File Closed\n\n"
    "Correction Completed\n\n";

// Channel 500 is the reference (the final row) and is copied; 600 is pulled
// from two columns right and one row down; 700 is the identity. The Z offsets
// 0, 1 and -1 leave two of four sections: 500 reads from section 1, 600 from
// 2, 700 from 0. The offsets come from the file or from -zShift.
TEST(CorrectionRunTest, ResamplesShiftsInZAndRecordsStatistics) {
  struct Case {
    const char* name;
    std::vector<int> fileZOffsets;  // of the rows for 600 and 700
    std::vector<std::string> options;
  };
  const std::vector<Case> cases = {
      {"offsets from the file", {1, -1}, {}},
      // 2.9 / 2.0 rounds half up to 1 section, -1.2 / 2.0 to -1; the file's
      // offsets are replaced altogether.
      {"offsets from -zShift", {5, 5}, {"-zShift", "0:2.9:-1.2"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testutil::ScratchDir dir;
    writeStack(dir.file("in.qf"), kStack);
    writeParameters(dir.file("p.txt"), {channelRow(kStack, 600.0f, 2, 1, c.fileZOffsets[0]),
                                        channelRow(kStack, 700.0f, 0, 0, c.fileZOffsets[1]),
                                        finalRow(kStack, 500.0f)});
    std::vector<std::string> args = {"correction", dir.file("in.qf"), dir.file("p.txt"),
                                     dir.file("out.qf")};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const testutil::RunResult r = testutil::run(testutil::corvaneBinary(), args);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.out, kStdoutOfThreeChannels);
    checkOutput(dir.file("out.qf"), kStack, 2, {{1, 0, 0}, {2, 2, 1}, {0, 0, 0}});
  }
}

TEST(CorrectionRunTest, OneSectionIgnoresShiftsAndNoExtendedHeaderGivesZeros) {
  StackSpec flat = kStack;
  flat.nz = 1;
  flat.nt = 1;
  flat.extValues = false;
  testutil::ScratchDir dir;
  writeStack(dir.file("in.qf"), flat);
  writeParameters(dir.file("p.txt"), {channelRow(flat, 600.0f, -3, 2, 4),
                                      channelRow(flat, 700.0f, 0, 0, -4), finalRow(flat, 500.0f)});
  const testutil::RunResult r =
      testutil::run(testutil::corvaneBinary(),
                    {"correction", dir.file("in.qf"), dir.file("p.txt"), dir.file("out.qf")});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  checkOutput(dir.file("out.qf"), flat, 1, {{0, 0, 0}, {0, -3, 2}, {0, 0, 0}});
}

TEST(CorrectionRunTest, FailuresStopBeforeAnyOutputExists) {
  struct Case {
    const char* name;
    bool withInput;
    std::string parameters;  // empty: the usual three rows
    std::vector<std::string> options;
    std::string expectedTail;
    std::string output = "out.qf";
    std::string errPart = "";  // a part of standard error, if any is asked for
  };
  const std::vector<Case> cases = {
      {"no input stack", false, "", {}, "Can Not Open QF Input File\n\nCorrection Stopped\n"},
      {"parameter file ending in a newline",
       true,
       "\n",
       {},
       "Invalid Alignment Parameter Input File\n\nCorrection Stopped\n"},
      {"wavelength without a row",
       true,
       "no 700",
       {},
       "Alignment Parameter For Wavelength 700 Unavailable\n\nCorrection Stopped\n"},
      {"too few -zShift values",
       true,
       "",
       {"-zShift", "1:2"},
       "Number Of Channels In QF Input File: 3\nNumber Of Z Shift For Channels: 2\n"
       "Different Number Of Channels\n\nCorrection Stopped\n"},
      {"output that cannot be created",
       true,
       "",
       {},
       "Can Not Open QF Output File\n\nCorrection Stopped\n",
       "no/such/out.qf",
       "performcorrection: can not open qf output file. \n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testutil::ScratchDir dir;
    if (c.withInput) writeStack(dir.file("in.qf"), kStack);
    std::vector<std::vector<double>> rows = {channelRow(kStack, 600.0f, 0, 0, 0),
                                             channelRow(kStack, 700.0f, 0, 0, 0),
                                             finalRow(kStack, 500.0f)};
    if (c.parameters == "no 700") rows.erase(rows.begin() + 1);
    writeParameters(dir.file("p.txt"), rows);
    if (c.parameters == "\n") {
      testutil::writeFile(dir.file("p.txt"), testutil::readFile(dir.file("p.txt")) + "\n");
    }
    std::vector<std::string> args = {"correction", dir.file("in.qf"), dir.file("p.txt"),
                                     dir.file(c.output)};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const testutil::RunResult r = testutil::run(testutil::corvaneBinary(), args);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find(c.errPart), std::string::npos) << r.err;
    ASSERT_GE(r.out.size(), c.expectedTail.size()) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - c.expectedTail.size()), c.expectedTail) << r.out;
    EXPECT_FALSE(testutil::fileExists(dir.file(c.output)));
  }
}

}  // namespace
