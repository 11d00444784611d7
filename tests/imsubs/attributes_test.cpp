// Attribute accessors: the common rule (a refused stream or a refused value
// touches nothing), the wavelength rules, the display scale fallback, cell
// and pixel size arithmetic, capacities of the file types, and values that
// must survive a write and a new open.
#include <gmock/gmock.h>

#include <functional>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

using testing::HasSubstr;

constexpr unsigned char kUntouched = 0xA5;

// Output areas of every type, filled with a marker so that any write shows.
struct Outputs {
  alignas(8) unsigned char bytes[4096];
  Outputs() { std::memset(bytes, kUntouched, sizeof bytes); }
  int* i(int at = 0) { return reinterpret_cast<int*>(bytes) + at; }
  float* f(int at = 0) { return reinterpret_cast<float*>(bytes + 512) + at; }
  double* d() { return reinterpret_cast<double*>(bytes + 1024); }
  char (*titles())[80] { return reinterpret_cast<char(*)[80]>(bytes + 2048); }
  bool untouched() const {
    return std::all_of(bytes, bytes + sizeof bytes,
                       [](unsigned char b) { return b == kUntouched; });
  }
};

struct AccessorCase {
  char const* name;
  std::function<int(int, Outputs&)> call;
};

// One call of every accessor that takes a stream, with outputs in `out`.
std::vector<AccessorCase> const& allAccessors() {
  static float const three[3] = {1, 2, 3};
  static float const six[6] = {1, 2, 3, 90, 90, 90};
  static int const ints3[3] = {1, 2, 3};
  static char const labels[2][80] = {"a", "b"};
  static std::vector<AccessorCase> const cases = {
      {"IMRtXY", [](int s, Outputs& o) { return IMRtXY(s, o.i(0), o.i(1)); }},
      {"IMAlXY", [](int s, Outputs&) { return IMAlXY(s, 3, 4); }},
      {"IMRtSiz", [](int s, Outputs& o) { return IMRtSiz(s, o.i(0), o.i(3), o.i(6)); }},
      {"IMAlSiz", [](int s, Outputs&) { return IMAlSiz(s, ints3, ints3); }},
      {"IMRtMst", [](int s, Outputs& o) { return IMRtMst(s, o.i()); }},
      {"IMRtMap", [](int s, Outputs& o) { return IMRtMap(s, o.i()); }},
      {"IMAlMap", [](int s, Outputs&) { return IMAlMap(s, ints3); }},
      {"IMRtDel", [](int s, Outputs& o) { return IMRtDel(s, o.f()); }},
      {"IMAlDel", [](int s, Outputs&) { return IMAlDel(s, three); }},
      // IMAlDel2 is IMAlDel on an array, and checks under that name.
      {"IMAlDel", [](int s, Outputs&) { return IMAlDel2(s, 1, 2, 3); }},
      {"IMRtCel", [](int s, Outputs& o) { return IMRtCel(s, o.f()); }},
      {"IMAlCel", [](int s, Outputs&) { return IMAlCel(s, six); }},
      {"IMRtOrig", [](int s, Outputs& o) { return IMRtOrig(s, o.f(0), o.f(1), o.f(2)); }},
      {"IMAlOrig", [](int s, Outputs&) { return IMAlOrig(s, 1, 2, 3); }},
      {"IMRtTlt", [](int s, Outputs& o) { return IMRtTlt(s, o.f()); }},
      {"IMAlTlt", [](int s, Outputs&) { return IMAlTlt(s, three); }},
      {"IMAlTltRot", [](int s, Outputs&) { return IMAlTltRot(s, three); }},
      {"IMRtMode", [](int s, Outputs& o) { return IMRtMode(s, o.i()); }},
      {"IMAlMode", [](int s, Outputs&) { return IMAlMode(s, 2); }},
      {"IMRtLensID", [](int s, Outputs& o) { return IMRtLensID(s, o.i()); }},
      {"IMAlLensID", [](int s, Outputs&) { return IMAlLensID(s, 7); }},
      {"IMRtSpg", [](int s, Outputs& o) { return IMRtSpg(s, o.i(0), o.i(1)); }},
      {"IMAlSpg", [](int s, Outputs&) { return IMAlSpg(s, 1, 0); }},
      {"IMRtSym", [](int s, Outputs& o) { return IMRtSym(s, o.i(0), nullptr); }},
      {"IMAlSym", [](int s, Outputs& o) { return IMAlSym(s, 4, o.bytes); }},
      {"IMRtWav", [](int s, Outputs& o) { return IMRtWav(s, o.i(), o.f()); }},
      {"IMAlWav", [](int s, Outputs&) { return IMAlWav(s, 1, three); }},
      {"IMRtWav2", [](int s, Outputs& o) { return IMRtWav2(s, 0, o.f()); }},
      {"IMAlWav2", [](int s, Outputs&) { return IMAlWav2(s, 0, 500); }},
      {"IMRtWavMMM", [](int s, Outputs& o) { return IMRtWavMMM(s, 0, o.f(0), o.f(1), o.f(2)); }},
      {"IMRtWavMM", [](int s, Outputs& o) { return IMRtWavMM(s, 0, o.f(0), o.f(1)); }},
      {"IMAlWavMMM", [](int s, Outputs&) { return IMAlWavMMM(s, 0, 1, 2, 3); }},
      {"IMAlWavMM", [](int s, Outputs&) { return IMAlWavMM(s, 0, 1, 2); }},
      {"IMRtScl", [](int s, Outputs& o) { return IMRtScl(s, 0, o.f()); }},
      {"IMRtScl2",
       [](int s, Outputs& o) { return IMRtScl2(s, 0, o.f(0), o.f(1), o.f(2), o.f(3)); }},
      {"IMAlScl", [](int s, Outputs&) { return IMAlScl(s, 0, six); }},
      {"IMAlScl2", [](int s, Outputs&) { return IMAlScl2(s, 0, 1, 2, 3, 4); }},
      {"IMRtLab", [](int s, Outputs& o) { return IMRtLab(s, o.titles(), o.i()); }},
      {"IMRtLab2", [](int s, Outputs& o) { return IMRtLab2(s, o.titles(), 0, 1); }},
      {"IMAlLab", [](int s, Outputs&) { return IMAlLab(s, labels, 2); }},
      {"IMAlLab2", [](int s, Outputs&) { return IMAlLab2(s, labels, 0, 2); }},
      {"IMRtMaxNumLab", [](int s, Outputs& o) { return IMRtMaxNumLab(s, o.i()); }},
      {"IMRtNumLab", [](int s, Outputs& o) { return IMRtNumLab(s, o.i()); }},
      {"IMAlNumLab", [](int s, Outputs&) { return IMAlNumLab(s, 1); }},
      {"IMRtFileType", [](int s, Outputs& o) { return IMRtFileType(s, o.i()); }},
      {"IMAlFileType", [](int s, Outputs&) { return IMAlFileType(s, 100); }},
      {"IMRtFileID", [](int s, Outputs& o) { return IMRtFileID(s, o.i(0), o.i(1)); }},
      {"IMRtDat",
       [](int s,
          Outputs& o) { return IMRtDat(s, o.i(0), o.i(1), o.i(2), o.i(3), o.f(0), o.f(1)); }},
      {"IMAlDat", [](int s, Outputs&) { return IMAlDat(s, 100, 1, 2, 3, 4, 5); }},
      {"IMRtTimeStamp", [](int s, Outputs& o) { return IMRtTimeStamp(s, o.d()); }},
      {"IMAlTimeStamp", [](int s, Outputs&) { return IMAlTimeStamp(s, 4e8); }},
      {"IMRtDataBitsPerPixel", [](int s, Outputs& o) { return IMRtDataBitsPerPixel(s, o.i()); }},
      {"IMAlDataBitsPerPixel", [](int s, Outputs&) { return IMAlDataBitsPerPixel(s, 12); }},
      {"IMAlZWTP", [](int s, Outputs&) { return IMAlZWTP(s, 1, 1, 1, 1, 0); }},
      {"IMAlZWT2", [](int s, Outputs&) { return IMAlZWT2(s, 1, 1, 1); }},
      {"IMAlZWTP2", [](int s, Outputs&) { return IMAlZWTP2(s, 1, 1, 1, 1); }},
      {"IMRtCon", [](int s, Outputs& o) { return IMRtCon(s, o.i()); }},
      {"IMAlCon", [](int s, Outputs&) { return IMAlCon(s, 0); }},
      {"IMAlDis2", [](int s, Outputs&) { return IMAlDis2(s, 0); }},
      {"IMTrCel", [](int s, Outputs&) { return IMTrCel(s, s); }},
      {"IMTrLab", [](int s, Outputs&) { return IMTrLab(s, s); }},
      {"IMRtExHdrType", [](int s, Outputs& o) { return IMRtExHdrType(s, o.i()); }},
      {"IMRtExHdrSize", [](int s, Outputs& o) { return IMRtExHdrSize(s, o.i(0), o.i(1)); }},
      {"IMRtExHdrInfo",
       [](int s, Outputs& o) { return IMRtExHdrInfo(s, o.i(0), o.i(1), o.i(2), o.i(3)); }},
      {"IMRtHdr", [](int s, Outputs& o) { return IMRtHdr(s, o.bytes); }},
  };
  return cases;
}

