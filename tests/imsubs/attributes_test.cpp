// Attribute accessors and the second linkage: refused streams and values
// touch nothing, the wavelength and display scale rules, cell and pixel size
// arithmetic, capacities of the file types, and the second names with the
// wrappers that do more.
#include "imsubs/second_linkage.h"
#include "imsubs_fixture.h"

namespace imtest {
namespace {

class AttributesTest : public ImsubsTest {
 protected:
  void openNew(int iStream, int nz = 2, int nw = 1, int nt = 1) {
    create(iStream, "s" + std::to_string(iStream), 8, 6, nz, nw, nt);
  }
};

TEST_F(AttributesTest, RefusedStreamsAndValuesTouchNothing) {
  float out[8] = {7, 7, 7, 7, 7, 7, 7, 7};
  int nums[4] = {7, 7, 7, 7};
  expectCalls({
      IM_CALL(IMRtXY(0, nums, nums + 1), 1, "IMRtXY 0: invalid stream number.\n"),
      IM_CALL(IMRtScl2(17, 0, out, out, out, out), 3,
              "IMRtScl2 17: internal stream numbering error.\n"),
      IM_CALL(IMAlDel2(17, 1, 2, 3), 3, "IMAlDel 17: internal stream numbering error.\n"),
  });
  EXPECT_EQ(Floats(out, out + 8), Floats(8, 7.0f));
  EXPECT_EQ(Ints(nums, nums + 4), Ints(4, 7));
  // IMRtDel2 alone gives unit sizes on a refused stream.
  stderrOf([&] { EXPECT_EQ(IMRtDel2(9, &out[0], &out[1], &out[2]), 3); });
  EXPECT_EQ(Floats(out, out + 3), Floats(3, 1.0f));

  static char const labels[5][80] = {"a", "b", "c", "d", "e"};
  openNew(1);
  struct Case {
    std::function<int()> call;
    int result;
    char const* message;
  };
  std::vector<Case> const cases = {
      {[&] { return IMRtWav2(1, 1, out); }, 603,
       "IMRtWav2 1: 1 is an invalid wavelength number (min=0, max=0).\n"},
      {[] { return IMAlWav2(1, -1, 5.0f); }, 603,
       "IMAlWav2 1: -1 is an invalid wavelength number (min=0, max=0).\n"},
      {[] { return IMAlScl2(1, 3, 1, 2, 3, 4); }, 603,
       "IMAlScl2 1: 3 is an invalid wavelength number.\n"},
      {[&] { return IMAlWav(1, 13, out); }, 501,
       "IMAlWav 1: 13 is an invalid number of wavelengths.\n"},
      {[] { return IMAlMode(1, 9); }, 503, "IMAlMode 1: 9 is an invalid pixel data type.\n"},
      {[&] { return IMRtLab2(1, reinterpret_cast<char(*)[80]>(out), 0, 1); }, 401,
       "IMRtLab2 1: 1 is too many titles. Max is 0. No titles returned.\n"},
      {[] { return IMAlLab2(1, labels, 2, 3); }, 401,
       "IMAlLab2 1: 5 is too many titles. Max is 4. No changes made.\n"},
      {[] { return IMAlNumLab(1, 5); }, 401,
       "IMAlNumLab: 5 is an invalid number of labels. Valid range: 0-4.\n"},
      {[] { return IMAlNumLab(1, -1); }, 405,
       "IMAlNumLab: -1 is an invalid number of labels. Valid range: 0-4.\n"},
      {[] { return IMAlDataBitsPerPixel(1, 256); }, 511,
       "IMAlDataBitsPerPixel 1: invalid number of data bits per pixel (256)\n"},
      {[&] { return IMAlSym(1, 1 << 20, out); }, 703,
       "IMAlSym 1: error altering symmetry information.\n"},
      {[] { return IMRtDataBitsPerPixel(1, nullptr); }, 512, ""},
  };
  for (Case const& c : cases) {
    std::vector<unsigned char> before(sizeof(IMStreamRecord));
    std::memcpy(before.data(), record(1), before.size());
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(c.call(), c.result) << c.message; }), c.message);
    EXPECT_EQ(std::memcmp(before.data(), record(1), before.size()), 0) << c.message;
  }
  EXPECT_EQ(Floats(out, out + 3), Floats(3, 1.0f));
}

