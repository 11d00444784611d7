// Black-box runs of the binary on inputs a hostile or careless user could
// give: outputs that name the input, Z offsets and shifts far outside any
// stack, spacings of 0 or NaN, stacks of 8-byte floats. Each run must end
// with a defined result whose output header agrees with its data, or with a
// refusal that leaves every input as it was.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"
#include "support/testutil.h"

namespace {

using testutil::readFile;
using testutil::run;
using testutil::RunResult;

constexpr int kSide = 32, kSections = 12, kChannels = 4;
constexpr float kWaves[kChannels] = {500, 510, 520, 530};

using PixelValue = std::function<double(int x, int y, int z, int w)>;

// Writes a square stack of pixel type `mode` (2: 4-byte float, 8: 8-byte
// float); type 8 sections go to the library as stored, 8 bytes a pixel. The
// spacing is set as the cell size over a sampling of 1, which takes a Z
// spacing of 0 or NaN too.
void writeStack(const std::string& path, int mode, int side, int nz, int nw, float dz,
                const PixelValue& value) {
  ASSERT_EQ(IMOpen(9, path.c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(9, side, side, nz, nw, 1, 0, mode), 0);
  const float cell[6] = {0.1f, 0.1f, dz, 90.0f, 90.0f, 90.0f};
  ASSERT_EQ(IMAlCel(9, cell), 0);
  for (int w = 0; w < nw; ++w) ASSERT_EQ(IMAlWav2(9, w, kWaves[w]), 0);
  std::vector<float> floats(side * side);
  std::vector<double> doubles(side * side);
  for (int w = 0; w < nw; ++w) {
    for (int z = 0; z < nz; ++z) {
      for (int i = 0; i < side * side; ++i) {
        doubles[i] = value(i % side, i / side, z, w);
        floats[i] = static_cast<float>(doubles[i]);
      }
      ASSERT_EQ(IMPosnZWT(9, z, w, 0), 0);
      const void* pixels = mode == 8 ? static_cast<void*>(doubles.data()) : floats.data();
      ASSERT_EQ(IMWrSec(9, static_cast<const float*>(pixels)), 0);
    }
  }
  ASSERT_EQ(IMWrHdr2(9, 1), 0);
  ASSERT_EQ(IMClose(9), 0);
}

// Values that a float holds exactly, so that both pixel types store the same.
double rampValue(int x, int y, int z, int w) {
  return (x * 7 + y * 3 + z * 11 + w * 5) % 97 * 1.25;
}

// A parameter file of identity rows for channels 0 to 2, each with its Z
// offset, and the final row for channel 3 (the calibration stack's values).
// Any white space separates values, so no fixed-width fields are needed.
void writeParameters(const std::string& path, const std::vector<std::string>& zOffsets) {
  auto zeros = [](int n) {
    std::string text;
    while (n-- > 0) text += " 0";
    return text;
  };
  const std::string centre = std::to_string(kSide * 0.05);
  std::string text;
  for (size_t c = 0; c < zOffsets.size(); ++c) {
    text += std::to_string(kWaves[c]) + zeros(5) + " " + zOffsets[c] + " " + centre + " " + centre +
            " 1" + zeros(17) + "\n";
  }
  const std::string side = std::to_string(kSide);
  text += std::to_string(kWaves[kChannels - 1]) + zeros(6) + " " + side + " " + side +
          " 0.1 0.1 0.1" + zeros(15);
  testutil::writeFile(path, text);
}

int32_t headerInt(const std::string& bytes, int offset) {
  int32_t v = 0;
  if (bytes.size() >= 1024) std::memcpy(&v, bytes.data() + offset, 4);
  return v;
}

class HostileInputTest : public ::testing::Test {
 protected:
  testutil::ScratchDir dir;
  std::string path(const std::string& name) const { return dir.file(name); }
  RunResult corvane(std::vector<std::string> args) {
    for (std::string& a : args) {
      if (a.find('.') != std::string::npos && a[0] != '-' && a.find(':') == std::string::npos)
        a = path(a);
    }
    return run(CORVANE_BIN, args);
  }
};

TEST_F(HostileInputTest, AnOutputThatIsAnInputIsRefusedBeforeAnythingIsWritten) {
  writeStack(path("x.qf"), 2, kSide, 3, 1, 0.2f, rampValue);
  writeParameters(path("p.txt"), {});
  ASSERT_EQ(link(path("x.qf").c_str(), path("hard.qf").c_str()), 0);
  ASSERT_EQ(symlink(path("x.qf").c_str(), path("soft.qf").c_str()), 0);
  const std::string stack = readFile(path("x.qf")), parameters = readFile(path("p.txt"));
  struct Case {
    std::vector<std::string> args;
    std::string refusal;
  } cases[] = {
      {{"correction", "x.qf", "p.txt", "x.qf"}, "QF Output File Is The QF Input File"},
      {{"correction", "x.qf", "p.txt", "soft.qf"}, "QF Output File Is The QF Input File"},
      {{"correction", "x.qf", "p.txt", "p.txt"},
       "QF Output File Is The Alignment Parameter Input File"},
      {{"correction", "x.qf", "p.txt", "o.qf", "-statusFile", "hard.qf"},
       "Status File Is The QF Input File"},
      {{"correction", "x.qf", "p.txt", "o.qf", "-statusFile", "p.txt"},
       "Status File Is The Alignment Parameter Input File"},
      {{"calibration", "x.qf", "soft.qf"}, "Alignment Parameter Output File Is The QF Input File"},
      {{"calibration", "x.qf", "o.txt", "-statusFile", "x.qf"}, "Status File Is The QF Input File"},
      // Files not written yet: the same path, however spelled.
      {{"correction", "x.qf", "p.txt", "o.qf", "-statusFile", "./o.qf"},
       "Status File Is The QF Output File"},
      {{"calibration", "x.qf", "o.txt", "-statusFile", "o.txt"},
       "Status File Is The Alignment Parameter Output File"},
  };
  for (const Case& c : cases) {
    const RunResult r = corvane(c.args);
    EXPECT_EQ(r.exitStatus, 1) << c.refusal;
    EXPECT_EQ(r.out, c.refusal + "\n\n");
    EXPECT_EQ(readFile(path("x.qf")), stack) << c.refusal;
    EXPECT_EQ(readFile(path("p.txt")), parameters) << c.refusal;
    EXPECT_FALSE(testutil::fileExists(path("o.qf")) || testutil::fileExists(path("o.txt")));
  }
}

// Every combination of offsets, shifts and spacings ends in the documented
// number of sections, and the file holds exactly the sections its header
// claims: one 4-byte float section per (section, channel).
TEST_F(HostileInputTest, ZAlignmentGivesTheDocumentedSectionsWhateverTheValues) {
  const float nan = std::nanf("");
  struct Case {
    float dz;
    std::vector<std::string> offsets;  // of channels 0 to 2, in the file
    std::string zShift;                // empty: none
    int sections;
  } cases[] = {// In range, shifting as before; then offsets and shifts out of range.
               // clang-format off
      {0.125f, {"0", "0", "0"}, "0:0.25:0:0", 10}, {1.0f, {"1", "2", "2"}, "", 10},
      {0.125f, {"0", "0", "0"}, "268435455.875:-268435456:0:0", kSections},
      {0.125f, {"0", "0", "0"}, "1e300:0:0:-1e300", kSections},
      {1.0f, {"2147483648", "-2147483904", "0"}, "", kSections},
      {1.0f, {"0.5", "-2.5", "nan"}, "", kSections}, {0.0f, {"0", "0", "0"}, "", kSections},
      {nan, {"1", "0", "0"}, "", kSections}};
  // clang-format on
  int k = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "case " << k++ << " -zShift " << c.zShift);
    writeStack(path("t.qf"), 2, kSide, kSections, kChannels, c.dz, rampValue);
    writeParameters(path("p.txt"), c.offsets);
    std::vector<std::string> args{"correction", "t.qf", "p.txt", "o.qf"};
    if (!c.zShift.empty()) args.insert(args.end(), {"-zShift", c.zShift});
    const RunResult r = corvane(args);
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    const std::string out = readFile(path("o.qf"));
    EXPECT_EQ(headerInt(out, 8), c.sections * kChannels);
    const int64_t pixelBytes = int64_t{c.sections} * kChannels * kSide * kSide * 4;
    EXPECT_EQ(static_cast<int64_t>(out.size()), 1024 + headerInt(out, 92) + pixelBytes);
    unlink(path("o.qf").c_str());
  }
}