class AttributesTest : public ImsubsTest {
 protected:
  // A new file on `iStream` with the given counts, wide layout, type 2 pixels.
  void openNew(int iStream, int nz = 2, int nw = 1, int nt = 1) {
    ASSERT_EQ(IMOpen(iStream, file("s" + std::to_string(iStream)).c_str(), "new"), 0);
    ASSERT_EQ(IMCrHdr2(iStream, 8, 6, nz, nw, nt, 0, 2), 0);
  }
};

TEST_F(AttributesTest, RefusedStreamTouchesNothingAndNamesTheCaller) {
  for (AccessorCase const& c : allAccessors()) {
    SCOPED_TRACE(c.name);
    for (int iStream : {0, 17}) {
      Outputs out;
      CaptureStderr();
      int const result = c.call(iStream, out);
      std::string const err = GetCapturedStderr();
      EXPECT_EQ(result, iStream == 0 ? 1 : 3);
      EXPECT_TRUE(out.untouched());
      std::string const expected =
          std::string(c.name) + " " + std::to_string(iStream) +
          (iStream == 0 ? ": invalid stream number.\n" : ": internal stream numbering error.\n");
      EXPECT_THAT(err, HasSubstr(expected));
    }
  }
}

TEST_F(AttributesTest, RtDel2GivesUnitSizesOnARefusedStream) {
  float dx = 0, dy = 0, dz = 0;
  CaptureStderr();
  EXPECT_EQ(IMRtDel2(0, &dx, &dy, &dz), 1);
  EXPECT_EQ(IMRtDel2(9, &dx, &dy, &dz), 3);
  GetCapturedStderr();
  EXPECT_EQ(dx, 1.0f);
  EXPECT_EQ(dy, 1.0f);
  EXPECT_EQ(dz, 1.0f);
}