TEST_F(AttributesTest, WavelengthStatisticsAndDisplayScale) {
  openNew(1);  // iNumW 1, iMaxWaves 12: statistics go up to the capacity
  for (int w : {0, 2, 11, 12, -1}) {
    int const result = w == 0 ? 0 : w > 0 && w < 12 ? 603 : 605;
    float mn = 0, mx = 0, mean = 0;
    std::string const err =
        stderrOf([&] { EXPECT_EQ(IMAlWavMMM(1, w, 1.5f, 9.5f, 4.25f), result); });
    EXPECT_EQ(err.empty(), result != 605) << w;
    if (result == 605) continue;
    EXPECT_EQ(IMRtWavMMM(1, w, &mn, &mx, &mean), result);
    EXPECT_EQ(Floats({mn, mx, mean}), Floats({1.5f, 9.5f, 4.25f}));
    EXPECT_EQ(IMAlWavMM(1, w, -2.0f, 3.0f), result);
    EXPECT_EQ(IMRtWavMM(1, w, &mn, &mx), result);
    EXPECT_EQ(Floats({mn, mx}), Floats({-2, 3}));
  }
  IMClose(1);
  struct Case {
    int fileType;
    Floats stored;
    float min, max;
    int w, result;
    Floats expected;
  };
  // clang-format off
  Case const cases[] = {
      {100, {10, 200, 1.5f, 7}, 5, 300, 0, 0, {10, 200, 1.5f, 7}},
      {100, {0.00005f, -0.00005f, 2, 0}, 5, 300, 0, 812, {5, 300, 1, 0}},
      {100, {200, 200, 2, 0}, 5, 300, 0, 812, {5, 300, 1, 0}},
      {100, {10, 5, 2, 0}, 5, 300, 0, 812, {5, 300, 1, 0}},
      {100, {10, 200, 2, 0}, 250, 300, 0, 812, {250, 300, 1, 0}},
      {0, {10, 200, 2, 0}, 5, 300, 0, 806, {5, 300, 1, 0}},
      {100, {10, 200, 2, 0}, 5, 300, 1, 603, {0, 0, 0, 0}}};
  // clang-format on
  for (Case const& c : cases) {
    openNew(1);
    IMStreamRecord* r = record(1);
    std::copy(c.stored.begin(), c.stored.end(), r->fDisplayScale[0]);
    r->fMins[0] = c.min;
    r->fMaxs[0] = c.max;
    r->iFileType = c.fileType;
    float scale[4] = {-1, -1, -1, -1}, a = -1, b = -1, cc = -1, d = -1;
    stderrOf([&] { EXPECT_EQ(IMRtScl(1, c.w, scale), c.result); });
    stderrOf([&] { EXPECT_EQ(IMRtScl2(1, c.w, &a, &b, &cc, &d), c.result); });
    EXPECT_EQ(Floats(scale, scale + 4), c.expected) << c.stored[0];
    EXPECT_EQ(Floats({a, b, cc, d}), c.expected) << c.stored[0];
    IMClose(1);
  }
  openNew(1);  // the store needs the wide layout
  EXPECT_EQ(IMAlScl2(1, 0, 1, 2, 3, 4), 0);
  EXPECT_EQ(record(1)->fDisplayScale[0][3], 4.0f);
  EXPECT_EQ(IMAlFileType(1, 99), 0);
  EXPECT_EQ(IMAlScl2(1, 0, 9, 9, 9, 9), 806);
  EXPECT_EQ(record(1)->fDisplayScale[0][0], 1.0f);
}

TEST_F(AttributesTest, CellAndPixelSizesFollowTheSampling) {
  openNew(1);
  openNew(2);
  IMStreamRecord *src = record(1), *dst = record(2);
  src->fSampling[0] = 2.0f;
  float const cell[6] = {3.0f, 5.0f, 7.0f, 80.0f, 85.0f, 95.0f};
  ASSERT_EQ(IMAlCel(1, cell), 0);
  EXPECT_EQ(src->fPixelSize[0], 1.5f);
  dst->fSampling[0] = 4.0f;
  dst->fSampling[2] = 0.5f;
  ASSERT_EQ(IMTrCel(2, 1), 0);
  float back[6];
  ASSERT_EQ(IMRtCel(2, back), 0);
  EXPECT_EQ(Floats(back, back + 6), Floats(cell, cell + 6));
  EXPECT_EQ(Floats(dst->fPixelSize, dst->fPixelSize + 3), Floats({0.75f, 5, 14}));
  stderrOf([&] {
    EXPECT_EQ(IMTrCel(2, 0), 1);
    EXPECT_EQ(IMTrCel(30, 31), 3);
    EXPECT_EQ(IMTrCel(0, 31), 1 | 3);
  });
  // A zero size is stored all the same, with its message and 502.
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMAlDel2(1, 0.0f, 2.0f, 3.0f), 502); }),
            "IMAlDel 1: pixel size must be greater than 0\n");
  EXPECT_EQ(Floats({src->fPixelSize[0], src->fCellSize[0], src->fCellSize[1]}), Floats({0, 0, 2}));
}