// A stack of 8-byte floats is read as stored: the correction gives what the
// same values stored as 4-byte floats give, and the calibration finds the
// focus offset.
TEST_F(HostileInputTest, EightByteFloatStacksGiveWhatFloatStacksGive) {
  writeStack(path("f.qf"), 2, kSide, kSections, kChannels, 0.125f, rampValue);
  writeStack(path("d.qf"), 8, kSide, kSections, kChannels, 0.125f, rampValue);
  writeParameters(path("p.txt"), {"0", "0.25", "0"});
  ASSERT_EQ(corvane({"correction", "f.qf", "p.txt", "of.qf"}).exitStatus, 0);
  const RunResult corrected = corvane({"correction", "d.qf", "p.txt", "od.qf"});
  EXPECT_EQ(corrected.exitStatus, 0) << corrected.err;
  EXPECT_EQ(readFile(path("od.qf")), readFile(path("of.qf")));

  // Calibration: channel 0 has its contrast in section 0, channel 1 in section
  // 2, so the row of channel 1 carries a Z offset of 2 sections of 0.2. There
  // are no spots, so that no fit prolongs the run.
  writeStack(path("sd.qf"), 8, 16, 3, 2, 0.2f, [](int x, int y, int z, int w) {
    return 100.0 + (x + y) * (z == 2 * w ? 40.0 : 2.0);
  });
  const RunResult calibrated =
      run(CORVANE_BIN, {"calibration", path("sd.qf"), path("cd.txt"), "-numIteration", "1"}, 600.0);
  EXPECT_EQ(calibrated.exitStatus, 0) << calibrated.err;
  EXPECT_NE(readFile(path("cd.txt")).find("    0.40000001 "), std::string::npos);
}

}  // namespace