struct RefusedValueCase {
  char const* what;
  std::function<int(int, Outputs&)> call;
  int result;
  char const* message;  // "" for none
};

TEST_F(AttributesTest, RefusedValuesLeaveRecordAndOutputsAlone) {
  static char const labels[5][80] = {"a", "b", "c", "d", "e"};
  std::vector<RefusedValueCase> const cases = {
      {"wave index at iNumW", [](int s, Outputs& o) { return IMRtWav2(s, 1, o.f()); }, 603,
       "IMRtWav2 1: 1 is an invalid wavelength number (min=0, max=0).\n"},
      {"negative wave index", [](int s, Outputs&) { return IMAlWav2(s, -1, 5.0f); }, 603,
       "IMAlWav2 1: -1 is an invalid wavelength number (min=0, max=0).\n"},
      {"scale of absent channel", [](int s, Outputs&) { return IMAlScl2(s, 3, 1, 2, 3, 4); }, 603,
       "IMAlScl2 1: 3 is an invalid wavelength number.\n"},
      {"stats beyond iMaxWaves",
       [](int s, Outputs& o) { return IMRtWavMMM(s, 12, o.f(0), o.f(1), o.f(2)); }, 605,
       "IMRtWavMMM 1: 12 is an invalid wavelength number.\n"},
      {"stats below 0", [](int s, Outputs&) { return IMAlWavMM(s, -1, 1, 2); }, 605,
       "IMAlWavMM 1: -1 is an invalid wavelength number.\n"},
      {"no wavelengths", [](int s, Outputs&) { return IMAlWav(s, 0, nullptr); }, 501,
       "IMAlWav 1: 0 is an invalid number of wavelengths.\n"},
      {"too many wavelengths", [](int s, Outputs& o) { return IMAlWav(s, 13, o.f()); }, 501,
       "IMAlWav 1: 13 is an invalid number of wavelengths.\n"},
      {"pixel type 9", [](int s, Outputs&) { return IMAlMode(s, 9); }, 503,
       "IMAlMode 1: 9 is an invalid pixel data type.\n"},
      {"titles past the count", [](int s, Outputs& o) { return IMRtLab2(s, o.titles(), 0, 1); },
       401, "IMRtLab2 1: 1 is too many titles. Max is 0. No titles returned.\n"},
      {"titles past the capacity", [](int s, Outputs&) { return IMAlLab2(s, labels, 2, 3); }, 401,
       "IMAlLab2 1: 5 is too many titles. Max is 4. No changes made.\n"},
      {"label count too large", [](int s, Outputs&) { return IMAlNumLab(s, 5); }, 401,
       "IMAlNumLab: 5 is an invalid number of labels. Valid range: 0-4.\n"},
      {"label count negative", [](int s, Outputs&) { return IMAlNumLab(s, -1); }, 405,
       "IMAlNumLab: -1 is an invalid number of labels. Valid range: 0-4.\n"},
      {"data bits 256", [](int s, Outputs&) { return IMAlDataBitsPerPixel(s, 256); }, 511,
       "IMAlDataBitsPerPixel 1: invalid number of data bits per pixel (256)\n"},
      {"symmetry bytes past the block",
       [](int s, Outputs& o) { return IMAlSym(s, 1 << 20, o.bytes); }, 703,
       "IMAlSym 1: error altering symmetry information.\n"},
      {"unset data bits", [](int s, Outputs&) { return IMRtDataBitsPerPixel(s, nullptr); }, 512,
       ""},
  };
  openNew(1);
  for (RefusedValueCase const& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<unsigned char> before(sizeof(IMStreamRecord));
    std::memcpy(before.data(), record(1), before.size());
    Outputs out;
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(c.call(1, out), c.result); }), c.message);
    EXPECT_TRUE(out.untouched());
    EXPECT_EQ(std::memcmp(before.data(), record(1), before.size()), 0);
  }
}

