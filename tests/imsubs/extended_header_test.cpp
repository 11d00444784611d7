// Extended header: sizing arithmetic, the type judged by shape, the guards
// of the record calls, the value table with its refusals, copies between
// streams, and stacks of every type written, closed and opened again, also
// from a file in the opposite byte order made byte by byte here.
#include <gmock/gmock.h>

#include <cmath>
#include <functional>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

constexpr int kNx = 4, kNy = 3, kNz = 3, kNw = 2, kNt = 2;

class ExtendedHeaderTest : public ImsubsTest {
 protected:
  // A new stack of kNz x kNw x kNt sections of 4 x 3 floats on `iStream`.
  void openStack(int iStream, std::string const& name, int type) {
    ASSERT_EQ(IMOpen(iStream, file(name).c_str(), "new"), 0);
    ASSERT_EQ(IMCrHdr2(iStream, kNx, kNy, kNz, kNw, kNt, 0, 2), 0);
    if (type >= 1) {
      ASSERT_EQ(IMCrExHdr(iStream, type, 2), 0);
    }
  }
  // Every section's pixels, equal to the section number plus the pixel index.
  void writePixels(int iStream) {
    for (int sec = 0; sec < kNz * kNw * kNt; ++sec) {
      std::vector<float> pixels(kNx * kNy);
      for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = sec * 100.0f + i;
      ASSERT_EQ(IMPosn(iStream, sec, 0), 0);
      ASSERT_EQ(IMWrSec(iStream, pixels.data()), 0);
    }
  }
  void expectPixels(int iStream) {
    for (int sec = 0; sec < kNz * kNw * kNt; ++sec) {
      std::vector<float> pixels(kNx * kNy, -1.0f);
      ASSERT_EQ(IMPosn(iStream, sec, 0), 0);
      ASSERT_EQ(IMRdSec(iStream, pixels.data()), 0);
      EXPECT_EQ(pixels[5], sec * 100.0f + 5) << sec;
    }
  }
};

// Distinct values for one record of a section.
void recordFor(int sec, int ints, int floats, std::vector<int>& iv, std::vector<float>& fv) {
  iv.assign(static_cast<std::size_t>(std::max(ints, 1)), 0);
  fv.assign(static_cast<std::size_t>(std::max(floats, 1)), 0.0f);
  for (int k = 0; k < ints; ++k) iv[k] = sec * 1000 + k - 7;
  for (int k = 0; k < floats; ++k) fv[k] = sec + k * 0.125f + 0.5f;
}

struct SizeCase {
  char const* what;
  std::function<int(int)> size;
  int result;
  int extHdrSize;
  int type;
  int ints, floats;
  char const* message;
};

TEST_F(ExtendedHeaderTest, SizingArithmetic) {
  std::vector<SizeCase> const cases = {
      {"create, type 4, 3 blocks", [](int s) { return IMCrExHdr(s, 4, 3); }, 0, 5120, 4, 8, 32, ""},
      {"type 4, 10 sections", [](int s) { return IMAlExHdrType(s, 4, 1, 10); }, 0, 4096, 4, 8, 32,
       ""},
      {"type 4, no sections", [](int s) { return IMAlExHdrType(s, 4, 1, 0); }, 0, 3072, 4, 8, 32,
       ""},
      {"type 2, 3000 sections", [](int s) { return IMAlExHdrType(s, 2, 1, 3000); }, 0, 26624, 2, 0,
       2, ""},
      {"type 7", [](int s) { return IMAlExHdrType(s, 7, 1, 10); }, 0, 4096, 4, 8, 32,
       "IMAlExHdrType 1: 7 is an invalid ext header type. Switching to 4.\n"},
      {"type -1", [](int s) { return IMAlExHdrType(s, -1, 1, 10); }, 0, 4096, 4, 8, 32, ""},
      {"type 0", [](int s) { return IMAlExHdrType(s, 0, 1, 10); }, 0, 0, 0, 0, 0, ""},
      {"type only", [](int s) { return IMAlExHdrType(s, 1, 0, 10); }, 0, 5120, 1, 1, 1, ""},
      {"one int one float", [](int s) { return IMAlExHdrSize(s, 1, 1, 10); }, 0, 2048, 4, 1, 1, ""},
      {"fewer sections than the stack", [](int s) { return IMAlExHdrSize(s, 8, 32, 2); }, 0, 3072,
       4, 8, 32,
       "IMAlExHdrSize2 1: requested number of sections is less than current image size (2 < "
       "10).\n"},
      {"info as given", [](int s) { return IMAlExHdrInfo(s, 9, 777, 3, 5); }, 0, 777, 4, 3, 5,
       "IMAlExHdrInfo 1: 9 is an invalid ext header type. Switching to 4.\n"},
      {"info, negative size", [](int s) { return IMAlExHdrInfo(s, -2, -5, 1, 1); }, 0, 0, 4, 1, 1,
       ""},
      {"create, type 5", [](int s) { return IMCrExHdr(s, 5, 3); }, 702, 5120, 4, 8, 32,
       "IMCrExHdr 1: invalid ext header type (5).\n"},
  };
  for (SizeCase const& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(IMOpen(1, file("size").c_str(), "new"), 0);
    ASSERT_EQ(IMCrHdr2(1, 2, 2, 10, 1, 1, 0, 2), 0);  // default: type 4, 3 blocks
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(c.size(1), c.result); }), c.message);
    IMStreamRecord const* r = record(1);
    EXPECT_EQ(r->iExtHdrSize, c.extHdrSize);
    EXPECT_EQ(r->iExtHdrType, c.type);
    EXPECT_EQ(r->iNumExtInts, c.ints);
    EXPECT_EQ(r->iNumExtFloats, c.floats);
    int const room = c.extHdrSize - 1 - 4 * 10 * (c.ints + c.floats);
    EXPECT_EQ(IMRtFieldHdrSizeMax(1), room < 6 ? 0 : room);
    // Sizing repositions: the stream stands at the first pixel.
    EXPECT_EQ(dStreamFileTell(record(1)), 1024.0 + r->iExtHdrSize);
    IMClose(1);
  }
}

