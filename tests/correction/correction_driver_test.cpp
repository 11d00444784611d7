// The correction run as a user meets it: stacks written with the image
// stream library, a parameter file from the writer, the corvane binary run in
// correction mode, and the output stack read back section by section.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "bench/stack_writer.h"
#include "imsubs/imsubs.h"
#include "model/model.h"
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
// in whole sections; or the final row.
std::vector<double> row(const StackSpec& s, float wave, std::vector<int> shift,
                        bool final = false) {
  std::vector<double> r(27, 0.0);
  r[0] = wave, r[1] = 1.0;
  if (final) {
    r[7] = s.nx, r[8] = s.ny, r[9] = s.dx, r[10] = s.dy, r[11] = s.dz;
    return r;
  }
  r[6] = shift[2] * s.dz, r[7] = (s.nx / 2) * s.dx, r[8] = (s.ny / 2) * s.dy;
  r[9] = r[10] = 1.0, r[13] = shift[0] * s.dx, r[14] = shift[1] * s.dy;
  return r;
}

void writeParameters(const std::string& path, const std::vector<std::vector<double>>& rows) {
  testing::internal::CaptureStdout();
  writeAlignmentParameter(path.c_str(), rows);
  testing::internal::GetCapturedStdout();
}

// What one output channel should hold: its input sections start at
// `firstInput` and its pixels are pulled from (x + shiftX, y + shiftY).
struct ExpectedChannel {
  int firstInput, shiftX, shiftY;
};