struct StatisticsCase {
  int w;
  int result;
  bool stored;
};

TEST_F(AttributesTest, StatisticsTestTheChannelAgainstTheCapacity) {
  // iNumW 1 and iMaxWaves 12 (wide layout).
  std::vector<StatisticsCase> const cases = {
      {0, 0, true}, {2, 603, true}, {11, 603, true}, {12, 605, false}, {-1, 605, false}};
  openNew(1);
  for (StatisticsCase const& c : cases) {
    SCOPED_TRACE(c.w);
    CaptureStderr();
    EXPECT_EQ(IMAlWavMMM(1, c.w, 1.5f, 9.5f, 4.25f), c.result);
    std::string const err = GetCapturedStderr();
    EXPECT_EQ(err.empty(), c.stored);
    if (!c.stored) continue;
    float mn = 0, mx = 0, mean = 0;
    EXPECT_EQ(IMRtWavMMM(1, c.w, &mn, &mx, &mean), c.result);
    EXPECT_EQ(mn, 1.5f);
    EXPECT_EQ(mx, 9.5f);
    EXPECT_EQ(mean, 4.25f);
    EXPECT_EQ(IMAlWavMM(1, c.w, -2.0f, 3.0f), c.result);
    EXPECT_EQ(IMRtWavMM(1, c.w, &mn, &mx), c.result);
    EXPECT_EQ(mn, -2.0f);
    EXPECT_EQ(mx, 3.0f);
  }
}

