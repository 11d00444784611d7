// Extended header: sizing arithmetic, the type judged by shape, the value
// table, the record guards, stacks of every type written and opened again,
// and copies between streams.
#include "imsubs_fixture.h"

namespace imtest {
namespace {

constexpr int kNx = 4, kNy = 3, kNz = 3, kNw = 2, kNt = 2, kSections = kNz * kNw * kNt;

// Distinct values for the record of a section.
void recordFor(int sec, int ints, int floats, Ints& iv, Floats& fv) {
  iv.assign(std::max(ints, 1), 0);
  fv.assign(std::max(floats, 1), 0.0f);
  for (int k = 0; k < ints; ++k) iv[k] = sec * 1000 + k - 7;
  for (int k = 0; k < floats; ++k) fv[k] = sec + k * 0.125f + 0.5f;
}

class ExtendedHeaderTest : public ImsubsTest {
 protected:
  // A new stack of kSections sections of 4 x 3 floats, with an extended
  // header of `type` (0: the creator's default).
  void openStack(int iStream, std::string const& name, int type) {
    create(iStream, name, kNx, kNy, kNz, kNw, kNt);
    if (type >= 1) {
      ASSERT_EQ(IMCrExHdr(iStream, type, 2), 0);
    }
  }
  // Every section's records must read back as recordFor gives them.
  void expectRecords(int iStream, int ints, int floats) {
    Ints iv, backI;
    Floats fv, backF;
    for (int sec = 0; sec < kSections; ++sec) {
      recordFor(sec, ints, floats, iv, fv);
      backI.assign(iv.size(), -1);
      backF.assign(fv.size(), -1.0f);
      ASSERT_EQ(IMRtExHdr(iStream, sec, backI.data(), backF.data()), 0);
      EXPECT_TRUE(std::equal(iv.begin(), iv.begin() + ints, backI.begin())) << sec;
      EXPECT_EQ(backF, fv) << sec;
    }
  }
};

TEST_F(ExtendedHeaderTest, SizingArithmetic) {
  struct Case {
    std::function<int()> size;
    int result;
    Ints expected;  // size, type, ints, floats
    std::string message;
  };
  std::string const invalid = " is an invalid ext header type. Switching to 4.\n";
  // clang-format off
  std::vector<Case> const cases = {
      {[] { return IMCrExHdr(1, 4, 3); }, 0, {5120, 4, 8, 32}, ""},
      {[] { return IMAlExHdrType(1, 4, 1, 10); }, 0, {4096, 4, 8, 32}, ""},
      {[] { return IMAlExHdrType(1, 4, 1, 0); }, 0, {3072, 4, 8, 32}, ""},
      {[] { return IMAlExHdrType(1, 2, 1, 3000); }, 0, {26624, 2, 0, 2}, ""},
      {[] { return IMAlExHdrType(1, 7, 1, 10); }, 0, {4096, 4, 8, 32},
       "IMAlExHdrType 1: 7" + invalid},
      {[] { return IMAlExHdrType(1, -1, 1, 10); }, 0, {4096, 4, 8, 32}, ""},
      {[] { return IMAlExHdrType(1, 0, 1, 10); }, 0, {0, 0, 0, 0}, ""},
      {[] { return IMAlExHdrType(1, 1, 0, 10); }, 0, {5120, 1, 1, 1}, ""},
      {[] { return IMAlExHdrSize(1, 1, 1, 10); }, 0, {2048, 4, 1, 1}, ""},
      {[] { return IMAlExHdrSize(1, 8, 32, 2); }, 0, {3072, 4, 8, 32},
       "IMAlExHdrSize2 1: requested number of sections is less than current image size "
       "(2 < 10).\n"},
      {[] { return IMAlExHdrInfo(1, 9, 777, 3, 5); }, 0, {777, 4, 3, 5},
       "IMAlExHdrInfo 1: 9" + invalid},
      {[] { return IMAlExHdrInfo(1, -2, -5, 1, 1); }, 0, {0, 4, 1, 1}, ""},
      {[] { return IMCrExHdr(1, 5, 3); }, 702, {5120, 4, 8, 32},
       "IMCrExHdr 1: invalid ext header type (5).\n"},
  };
  // clang-format on
  for (Case const& c : cases) {
    create(1, "size", 2, 2, 10, 1, 1);  // default: type 4, 3 blocks
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(c.size(), c.result); }), c.message);
    IMStreamRecord const* r = record(1);
    EXPECT_EQ(Ints({r->iExtHdrSize, r->iExtHdrType, r->iNumExtInts, r->iNumExtFloats}), c.expected);
    int const room = c.expected[0] - 1 - 4 * 10 * (c.expected[2] + c.expected[3]);
    EXPECT_EQ(IMRtFieldHdrSizeMax(1), room < 6 ? 0 : room);
    // Sizing repositions: the stream stands at the first pixel.
    EXPECT_EQ(dStreamFileTell(record(1)), 1024.0 + r->iExtHdrSize);
    IMClose(1);
  }
}