TEST_F(AttributesTest, FileTypeCapacitiesTitlesAndTimeStamp) {
  static char const labels[7][80] = {"1", "2", "3", "4", "5", "6", "7"};
  openNew(1);
  int count = 0, max = 0, fileType = -1;
  ASSERT_TRUE(allOk({IMAlLab(1, labels, 4), IMAlFileType(1, 0), IMRtNumLab(1, &count),
                     IMRtMaxNumLab(1, &max), IMRtFileType(1, &fileType)}));
  EXPECT_EQ(Ints({count, max, record(1)->iMaxWaves, fileType}), Ints({4, 10, 5, 0}));
  ASSERT_EQ(IMAlLab(1, labels, 7), 0);
  expectCalls(
      {IM_CALL(IMAlFileType(1, 100), 401,
               "IMAlFileType 1: the current number of titles (7) is too large for file type 100.\n"
               "IMAlFileType 1: setting the number of titles to 4.\n")});
  IMRtNumLab(1, &count);
  EXPECT_EQ(Ints({count, record(1)->iMaxWaves}), Ints({4, 12}));
  // IMAlDat does the same under its own name.
  ASSERT_TRUE(allOk({IMAlDat(1, 0, 0, 0, 0, 0, 0), IMAlLab(1, labels, 6)}));
  EXPECT_NE(stderrOf([&] {
              EXPECT_EQ(IMAlDat(1, 101, 3, 4, 5, 6.5f, 7.5f), 401);
            }).find("IMAlDat 1: setting the number of titles to 4.\n"),
            std::string::npos);
  int type, lens, v1, v2;
  float v3, v4;
  ASSERT_EQ(IMRtDat(1, &type, &lens, &v1, &v2, &v3, &v4), 0);
  EXPECT_EQ(Floats({float(type), float(lens), float(v1), float(v2), v3, v4}),
            Floats({101, 3, 4, 5, 6.5f, 7.5f}));
  // Titles are cut at 79 characters and 4 titles.
  char titles[5][80], back[4][80];
  std::memset(titles, 'x', sizeof titles);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMAlLab(1, titles, 5), 401); }),
            "IMAlLab 1: 5 is too many titles. Truncating at 4...\n");
  ASSERT_EQ(IMRtLab(1, back, &count), 0);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(std::string(back[0]), std::string(79, 'x'));
  ASSERT_TRUE(allOk({IMAlLab2(1, labels + 2, 3, 1), IMRtLab2(1, back, 3, 1)}));
  EXPECT_STREQ(back[0], "3");
  // The time stamp needs the wide layout and a plausible value.
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
  expectCalls({IM_CALL(IMRtTimeStamp(1, &t), 507, "IMRtTimeStamp 1: invalid image type (0).\n"),
               IM_CALL(IMAlTimeStamp(1, 4e8), 507, "IMAlTimeStamp 1: invalid image type (0).\n")});
}