void checkOutput(const std::string& path, const StackSpec& in, int outputSections,
                 const std::vector<ExpectedChannel>& channels) {
  ASSERT_EQ(IMOpen(kTestStream, path.c_str(), "ro"), 0);
  int nz = 0, nw = 0, nt = 0, sequence = 0, mode = -1;
  float dx = 0, dy = 0, dz = 0;
  ASSERT_EQ(IMRtZWT(kTestStream, &nz, &nw, &nt, &sequence), 0);
  ASSERT_EQ(IMRtMode(kTestStream, &mode), 0);
  ASSERT_EQ(IMRtDel2(kTestStream, &dx, &dy, &dz), 0);
  EXPECT_EQ(std::vector<double>({double(nz), double(nw), double(nt), double(mode), dx, dy, dz}),
            std::vector<double>(
                {double(outputSections), double(in.nw), double(in.nt), 2.0, in.dx, in.dy, in.dz}));
  std::vector<float> section(in.nx * in.ny), want(section.size());
  for (int w = 0; w < in.nw; ++w) {
    const ExpectedChannel& e = channels[w];
    double lowest = INFINITY, highest = -INFINITY, sumOfMeans = 0.0;
    for (int t = 0; t < in.nt; ++t) {
      for (int k = 0; k < outputSections; ++k) {
        SCOPED_TRACE(testing::Message() << "channel " << w << ", time " << t << ", section " << k);
        const int z = e.firstInput + k;
        double sum = 0.0;
        for (int i = 0; i < in.nx * in.ny; ++i) {
          const int sx = i % in.nx + e.shiftX, sy = i / in.nx + e.shiftY;
          const bool inside = sx >= 0 && sx < in.nx && sy >= 0 && sy < in.ny;
          sum += want[i] = inside ? pixelValue(sx, sy, z, w, t) : 0.0f;
        }
        ASSERT_EQ(IMPosnZWT(kTestStream, k, w, t), 0);
        ASSERT_EQ(IMRdSec(kTestStream, section.data()), 0);
        EXPECT_EQ(section, want);
        // The running maximum starts at -1.0, by design.
        const double minimum = *std::min_element(want.begin(), want.end());
        const double maximum = std::max(-1.0, double(*std::max_element(want.begin(), want.end())));
        const double mean = sum / (in.nx * in.ny);
        // Values 0 to 4 carried over (or zeros), then minimum, maximum, mean.
        for (int id = 0; id < 8; ++id) {
          const double expected = id < 5    ? (in.extValues ? carriedValue(id, z, w, t) : 0.0)
                                  : id == 5 ? minimum
                                  : id == 6 ? maximum
                                            : mean;
          double value = 0.0;
          ASSERT_EQ(IMRtExHdrValueZWT(kTestStream, k, w, t, id, &value), 0);
          EXPECT_EQ(value, static_cast<float>(expected)) << "value " << id;
        }
        lowest = std::min(lowest, minimum);
        highest = std::max(highest, maximum);
        sumOfMeans += mean;
      }
    }
    float wave = 0, min = 0, max = 0, mean = 0;
    ASSERT_EQ(IMRtWav2(kTestStream, w, &wave), 0);
    ASSERT_EQ(IMRtWavMMM(kTestStream, w, &min, &max, &mean), 0);
    EXPECT_EQ(std::vector<float>({wave, min, max, mean}),
              std::vector<float>({in.waves[w], float(lowest), float(highest),
                                  float(sumOfMeans / (in.nt * outputSections))}));
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
// 2, 700 from 0. The offsets come from the file or from -zShift. One section
// ignores every offset, and without an extended header the carried values
// are zeros.
TEST(CorrectionRunTest, ResamplesShiftsInZAndRecordsStatistics) {
  StackSpec flat = kStack;
  flat.nz = 1, flat.nt = 1, flat.extValues = false;
  struct Case {
    StackSpec stack;
    std::vector<int> shifts;  // x, y and Z offset of the row for 600, then the row for 700
    std::vector<std::string> options;
    int outputSections;
    std::vector<ExpectedChannel> expected;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {kStack, {2, 1, 1, 0, 0, -1}, {}, 2, {{1, 0, 0}, {2, 2, 1}, {0, 0, 0}}},
      // 2.9 / 2.0 rounds half up to 1 section, -1.2 / 2.0 to -1; the file's
      // offsets are replaced altogether.
      {kStack, {2, 1, 5, -1, 3, 5}, {"-zShift", "0:2.9:-1.2"}, 2,
       {{1, 0, 0}, {2, 2, 1}, {0, -1, 3}}},
      {flat, {-3, 2, 4, 0, 0, -4}, {}, 1, {{0, 0, 0}, {0, -3, 2}, {0, 0, 0}}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases.data());
    testutil::ScratchDir dir;
    writeStack(dir.file("in.qf"), c.stack);
    writeParameters(dir.file("p.txt"),
                    {row(c.stack, 600.0f, {c.shifts.begin(), c.shifts.begin() + 3}),
                     row(c.stack, 700.0f, {c.shifts.begin() + 3, c.shifts.end()}),
                     row(c.stack, 500.0f, {}, true)});
    std::vector<std::string> args = {"correction", dir.file("in.qf"), dir.file("p.txt"),
                                     dir.file("out.qf")};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const testutil::RunResult r = testutil::run(CORVANE_BIN, args);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.out, kStdoutOfThreeChannels);
    checkOutput(dir.file("out.qf"), c.stack, c.outputSections, c.expected);
  }
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
  const std::string stopped = "\n\nCorrection Stopped\n";
  // clang-format off
  const std::vector<Case> cases = {
      {"no input stack", false, "", {}, "Can Not Open QF Input File" + stopped},
      {"wavelength without a row", true, "no 700", {},
       "Alignment Parameter For Wavelength 700 Unavailable" + stopped},
      {"too few -zShift values", true, "", {"-zShift", "1:2"},
       "Number Of Channels In QF Input File: 3\nNumber Of Z Shift For Channels: 2\n"
       "Different Number Of Channels" + stopped},
      {"output that cannot be created", true, "", {}, "Can Not Open QF Output File" + stopped,
       "no/such/out.qf", "performcorrection: can not open qf output file. \n"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testutil::ScratchDir dir;
    if (c.withInput) writeStack(dir.file("in.qf"), kStack);
    std::vector<std::vector<double>> rows = {row(kStack, 600.0f, {0, 0, 0}),
                                             row(kStack, 700.0f, {0, 0, 0}),
                                             row(kStack, 500.0f, {}, true)};
    if (c.parameters == "no 700") rows.erase(rows.begin() + 1);
    writeParameters(dir.file("p.txt"), rows);
    std::vector<std::string> args = {"correction", dir.file("in.qf"), dir.file("p.txt"),
                                     dir.file(c.output)};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const testutil::RunResult r = testutil::run(CORVANE_BIN, args);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find(c.errPart), std::string::npos) << r.err;
    ASSERT_GE(r.out.size(), c.expectedTail.size()) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - c.expectedTail.size()), c.expectedTail) << r.out;
    EXPECT_FALSE(testutil::fileExists(dir.file(c.output)));
  }
}

}  // namespace