struct JudgeCase {
  int stored, fileType, ints, floats;
  float marker;
  int expected;
};

TEST_F(ExtendedHeaderTest, TypeIsJudgedByShapeWhenNotStored) {
  std::vector<JudgeCase> const cases = {
      {2, 100, 8, 32, 0.0f, 2},    {0, 100, 1, 1, 0.0f, 1}, {0, 0, 0, 2, 0.0f, 2},
      {0, 1, 8, 32, 0.0f, 3},      {0, 3, 8, 32, 0.5f, 4},  {0, 100, 8, 32, -0.001f, 4},
      {0, 100, 8, 32, 1e-6f, 3},   {0, 2, 8, 32, 0.5f, 0},  {0, 100, 2, 2, 0.0f, 0},
      {1024, 100, 8, 32, 0, 1024},
  };
  ASSERT_EQ(IMOpen(1, file("judge").c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(1, 2, 2, 1, 1, 1, 0, 2), 0);
  IMStreamRecord* r = record(1);
  for (JudgeCase const& c : cases) {
    SCOPED_TRACE(testing::Message() << c.stored << " " << c.fileType << " " << c.ints << "/"
                                    << c.floats << " " << c.marker);
    r->iExtHdrType = c.stored;
    r->iFileType = c.fileType;
    r->iNumExtInts = c.ints;
    r->iNumExtFloats = c.floats;
    r->pExtFloats[15] = c.marker;
    int type = -1;
    EXPECT_EQ(IMRtExHdrType(1, &type), 0);
    EXPECT_EQ(type, c.expected);
    int size, ints, floats;
    EXPECT_EQ(IMRtExHdrInfo(1, &type, &size, &ints, &floats), 0);
    EXPECT_EQ(type, c.expected);
    EXPECT_EQ(size, r->iExtHdrSize);
  }
}

struct ValueCase {
  int type;
  int valueId;
  double stored;
  int storeResult;
  int readResult;
  double read;
};

TEST_F(ExtendedHeaderTest, ValueTableWithItsRefusals) {
  std::vector<ValueCase> const cases = {
      {1, 0, 41.6, 0, 0, 42.0},  // integer 0 of type 1: rounded on store
      {1, 1, 0.1, 0, 0, static_cast<double>(0.1f)},
      {1, 2, 5.0, 701, 701, 0.0},
      {2, 0, 2.5, 0, 0, 2.5},
      {2, 1, -7.25, 0, 0, -7.25},
      {2, 2, 1.0, 701, 701, 0.0},
      {3, 15, 0.1, 0, 0, 0.10000000149011612},
      {3, 16, 1.0, 701, 701, 0.0},
      {3, 1000, 1.0, 701, 701, 0.0},
      {4, 20, 3.5, 0, 0, 3.5},
      {4, 21, 1.0, 701, 701, 0.0},
      {4, 1000, 41.99999999995, 0, 0, 42.0 + 1e-10},  // integers truncate after the nudge
      {4, 1004, -3.0, 0, 0, -2.0 + 1e-10},            // which lifts a negative whole value by one
      {4, 1005, 1.0, 701, 701, 0.0},
      {4, -1, 1.0, 701, 701, 0.0},
  };
  for (ValueCase const& c : cases) {
    SCOPED_TRACE(testing::Message() << "type " << c.type << " value " << c.valueId);
    openStack(1, "values", c.type);
    EXPECT_EQ(IMAlExHdrValueZWT(1, 2, 1, 1, c.valueId, c.stored), c.storeResult);
    double value = -99.0;
    EXPECT_EQ(IMRtExHdrValueZWT(1, 2, 1, 1, c.valueId, &value), c.readResult);
    EXPECT_EQ(value, c.read);
    // Neighbouring sections are untouched.
    EXPECT_EQ(IMRtExHdrValueZWT(1, 1, 1, 1, 0, &value), 0);
    EXPECT_EQ(value, 0.0);
    IMClose(1);
  }
}

TEST_F(ExtendedHeaderTest, TypesOutsideTheTableAreRefusedDifferently) {
  openStack(1, "odd", 4);
  record(1)->iExtHdrType = 9;
  double value = -1;
  EXPECT_EQ(IMRtExHdrValueZWT(1, 0, 0, 0, 0, &value), 1);
  EXPECT_EQ(value, 0.0);
  EXPECT_EQ(IMAlExHdrValueZWT(1, 0, 0, 0, 0, 1.0), 702);
}

TEST_F(ExtendedHeaderTest, RecordGuards) {
  openStack(1, "guards", 1);  // 12 sections of 8 bytes in a 3072-byte block
  std::vector<int> iv(8, 0);
  std::vector<float> fv(32, 0.0f);
  // The settled guard product, ahead of any coordinate test.
  EXPECT_EQ(IMRtExHdrZWT(1, 1000, 0, 0, iv.data(), fv.data()), 704);
  double value = -5;
  EXPECT_EQ(IMRtExHdrValueZWT(1, 1000, 0, 0, 0, &value), 704);
  EXPECT_EQ(value, -5.0);

  CaptureStderr();
  EXPECT_EQ(IMRtExHdr(1, 12, iv.data(), fv.data()), 602);
  EXPECT_EQ(IMRtExHdr(1, -1, iv.data(), fv.data()), 602);
  EXPECT_EQ(IMAlExHdr(1, -1, iv.data(), fv.data()), 704);
  EXPECT_EQ(IMAlExHdr(1, 400, iv.data(), fv.data()), 704);
  EXPECT_EQ(GetCapturedStderr(),
            "IMRtExHdr 1: invalid section number.\nIMRtExHdr 1: invalid section number.\n"
            "IMAlExHdr iStream 1: invalid section number (-1). Extended header is too small "
            "(3072 bytes).\n"
            "IMAlExHdr iStream 1: invalid section number (400). Extended header is too small "
            "(3072 bytes).\n");

  // Records that would run past the block are reported, not written there.
  IMStreamRecord* r = record(1);
  r->iNumExtFloats = 400;
  fv.assign(400, 0.0f);  // callers size their buffers for a whole record
  CaptureStderr();
  EXPECT_EQ(IMAlExHdrZWT(1, 1, 0, 0, iv.data(), fv.data()), 707);
  EXPECT_EQ(IMRtExHdrZWT(1, 1, 0, 0, iv.data(), fv.data()), 707);
  EXPECT_EQ(GetCapturedStderr(),
            "IMAlExHdrZWTP 1: extended header overrun. ZWTP=1 0 0 0\n"
            "IMRtExHdrZWTP 1: extended header overrun.\n");
}

TEST_F(ExtendedHeaderTest, FileWithoutExtendedHeader) {
  std::string const path = file("plain");
  ASSERT_EQ(IMOpen(1, path.c_str(), "new"), 0);
  int const size[3] = {3, 2, 2};
  int const sampling[3] = {1, 1, 1};
  ASSERT_EQ(IMCrHdr(1, size, sampling, 2, nullptr, 0), 0);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  ASSERT_EQ(IMClose(1), 0);
  EXPECT_EQ(fileSize(path), 1024);
  ASSERT_EQ(IMOpen(1, path.c_str(), "ro"), 0);
  int ints = -1, floats = -1, type = -1;
  EXPECT_EQ(IMRtExHdrSize(1, &ints, &floats), 704);
  EXPECT_EQ(ints, 0);
  EXPECT_EQ(IMRtExHdrType(1, &type), 0);
  EXPECT_EQ(type, 0);
  std::vector<int> iv(8);
  std::vector<float> fv(32);
  EXPECT_EQ(IMRtExHdrZWT(1, 0, 0, 0, iv.data(), fv.data()), 704);
  double value = 0;
  EXPECT_EQ(IMRtExHdrValueZWT(1, 0, 0, 0, 0, &value), 704);
  EXPECT_EQ(IMRtNumFields(1), 0);
}

TEST_F(ExtendedHeaderTest, EveryTypeSurvivesWriteCloseAndOpen) {
  for (int type = 1; type <= 4; ++type) {
    SCOPED_TRACE(type);
    std::string const name = "type" + std::to_string(type);
    openStack(1, name, type);
    int ints = 0, floats = 0;
    ASSERT_EQ(IMRtExHdrSize(1, &ints, &floats), 0);
    std::vector<int> iv;
    std::vector<float> fv;
    for (int sec = 0; sec < kNz * kNw * kNt; ++sec) {
      int iz, iw, it;
      ASSERT_EQ(IMRtZWTNum(1, &iz, &iw, &it, sec), 0);
      recordFor(sec, ints, floats, iv, fv);
      ASSERT_EQ(IMAlExHdrZWT(1, iz, iw, it, iv.data(), fv.data()), 0);
    }
    ASSERT_EQ(IMAlFieldChar(1, "Objective", "60x oil"), 0);
    ASSERT_EQ(IMAlFieldInt(1, "binning", -2), 0);
    ASSERT_EQ(IMAlFieldDouble(1, "exposure", 0.125), 0);
    ASSERT_EQ(IMAlFieldFloat(1, "gain", 1.5f), 0);
    char const blob[5] = {'a', '\n', '\r', 'b', '\n'};
    ASSERT_EQ(IMAlFieldBinary(1, "blob", blob, 5), 0);
    writePixels(1);
    ASSERT_EQ(IMWrHdr2(1, 1), 0);
    ASSERT_EQ(IMClose(1), 0);

    ASSERT_EQ(IMOpen(1, file(name).c_str(), "ro"), 0);
    int readType = 0;
    ASSERT_EQ(IMRtExHdrType(1, &readType), 0);
    EXPECT_EQ(readType, type);
    std::vector<int> backI;
    std::vector<float> backF;
    for (int sec = 0; sec < kNz * kNw * kNt; ++sec) {
      recordFor(sec, ints, floats, iv, fv);
      backI.assign(iv.size(), -1);
      backF.assign(fv.size(), -1.0f);
      ASSERT_EQ(IMRtExHdr(1, sec, backI.data(), backF.data()), 0);
      // Only the record's own words count; the padding of a type 2 isn't read.
      EXPECT_TRUE(std::equal(iv.begin(), iv.begin() + ints, backI.begin())) << sec;
      EXPECT_EQ(backF, fv) << sec;
    }
    EXPECT_EQ(IMRtNumFields(1), 5);
    char* text = nullptr;
    ASSERT_EQ(IMRtFieldChar(1, "objective", &text), 0);
    EXPECT_STREQ(text, "60x oil");
    IMFreeFieldContentsPtr(text);
    int binning = 0;
    ASSERT_EQ(IMRtFieldInt(1, "binning", &binning), 0);
    EXPECT_EQ(binning, -2);
    double exposure = 0;
    ASSERT_EQ(IMRtFieldDouble(1, "exposure", &exposure), 0);
    EXPECT_EQ(exposure, 0.125);
    float gain = 0;
    ASSERT_EQ(IMRtFieldFloat(1, "gain", &gain), 0);
    EXPECT_EQ(gain, 1.5f);
    char* data = nullptr;
    int size = 0;
    ASSERT_EQ(IMRtFieldBinary(1, "blob", &data, &size), 0);
    ASSERT_EQ(size, 5);
    EXPECT_EQ(std::string(data, 5), std::string(blob, 5));
    IMFreeFieldContentsPtr(data);
    expectPixels(1);
    IMClose(1);
  }
}

// A type 4 stack made byte by byte in the opposite byte order: header,
// records and a field section, then pixels.
std::vector<unsigned char> foreignStack(int extHdrSize) {
  RawHeader h;
  h.foreign = true;
  h.basic(kNx, kNy, kNz, kNw, kNt, 2, 100);
  h.put<int32_t>(hdroff::giExtHdrSize, extHdrSize);
  h.put<int16_t>(hdroff::gnNumExtHdrInts, 8);
  h.put<int16_t>(hdroff::gnNumExtHdrFloats, 32);
  std::vector<unsigned char> bytes = h.bytes;
  bytes.resize(static_cast<std::size_t>(kHeaderBytes + extHdrSize), 0);
  int const sections = kNz * kNw * kNt;
  std::vector<int> iv;
  std::vector<float> fv;
  for (int sec = 0; sec < sections; ++sec) {
    recordFor(sec, 8, 32, iv, fv);
    std::size_t const at = kHeaderBytes + static_cast<std::size_t>(sec) * 160;
    for (int k = 0; k < 8; ++k) putBytes(bytes, at + 4 * k, &iv[k], 4, true);
    for (int k = 0; k < 32; ++k) putBytes(bytes, at + 32 + 4 * k, &fv[k], 4, true);
  }
  std::string const fields = "Objective,c,7=60x oil\nbinning,i,2=-2\n\r";
  std::copy(fields.begin(), fields.end(),
            bytes.begin() + kHeaderBytes + static_cast<std::ptrdiff_t>(sections) * 160);
  for (int sec = 0; sec < sections; ++sec) {
    for (int i = 0; i < kNx * kNy; ++i) {
      float const pixel = sec * 100.0f + i;
      putBytes(bytes, bytes.size(), &pixel, 4, true);
    }
  }
  return bytes;
}

TEST_F(ExtendedHeaderTest, ForeignByteOrderIsSwappedInMemoryAndWrittenInHostOrder) {
  std::string const path = file("foreign");
  writeBytes(path, foreignStack(4096));
  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass == 0 ? "as made" : "after a rewrite");
    ASSERT_EQ(IMOpen(1, path.c_str(), "old"), 0);
    EXPECT_EQ(record(1)->iSwapped, pass == 0 ? 1 : 0);
    int type = 0;
    IMRtExHdrType(1, &type);
    EXPECT_EQ(type, 4);  // judged: float 7 of section 0 is 1.375
    std::vector<int> iv, backI(8);
    std::vector<float> fv, backF(32);
    for (int sec = 0; sec < kNz * kNw * kNt; ++sec) {
      recordFor(sec, 8, 32, iv, fv);
      ASSERT_EQ(IMRtExHdr(1, sec, backI.data(), backF.data()), 0);
      EXPECT_EQ(backI, iv) << sec;
      EXPECT_EQ(backF, fv) << sec;
    }
    int binning = 0;
    ASSERT_EQ(IMRtFieldInt(1, "binning", &binning), 0);
    EXPECT_EQ(binning, -2);
    char* text = nullptr;
    ASSERT_EQ(IMRtFieldChar(1, "OBJECTIVE", &text), 0);
    EXPECT_STREQ(text, "60x oil");
    IMFreeFieldContentsPtr(text);
    if (pass == 0) expectPixels(1);  // the rewrite leaves foreign pixels behind
    ASSERT_EQ(IMWrHdr2(1, 1), 0);
    IMClose(1);
  }
  // Header and records went out in host order.
  std::vector<unsigned char> const bytes = readBytes(path);
  EXPECT_EQ(hostValueAt<int16_t>(bytes, 96), -16224);
  EXPECT_EQ(hostValueAt<int32_t>(bytes, kHeaderBytes + 160 + 4), 1000 + 1 - 7);
  EXPECT_EQ(hostValueAt<float>(bytes, kHeaderBytes + 160 + 32), 1.5f);
}