struct ScaleCase {
  char const* what;
  int fileType;
  float stored[4];
  float min, max;
  int w;
  int result;
  float expected[4];
};

TEST_F(AttributesTest, DisplayScaleFallsBackToTheChannelRange) {
  std::vector<ScaleCase> const cases = {
      {"good values", 100, {10, 200, 1.5f, 7}, 5, 300, 0, 0, {10, 200, 1.5f, 7}},
      {"both ends near zero", 100, {0.00005f, -0.00005f, 2, 0}, 5, 300, 0, 812, {5, 300, 1, 0}},
      {"low at high", 100, {200, 200, 2, 0}, 5, 300, 0, 812, {5, 300, 1, 0}},
      {"low above high", 100, {10, 5, 2, 0}, 5, 300, 0, 812, {5, 300, 1, 0}},
      {"minimum at high", 100, {10, 200, 2, 0}, 250, 300, 0, 812, {250, 300, 1, 0}},
      {"narrow layout", 0, {10, 200, 2, 0}, 5, 300, 0, 806, {5, 300, 1, 0}},
      {"absent channel", 100, {10, 200, 2, 0}, 5, 300, 1, 603, {0, 0, 0, 0}},
  };
  for (ScaleCase const& c : cases) {
    SCOPED_TRACE(c.what);
    openNew(1);
    IMStreamRecord* r = record(1);
    std::copy(c.stored, c.stored + 4, r->fDisplayScale[0]);
    r->fMins[0] = c.min;
    r->fMaxs[0] = c.max;
    r->iFileType = c.fileType;
    float scale[4] = {-1, -1, -1, -1};
    stderrOf([&] { EXPECT_EQ(IMRtScl(1, c.w, scale), c.result); });
    for (int i = 0; i < 4; ++i) EXPECT_EQ(scale[i], c.expected[i]) << i;
    float a, b, cc, d;
    stderrOf([&] { EXPECT_EQ(IMRtScl2(1, c.w, &a, &b, &cc, &d), c.result); });
    EXPECT_EQ(a, c.expected[0]);
    EXPECT_EQ(d, c.expected[3]);
    IMClose(1);
  }
}

TEST_F(AttributesTest, DisplayScaleStoreNeedsTheWideLayout) {
  openNew(1);
  IMStreamRecord* r = record(1);
  EXPECT_EQ(IMAlScl2(1, 0, 1, 2, 3, 4), 0);
  EXPECT_EQ(r->fDisplayScale[0][3], 4.0f);
  EXPECT_EQ(IMAlFileType(1, 99), 0);
  EXPECT_EQ(IMAlScl2(1, 0, 9, 9, 9, 9), 806);
  EXPECT_EQ(r->fDisplayScale[0][0], 1.0f);
}