TEST_F(AttributesTest, ModeCountsFlagsAndSpaceGroup) {
  openNew(1, 3, 2, 2);
  EXPECT_NE(
      stderrOf([&] { EXPECT_EQ(IMAlMode(1, 3), 0); }).find("16 bit complex data not supported"),
      std::string::npos);  // the size function speaks, the result stays 0
  EXPECT_EQ(record(1)->iBytesPerPixel, 4);
  EXPECT_EQ(IMAlMode(1, 6), 0);
  EXPECT_EQ(record(1)->iBytesPerPixel, 2);
  int nz, nw, nt, np, seq, s[3], sampling[3], st[3];
  ASSERT_TRUE(allOk({IMAlZWTP2(1, 5, 2, 3, 2), IMRtZWTP(1, &nz, &nw, &nt, &np, &seq)}));
  EXPECT_EQ(Ints({record(1)->iNumSecs, seq}), Ints({60, 0}));
  ASSERT_TRUE(allOk({IMAlZWT(1, 4, 1, 1, 2), IMRtZWTP(1, &nz, &nw, &nt, &np, &seq)}));
  EXPECT_EQ(Ints({nz, np, seq}), Ints({4, 1, 2}));
  int const size[3] = {10, 11, 99}, start[3] = {1, 2, 3};
  ASSERT_TRUE(allOk({IMAlSiz(1, size, start), IMRtSiz(1, s, sampling, st)}));
  EXPECT_EQ(Ints({s[2], sampling[0], st[0], st[2], record(1)->iNumZ}),
            Ints({99, 1, 1, 3, 4}));  // no checks
  int group = 0, bytes = 0;
  ASSERT_TRUE(allOk({IMAlSpg(1, 5, 2048), IMRtSpg(1, &group, &bytes)}));
  EXPECT_EQ(Ints({group, bytes}), Ints({5, 2048}));
  Bytes data(2048, 7), back(2048, 0);
  ASSERT_TRUE(allOk({IMAlSym(1, 16, data.data()), IMRtSym(1, &bytes, back.data())}));
  EXPECT_EQ(Ints({bytes, back[15], back[16]}), Ints({2048, 7, 0}));
  ASSERT_TRUE(allOk({IMAlSpg(1, 5, -3), IMRtSpg(1, &group, &bytes)}));
  EXPECT_EQ(bytes, 0);
}

class SecondLinkageTest : public ImsubsTest {};

TEST_F(SecondLinkageTest, ScalarsArriveByAddressAndWrappersDoMore) {
  create(1, "a", 5, 4, 3, 2, 1);
  int s = 1, nx = 0, ny = 0, w = 1, iz = 2, iw = 1, it = 0, id = 3, bad = 0;
  float x = 1.5f, y = -2.0f, z = 3.25f, back[3] = {}, mn = 1, mx = 9, mean = 4;
  double value = 0.1, read = 0;
  ASSERT_TRUE(allOk({ialorg_(&s, &x, &y, &z), irtorg_(&s, &back[0], &back[1], &back[2]),
                     irtxy_(&s, &nx, &ny), ialwav_mmm_(&s, &w, &mn, &mx, &mean),
                     ialexhdr_valuezwt_(&s, &iz, &iw, &it, &id, &value),
                     irtexhdr_valuezwt_(&s, &iz, &iw, &it, &id, &read)}));
  EXPECT_EQ(Floats({back[0], back[2], record(1)->fMeans[1]}), Floats({1.5f, 3.25f, 4}));
  EXPECT_EQ(Ints({nx, ny}), Ints({5, 4}));
  EXPECT_EQ(read, static_cast<double>(0.1f));
  unsigned code = 704;
  EXPECT_STREQ(irterrtext_(&code), "Extended header size too small");
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(irtxy_(&bad, &nx, &ny), 1); }),
            "IMRtXY 0: invalid stream number.\n");
  // Bounds counted from 1: columns 2-3 and row 2 of a 3 by 2 image.
  float const image[6] = {1, 2, 3, 4, 5, 60};
  int width = 3, height = 2, c0 = 2, c1 = 3, r0 = 2, r1 = 2;
  EXPECT_EQ(iclden_(image, &width, &height, &c0, &c1, &r0, &r1, &mn, &mx, &mean), 0);
  EXPECT_EQ(Floats({mn, mx, mean}), Floats({5, 60, 32.5f}));
  // The open wrapper takes blank-padded strings with their lengths.
  std::string const path = file("padded");
  s = 2;
  EXPECT_EQ(imopen_(&s, (path + "      ").c_str(), "NEW   junk", static_cast<int>(path.size()), 10),
            0);
  EXPECT_STREQ(record(2)->pName, path.c_str());
  int flag = 1;
  ASSERT_TRUE(allOk({IMCrHdr2(2, 2, 2, 1, 1, 1, 0, 2), iwrhdr2_(&s, &flag), imclose_(&s)}));
  expectCalls({IM_CALL(imopen_(&s, path.c_str(), "new", 2041, 3), 105,
                       "IMOpen_ 2: file name is too long.\n")});
  IMAlPrt(2);
  CaptureStdout();
  EXPECT_EQ(imopen_(&s, path.c_str(), "old", static_cast<int>(path.size()), 3), 0);
  EXPECT_EQ(GetCapturedStdout(), "IMOpen_ 2: string lengths = " + std::to_string(path.size()) +
                                     ", 3\n> name: " + path + ".\n> attrib: old.\n");
}

}  // namespace
}  // namespace imtest