TEST_F(ExtendedHeaderTest, TypeIsJudgedByShapeWhenNotStored) {
  struct Case {
    int stored, fileType, ints, floats;
    float marker;
    int expected;
  };
  // clang-format off
  Case const cases[] = {
      {2, 100, 8, 32, 0.0f, 2}, {0, 100, 1, 1, 0.0f, 1}, {0, 0, 0, 2, 0.0f, 2},
      {0, 1, 8, 32, 0.0f, 3}, {0, 3, 8, 32, 0.5f, 4}, {0, 100, 8, 32, -0.001f, 4},
      {0, 100, 8, 32, 1e-6f, 3}, {0, 2, 8, 32, 0.5f, 0}, {0, 100, 2, 2, 0.0f, 0},
      {1024, 100, 8, 32, 0, 1024}};
  // clang-format on
  create(1, "judge", 2, 2, 1, 1, 1);
  IMStreamRecord* r = record(1);
  for (Case const& c : cases) {
    r->iExtHdrType = c.stored;
    r->iFileType = c.fileType;
    r->iNumExtInts = c.ints;
    r->iNumExtFloats = c.floats;
    r->pExtFloats[15] = c.marker;
    int type = -1, size, ints, floats;
    EXPECT_EQ(IMRtExHdrType(1, &type), 0);
    EXPECT_EQ(type, c.expected) << c.stored << " " << c.fileType << " " << c.marker;
    EXPECT_EQ(IMRtExHdrInfo(1, &type, &size, &ints, &floats), 0);
    EXPECT_EQ(Ints({type, size, ints, floats}),
              Ints({c.expected, r->iExtHdrSize, c.ints, c.floats}));
  }
}

TEST_F(ExtendedHeaderTest, ValueTableWithItsRefusals) {
  struct Case {
    int type, valueId;
    double stored;
    int result;
    double read;
  };
  // Type 1 rounds integer 0 on store; type 4 truncates integers after a
  // nudge, which lifts a negative whole value by one.
  // clang-format off
  Case const cases[] = {
      {1, 0, 41.6, 0, 42.0}, {1, 1, 0.1, 0, static_cast<double>(0.1f)}, {1, 2, 5.0, 701, 0.0},
      {2, 0, 2.5, 0, 2.5}, {2, 1, -7.25, 0, -7.25}, {2, 2, 1.0, 701, 0.0},
      {3, 15, 0.1, 0, static_cast<double>(0.1f)}, {3, 16, 1.0, 701, 0.0}, {4, 20, 3.5, 0, 3.5},
      {4, 21, 1.0, 701, 0.0}, {4, 1005, 1.0, 701, 0.0}, {4, -1, 1.0, 701, 0.0},
      {4, 1000, 41.99999999995, 0, 42.0 + 1e-10}, {4, 1004, -3.0, 0, -2.0 + 1e-10}};
  // clang-format on
  for (Case const& c : cases) {
    openStack(1, "values", c.type);
    EXPECT_EQ(IMAlExHdrValueZWT(1, 2, 1, 1, c.valueId, c.stored), c.result);
    double value = -99.0;
    EXPECT_EQ(IMRtExHdrValueZWT(1, 2, 1, 1, c.valueId, &value), c.result);
    EXPECT_EQ(value, c.read) << c.type << " " << c.valueId;
    EXPECT_EQ(IMRtExHdrValueZWT(1, 1, 1, 1, 0, &value), 0);  // a neighbour is untouched
    EXPECT_EQ(value, 0.0);
    IMClose(1);
  }
  openStack(1, "odd", 4);
  record(1)->iExtHdrType = 9;  // outside the table: refused differently each way
  double value = -1;
  EXPECT_EQ(IMRtExHdrValueZWT(1, 0, 0, 0, 0, &value), 1);
  EXPECT_EQ(value, 0.0);
  EXPECT_EQ(IMAlExHdrValueZWT(1, 0, 0, 0, 0, 1.0), 702);
}