TEST_F(AttributesTest, CellAndPixelSizesFollowTheSampling) {
  openNew(1);
  openNew(2);
  IMStreamRecord* src = record(1);
  IMStreamRecord* dst = record(2);
  src->fSampling[0] = 2.0f;
  float const cell[6] = {3.0f, 5.0f, 7.0f, 80.0f, 85.0f, 95.0f};
  ASSERT_EQ(IMAlCel(1, cell), 0);
  EXPECT_EQ(src->fPixelSize[0], 1.5f);
  dst->fSampling[0] = 4.0f;
  dst->fSampling[2] = 0.5f;
  ASSERT_EQ(IMTrCel(2, 1), 0);
  float back[6];
  ASSERT_EQ(IMRtCel(2, back), 0);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(back[i], cell[i]) << i;
  EXPECT_EQ(dst->fPixelSize[0], 0.75f);  // differs from the source's 1.5
  EXPECT_EQ(dst->fPixelSize[1], 5.0f);
  EXPECT_EQ(dst->fPixelSize[2], 14.0f);
  CaptureStderr();
  EXPECT_EQ(IMTrCel(2, 0), 1);
  EXPECT_EQ(IMTrCel(30, 31), 3);
  EXPECT_EQ(IMTrCel(0, 31), 1 | 3);
  GetCapturedStderr();

  // A zero size is stored all the same, with its message and 502.
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMAlDel2(1, 0.0f, 2.0f, 3.0f), 502); }),
            "IMAlDel 1: pixel size must be greater than 0\n");
  EXPECT_EQ(src->fPixelSize[0], 0.0f);
  EXPECT_EQ(src->fCellSize[0], 0.0f);
  EXPECT_EQ(src->fCellSize[1], 2.0f);
}

TEST_F(AttributesTest, FileTypeSetsCapacitiesAndCutsTitles) {
  static char const labels[7][80] = {"1", "2", "3", "4", "5", "6", "7"};
  openNew(1);
  ASSERT_EQ(IMAlLab(1, labels, 4), 0);
  EXPECT_EQ(IMAlFileType(1, 0), 0);  // 100 to 0 leaves 4 titles alone
  int count = 0, max = 0;
  IMRtNumLab(1, &count);
  IMRtMaxNumLab(1, &max);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(max, 10);
  EXPECT_EQ(record(1)->iMaxWaves, 5);
  ASSERT_EQ(IMAlLab(1, labels, 7), 0);
  CaptureStderr();
  EXPECT_EQ(IMAlFileType(1, 100), 401);
  EXPECT_EQ(GetCapturedStderr(),
            "IMAlFileType 1: the current number of titles (7) is too large for file type 100.\n"
            "IMAlFileType 1: setting the number of titles to 4.\n");
  IMRtNumLab(1, &count);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(record(1)->iMaxWaves, 12);

  // IMAlDat does the same under its own name.
  ASSERT_EQ(IMAlDat(1, 0, 0, 0, 0, 0, 0), 0);
  ASSERT_EQ(IMAlLab(1, labels, 6), 0);
  CaptureStderr();
  EXPECT_EQ(IMAlDat(1, 101, 3, 4, 5, 6.5f, 7.5f), 401);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("IMAlDat 1: setting the number of titles to 4.\n"));
  int type, lens, v1, v2;
  float v3, v4;
  ASSERT_EQ(IMRtDat(1, &type, &lens, &v1, &v2, &v3, &v4), 0);
  EXPECT_EQ(type, 101);
  EXPECT_EQ(v4, 7.5f);
}

TEST_F(AttributesTest, TitlesAreCutAt79Characters) {
  char labels[5][80];
  std::memset(labels, 'x', sizeof labels);  // no NUL in either
  labels[1][0] = '\0';
  openNew(1);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMAlLab(1, labels, 5), 401); }),
            "IMAlLab 1: 5 is too many titles. Truncating at 4...\n");
  char back[4][80];
  int count = 0;
  ASSERT_EQ(IMRtLab(1, back, &count), 0);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(std::string(back[0]), std::string(79, 'x'));
  static char const more[1][80] = {"third"};
  ASSERT_EQ(IMAlLab2(1, more, 3, 1), 0);
  ASSERT_EQ(IMRtLab2(1, back, 3, 1), 0);
  EXPECT_STREQ(back[0], "third");
}