TEST_F(ExtendedHeaderTest, ShortBlockKeepsTheStreamUsable) {
  std::string const path = file("short");
  std::vector<unsigned char> bytes = foreignStack(4096);
  bytes.resize(kHeaderBytes + 1000);
  writeBytes(path, bytes);
  CaptureStderr();
  EXPECT_EQ(IMOpen(1, path.c_str(), "ro"), 210);
  EXPECT_EQ(GetCapturedStderr(),
            "IMOpen 1: error reading extended header (1000,4096,ro,\"" + path + "\").\n");
  std::vector<int> iv, backI(8);
  std::vector<float> fv, backF(32);
  recordFor(2, 8, 32, iv, fv);
  ASSERT_EQ(IMRtExHdr(1, 2, backI.data(), backF.data()), 0);
  EXPECT_EQ(backI, iv);
  EXPECT_EQ(IMRtNumFields(1), 0);
}

TEST_F(ExtendedHeaderTest, CopiesBetweenStreams) {
  openStack(1, "src", 4);
  openStack(2, "dst", 4);
  std::vector<int> iv, backI(8);
  std::vector<float> fv, backF(32);
  for (int sec = 0; sec < kNz * kNw * kNt; ++sec) {
    recordFor(sec, 8, 32, iv, fv);
    ASSERT_EQ(IMAlExHdr(1, sec, iv.data(), fv.data()), 0);
  }
  ASSERT_EQ(IMAlFieldChar(1, "stage", "x"), 0);

  // One record.
  ASSERT_EQ(IMTrExHdr(2, 1, 0, 7), 0);
  recordFor(7, 8, 32, iv, fv);
  ASSERT_EQ(IMRtExHdr(2, 0, backI.data(), backF.data()), 0);
  EXPECT_EQ(backF, fv);
  CaptureStderr();
  EXPECT_EQ(IMTrExHdr(2, 1, 0, 500), 704);
  EXPECT_EQ(GetCapturedStderr(),
            "IMTrExHdr 1->2: extended header size (4096, 4096) is too small.\n");

  // A sub-stack: Z 1..2, wavelength 1 only, T 0..1, walked P, T, W, Z with
  // the target's coordinates counting from 0.
  ASSERT_EQ(IMAlZWT(2, 2, 1, 2, 0), 0);
  int const waves[2] = {0, 1};
  CaptureStdout();
  ASSERT_EQ(IMTrExHdr3(2, 1, 1, 2, 1, waves, 2, 0, 1, 1), 0);
  EXPECT_EQ(GetCapturedStdout(), "Transferring field 0: stage c 1 x\n");
  for (int t = 0; t < 2; ++t) {
    for (int z = 0; z < 2; ++z) {
      int srcSec = 0;
      ASSERT_EQ(IMRtSecNum(1, z + 1, 1, t, &srcSec), 0);
      recordFor(srcSec, 8, 32, iv, fv);
      ASSERT_EQ(IMRtExHdrZWT(2, z, 0, t, backI.data(), backF.data()), 0);
      EXPECT_EQ(backI, iv) << z << " " << t;
    }
  }
  EXPECT_EQ(IMRtNumFields(2), 1);

  record(2)->iExtHdrType = 3;
  CaptureStderr();
  EXPECT_EQ(IMTrExHdr(2, 1, 0, 0), 708);
  EXPECT_EQ(IMTrExHdr4(2, 1, 0, 0, 1, waves, 2, 0, 0, 1, 0, 0), 708);
  EXPECT_EQ(GetCapturedStderr(),
            "IMTrExHdr 1->2: extended header type mismatch (4/3)\n"
            "IMTrExHdr4 1->2: extended header type mismatch (4/3)\n");
}

TEST_F(ExtendedHeaderTest, HeaderCopyBringsTheBlockAlong) {
  openStack(1, "src", 2);
  openStack(2, "dst", 4);
  float const fv[2] = {3.5f, -1.0f};
  int iv[1] = {0};
  ASSERT_EQ(IMAlExHdrZWT(1, 2, 1, 1, iv, fv), 0);
  ASSERT_EQ(IMAlOrig(1, 5, 6, 7), 0);
  ASSERT_EQ(IMTrHdr(2, 1), 0);
  IMStreamRecord const* dst = record(2);
  EXPECT_EQ(dst->iStream, 2);
  EXPECT_EQ(dst->iExtHdrType, 2);
  EXPECT_EQ(dst->iExtHdrSize, record(1)->iExtHdrSize);
  EXPECT_EQ(dst->fOrigin[2], 7.0f);
  float back[2] = {};
  ASSERT_EQ(IMRtExHdrZWT(2, 2, 1, 1, iv, back), 0);
  EXPECT_EQ(back[0], 3.5f);
  EXPECT_NE(dst->pExtHdr, record(1)->pExtHdr);

  stderrOf([&] { EXPECT_EQ(IMTrHdr(2, 40), 3); });
}

}  // namespace
}  // namespace imtest