TEST_F(ExtendedHeaderTest, RecordGuards) {
  openStack(1, "guards", 1);  // 12 sections of 8 bytes in a 3072-byte block
  Ints iv(400, 0);
  Floats fv(400, 0.0f);  // callers size their buffers for a whole record
  double value = -5;
  std::string const tooSmall = "Extended header is too small (3072 bytes).\n";
  expectCalls({
      // The settled guard product comes ahead of any coordinate test.
      IM_CALL(IMRtExHdrZWT(1, 1000, 0, 0, iv.data(), fv.data()), 704, ""),
      IM_CALL(IMRtExHdr(1, 12, iv.data(), fv.data()), 602,
              "IMRtExHdr 1: invalid section number.\n"),
      IM_CALL(IMAlExHdr(1, -1, iv.data(), fv.data()), 704,
              "IMAlExHdr iStream 1: invalid section number (-1). " + tooSmall),
      IM_CALL((record(1)->iNumExtFloats = 400, IMAlExHdrZWT(1, 1, 0, 0, iv.data(), fv.data())), 707,
              "IMAlExHdrZWTP 1: extended header overrun. ZWTP=1 0 0 0\n"),
      IM_CALL(IMRtExHdrZWT(1, 1, 0, 0, iv.data(), fv.data()), 707,
              "IMRtExHdrZWTP 1: extended header overrun.\n"),
  });
  EXPECT_EQ(value, -5.0);
}

TEST_F(ExtendedHeaderTest, EveryTypeSurvivesWriteCloseAndOpen) {
  for (int type = 1; type <= 4; ++type) {
    SCOPED_TRACE(type);
    std::string const name = "type" + std::to_string(type);
    openStack(1, name, type);
    int ints = 0, floats = 0;
    ASSERT_EQ(IMRtExHdrSize(1, &ints, &floats), 0);
    Ints iv;
    Floats fv;
    for (int sec = 0; sec < kSections; ++sec) {
      int iz, iw, it;
      ASSERT_EQ(IMRtZWTNum(1, &iz, &iw, &it, sec), 0);
      recordFor(sec, ints, floats, iv, fv);
      ASSERT_EQ(IMAlExHdrZWT(1, iz, iw, it, iv.data(), fv.data()), 0);
      std::vector<float> pixels(kNx * kNy);
      for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = sec * 100.0f + i;
      ASSERT_TRUE(allOk({IMPosn(1, sec, 0), IMWrSec(1, pixels.data())}));
    }
    ASSERT_TRUE(allOk({IMWrHdr2(1, 1), IMClose(1)}));
    ASSERT_EQ(IMOpen(1, file(name).c_str(), "ro"), 0);
    int readType = 0;
    ASSERT_EQ(IMRtExHdrType(1, &readType), 0);
    EXPECT_EQ(readType, type);
    expectRecords(1, ints, floats);  // only a record's own words count
    std::vector<float> pixels(kNx * kNy);
    ASSERT_TRUE(allOk({IMPosn(1, kSections - 1, 0), IMRdSec(1, pixels.data())}));
    EXPECT_EQ(pixels[5], (kSections - 1) * 100.0f + 5);
    IMClose(1);
  }
}

TEST_F(ExtendedHeaderTest, CopiesBetweenStreams) {
  openStack(1, "src", 4);
  openStack(2, "dst", 4);
  Ints iv, backI(8);
  Floats fv, backF(32);
  for (int sec = 0; sec < kSections; ++sec) {
    recordFor(sec, 8, 32, iv, fv);
    ASSERT_EQ(IMAlExHdr(1, sec, iv.data(), fv.data()), 0);
  }
  ASSERT_EQ(IMAlFieldChar(1, "stage", "x"), 0);
  ASSERT_EQ(IMTrExHdr(2, 1, 0, 7), 0);  // one record
  recordFor(7, 8, 32, iv, fv);
  ASSERT_EQ(IMRtExHdr(2, 0, backI.data(), backF.data()), 0);
  EXPECT_EQ(backF, fv);
  expectCalls({IM_CALL(IMTrExHdr(2, 1, 0, 500), 704,
                       "IMTrExHdr 1->2: extended header size (4096, 4096) is too small.\n")});
  // A sub-stack: Z 1..2, wavelength 1 only, T 0..1, with the target's
  // coordinates counting from 0.
  ASSERT_EQ(IMAlZWT(2, 2, 1, 2, 0), 0);
  int const waves[2] = {0, 1};
  CaptureStdout();
  ASSERT_EQ(IMTrExHdr3(2, 1, 1, 2, 1, waves, 2, 0, 1, 1), 0);
  EXPECT_EQ(GetCapturedStdout(), "Transferring field 0: stage c 1 x\n");
  for (int c = 0; c < 4; ++c) {
    int srcSec = 0;
    ASSERT_EQ(IMRtSecNum(1, c % 2 + 1, 1, c / 2, &srcSec), 0);
    recordFor(srcSec, 8, 32, iv, fv);
    ASSERT_EQ(IMRtExHdrZWT(2, c % 2, 0, c / 2, backI.data(), backF.data()), 0);
    EXPECT_EQ(backI, iv) << c;
  }
  EXPECT_EQ(IMRtNumFields(2), 1);
  expectCalls({IM_CALL((record(2)->iExtHdrType = 3, IMTrExHdr(2, 1, 0, 0)), 708,
                       "IMTrExHdr 1->2: extended header type mismatch (4/3)\n")});
}

}  // namespace
}  // namespace imtest