TEST_F(AttributesTest, TimeStampNeedsTheWideLayoutAndAPlausibleValue) {
  openNew(1);
  double t = -1;
  EXPECT_EQ(IMAlTimeStamp(1, 1000.0), 0);
  EXPECT_EQ(IMRtTimeStamp(1, &t), 507);
  EXPECT_EQ(t, 0.0);
  EXPECT_EQ(IMAlTimeStamp(1, -5.0), 0);
  EXPECT_EQ(record(1)->dTimeStamp, 0.0);
  EXPECT_EQ(IMAlTimeStamp(1, 4e8), 0);
  EXPECT_EQ(IMRtTimeStamp(1, &t), 0);
  EXPECT_EQ(t, 4e8);
  IMAlFileType(1, 0);
  IMAlPrt(1);
  CaptureStderr();
  EXPECT_EQ(IMRtTimeStamp(1, &t), 507);
  EXPECT_EQ(IMAlTimeStamp(1, 4e8), 507);
  EXPECT_EQ(GetCapturedStderr(),
            "IMRtTimeStamp 1: invalid image type (0).\nIMAlTimeStamp 1: invalid image type (0).\n");
}

TEST_F(AttributesTest, FileIdAndModeReports) {
  openNew(1);
  int id = 0, swapped = -1;
  EXPECT_EQ(IMRtFileID(1, &id, &swapped), 0);
  EXPECT_EQ(id, -16224);
  record(1)->iFileID = 1234;
  EXPECT_EQ(IMRtFileID(1, &id, &swapped), 506);
  EXPECT_EQ(swapped, 0);

  CaptureStderr();
  EXPECT_EQ(IMAlMode(1, 3), 0);  // the size function speaks, the result stays 0
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("16 bit complex data not supported"));
  EXPECT_EQ(record(1)->iBytesPerPixel, 4);
  EXPECT_EQ(IMAlMode(1, 6), 0);
  EXPECT_EQ(record(1)->iBytesPerPixel, 2);
}

TEST_F(AttributesTest, CountsAndSizesWithoutChecks) {
  openNew(1, 3, 2, 2);
  ASSERT_EQ(IMAlZWTP2(1, 5, 2, 3, 2), 0);
  int nz, nw, nt, np, seq;
  IMRtZWTP(1, &nz, &nw, &nt, &np, &seq);
  EXPECT_EQ(record(1)->iNumSecs, 60);
  EXPECT_EQ(seq, 0);
  ASSERT_EQ(IMAlZWT(1, 4, 1, 1, 2), 0);
  IMRtZWTP(1, &nz, &nw, &nt, &np, &seq);
  EXPECT_EQ(np, 1);
  EXPECT_EQ(seq, 2);
  int const size[3] = {10, 11, 99};
  int const start[3] = {1, 2, 3};
  ASSERT_EQ(IMAlSiz(1, size, start), 0);
  int s[3], sampling[3], st[3];
  ASSERT_EQ(IMRtSiz(1, s, sampling, st), 0);
  EXPECT_EQ(s[2], 99);
  EXPECT_EQ(sampling[0], 1);
  EXPECT_EQ(st[2], 3);
  EXPECT_EQ(record(1)->iNumZ, 4);  // the counts stay as they were
}

TEST_F(AttributesTest, DisplayFlagReachesEveryOpenStream) {
  openNew(1);
  openNew(2);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMAlDis(0), 0); }),
            "IMAlDis: use IMAlDis2(iStream,iWinDisplayFlag) instead.\n");
  EXPECT_EQ(record(1)->iWinDisplayFlag, 0);
  EXPECT_EQ(record(2)->iWinDisplayFlag, 0);
  stderrOf([&] { IMAlDis(1); });
  EXPECT_EQ(IMRtWID(-4), -1);
  EXPECT_EQ(IMRtWID(0), 0);
  EXPECT_EQ(IMRtWID(1), 0);
}

TEST_F(AttributesTest, HeaderValuesSurviveAWriteAndANewOpen) {
  std::string const path = file("kept");
  ASSERT_EQ(IMOpen(1, path.c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr3(1, 4, 3, 2, 2, 1, 1, 0, 2), 0);
  ASSERT_EQ(IMAlOrig(1, 1.25f, -2.5f, 1e-7f), 0);
  float const tilt[3] = {10, 20, 30};
  ASSERT_EQ(IMAlTlt(1, tilt), 0);
  ASSERT_EQ(IMAlWav2(1, 1, 612.4f), 0);
  ASSERT_EQ(IMAlWavMMM(1, 1, 3, 4, 3.5f), 0);
  ASSERT_EQ(IMAlLensID(1, 10612), 0);
  ASSERT_EQ(IMAlDataBitsPerPixel(1, 12), 0);
  ASSERT_EQ(IMAlScl2(1, 1, 100, 4000, 1.5f, 9), 0);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  ASSERT_EQ(IMClose(1), 0);

  // Z stands first on disk, ahead of X and Y.
  std::vector<unsigned char> const bytes = readBytes(path);
  EXPECT_EQ(hostValueAt<float>(bytes, 208), 1e-7f);
  EXPECT_EQ(hostValueAt<float>(bytes, 212), 1.25f);

  ASSERT_EQ(IMOpen(1, path.c_str(), "ro"), 0);
  float x, y, z;
  ASSERT_EQ(IMRtOrig(1, &x, &y, &z), 0);
  EXPECT_EQ(x, 1.25f);
  EXPECT_EQ(y, -2.5f);
  EXPECT_EQ(z, 1e-7f);
  float wave = 0;
  ASSERT_EQ(IMRtWav2(1, 1, &wave), 0);
  EXPECT_EQ(wave, 612.0f);  // whole units on disk
  float mn, mx, mean;
  ASSERT_EQ(IMRtWavMMM(1, 1, &mn, &mx, &mean), 0);
  EXPECT_EQ(mean, 3.5f);
  int lens, bits;
  IMRtLensID(1, &lens);
  EXPECT_EQ(lens, 10612);
  EXPECT_EQ(IMRtDataBitsPerPixel(1, &bits), 0);
  EXPECT_EQ(bits, 12);
  float scale[4];
  EXPECT_EQ(IMRtScl(1, 1, scale), 0);
  EXPECT_EQ(scale[2], 1.5f);
  EXPECT_EQ(scale[3], 0.0f);  // the fourth value isn't stored
  float back[3];
  IMRtTlt(1, back);
  EXPECT_EQ(back[2], 30.0f);
}

TEST_F(AttributesTest, SpaceGroupSizeReplacesTheBlock) {
  openNew(1);
  ASSERT_EQ(IMAlSpg(1, 5, 2048), 0);
  int group = 0, size = 0;
  IMRtSpg(1, &group, &size);
  EXPECT_EQ(group, 5);
  EXPECT_EQ(size, 2048);
  std::vector<unsigned char> data(2048, 7);
  ASSERT_EQ(IMAlSym(1, 16, data.data()), 0);
  std::vector<unsigned char> back(2048, 0);
  int bytes = 0;
  ASSERT_EQ(IMRtSym(1, &bytes, back.data()), 0);
  EXPECT_EQ(bytes, 2048);
  EXPECT_EQ(back[15], 7);
  EXPECT_EQ(back[16], 0);
  ASSERT_EQ(IMAlSpg(1, 5, -3), 0);
  IMRtSpg(1, &group, &size);
  EXPECT_EQ(size, 0);
}

}  // namespace
}  // namespace imtest
