// Whole-header calls and the report: the exact report text of a real stack,
// the title modes of IMWrHdr, the older creator, header images moved between
// caller and stream, the rectangle statistics and the unsupported calls.
#include <gmock/gmock.h>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

class HeaderCallsTest : public ImsubsTest {
 protected:
  void openStack(int iStream, std::string const& name) {
    ASSERT_EQ(IMOpen(iStream, file(name).c_str(), "new"), 0);
    ASSERT_EQ(IMCrHdr3(iStream, 8, 6, 3, 2, 1, 1, 2, 2), 0);
  }
};

TEST_F(HeaderCallsTest, ReportOfAStackReadBackFromItsFile) {
  std::string const path = file("report");
  openStack(1, "report");
  float const pixel[3] = {0.1f, 0.1f, 0.3f};
  ASSERT_EQ(IMAlDel(1, pixel), 0);
  ASSERT_EQ(IMAlWav2(1, 1, 600.0f), 0);
  ASSERT_EQ(IMAlWavMMM(1, 1, 1.0f, 2.0f, 1.5f), 0);
  float const tilt[3] = {1.5f, 0.0f, -90.0f};
  ASSERT_EQ(IMAlTlt(1, tilt), 0);
  ASSERT_EQ(IMAlLensID(1, 10002), 0);
  static char const titles[2][80] = {"first", "second title"};
  ASSERT_EQ(IMAlLab(1, titles, 2), 0);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  ASSERT_EQ(IMClose(1), 0);

  ASSERT_EQ(IMOpen(1, path.c_str(), "ro"), 0);
  CaptureStdout();
  EXPECT_EQ(IMReportInfo(1), 0);
  EXPECT_EQ(GetCapturedStdout(),
            "\n"
            "Image Name............................\t" +
                path +
                "\n"
                "Size (X, Y, Z)........................\t8 6 3\n"
                "Size (W, T, P)........................\t2 1 1\n"
                "Data Type.............................\t4 byte floating-point\n"
                "Sequence..............................\tZ -> W -> T\n"
                "Pixel Size (dX, dY, dZ)...............\t0.100 0.100 0.300\n"
                "Wavelengths (nm)......................\t500.00  600.00  \n"
                "Min, Max, Mean (w=500.0 nm)...........\t0.00 1000.00 500.00\n"
                "Min, Max, Mean (w=600.0 nm)...........\t1.00 2.00 1.50\n"
                "Rotation Angles (alpha, beta, gamma)..\t1.50 0.00 -90.00\n"
                "Extended Header Size (bytes)..........\t4096\n"
                "Extended Header Type .................\t4\n"
                "Image Type............................\t100\n"
                "Lens ID Number........................\t10002\n"
                "\n"
                "Titles................................\n"
                "first\n"
                "second title\n"
                "\n");

  // With verbosity on, the classic reader reports too.
  int size[3], sampling[3], mode;
  float mn, mx, mean;
  IMAlPrt(1);
  CaptureStdout();
  ASSERT_EQ(IMRdHdr(1, size, sampling, &mode, &mn, &mx, &mean), 0);
  EXPECT_THAT(GetCapturedStdout(),
              testing::HasSubstr("Size (W, T, P)........................\t2 1 1\n"));
  EXPECT_EQ(size[2], 6);
  EXPECT_EQ(mode, 2);
  EXPECT_EQ(mx, 1000.0f);
}

struct SequenceCase {
  int code;
  char const* label;
};

TEST_F(HeaderCallsTest, ReportNamesEverySequence) {
  std::vector<SequenceCase> const cases = {
      {0, "Z -> T -> W"},       {1, "W -> Z -> T"}, {2, "Z -> W -> T"}, {3, "Z -> P -> W -> T"},
      {14, "T -> P -> W -> Z"}, {15, "Undefined"},  {-1, "Undefined"},
  };
  openStack(1, "sequence");
  for (SequenceCase const& c : cases) {
    SCOPED_TRACE(c.code);
    ASSERT_EQ(IMAlImageSequence(1, c.code), 0);
    CaptureStdout();
    IMReportInfo(1);
    EXPECT_THAT(GetCapturedStdout(),
                testing::HasSubstr(std::string("Sequence..............................\t") +
                                   c.label + "\n"));
  }
}

struct TitleCase {
  char const* what;
  int initial;
  int mode;
  int count;
  int slot;  // where the new title lands, -1 for nowhere
  char const* message;
};

TEST_F(HeaderCallsTest, WriteHeaderTitleModes) {
  std::vector<TitleCase> const cases = {
      {"replace all", 3, 0, 1, 0, ""},
      {"append", 2, 1, 3, 2, ""},
      {"append to a full list", 4, 1, 4, 3, ""},
      {"append to a negative count", -3, 1, 1, 0,
       "IMWrHdr: the number of titles appears to be less than 1.\n"},
      {"add to top", 1, 2, 2, 1,
       "IMWrHdr: add title to top of list not yet supported. Adding to bottom.\n"},
      {"other mode", 2, 5, 2, -1, ""},
  };
  static char const old[4][80] = {"t0", "t1", "t2", "t3"};
  for (TitleCase const& c : cases) {
    SCOPED_TRACE(c.what);
    std::string const path = file("titles");
    openStack(1, "titles");
    ASSERT_EQ(IMAlLab(1, old, 4), 0);
    record(1)->iNumTitles = c.initial;
    CaptureStderr();
    IMWrHdr(1, "new title", c.mode, -1.0f, 7.0f, 2.5f);
    EXPECT_EQ(GetCapturedStderr(), c.message);
    IMClose(1);
    ASSERT_EQ(IMOpen(1, path.c_str(), "ro"), 0);  // IMWrHdr wrote it all
    char titles[10][80];
    int count = 0;
    ASSERT_EQ(IMRtLab(1, titles, &count), 0);
    EXPECT_EQ(count, c.count);
    if (c.slot >= 0) {
      EXPECT_STREQ(titles[c.slot], "new title");
    }
    float mn, mx, mean;
    ASSERT_EQ(IMRtWavMMM(1, 0, &mn, &mx, &mean), 0);
    EXPECT_EQ(mn, -1.0f);
    EXPECT_EQ(mean, 2.5f);
    IMClose(1);
  }
}

TEST_F(HeaderCallsTest, OlderCreatorMakesNoExtendedHeader) {
  std::string const path = file("older");
  ASSERT_EQ(IMOpen(1, path.c_str(), "new"), 0);
  int const size[3] = {4, 3, 5};
  int const sampling[3] = {2, 0, 1};
  static char const titles[1][80] = {"made by the older creator"};
  CaptureStderr();
  ASSERT_EQ(IMCrHdr(1, size, sampling, 9, titles, 1), 0);
  EXPECT_EQ(GetCapturedStderr(),
            "IMCrHdr 1: 9 is an invalid pixel data type.\n"
            "IMCrHdr 1: Y sampling must be greater than 0.\n");
  IMStreamRecord const* r = record(1);
  EXPECT_EQ(r->iPixelType, 1);
  EXPECT_EQ(r->iNumSecs, 5);
  EXPECT_EQ(r->iNumZ, 5);
  EXPECT_EQ(r->iNumW, 1);
  EXPECT_EQ(r->iImageSequence, 0);
  EXPECT_EQ(r->fPixelSize[0], 0.5f);
  EXPECT_EQ(r->fPixelSize[1], 1.0f);
  EXPECT_EQ(r->iExtHdrSize, 0);
  EXPECT_EQ(r->iNumExtFloats, 0);
  EXPECT_EQ(r->pExtHdr, nullptr);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  EXPECT_EQ(fileSize(path), 1024);
  int count = 0;
  IMRtNumLab(1, &count);
  EXPECT_EQ(count, 1);
}

TEST_F(HeaderCallsTest, HeaderImagesMoveBetweenCallerAndStream) {
  openStack(1, "a");
  openStack(2, "b");
  ASSERT_EQ(IMAlXY(1, 31, 17), 0);
  unsigned char image[1024];
  ASSERT_EQ(IMGetHdr(1, image), 0);
  EXPECT_EQ(hostValueAt<int32_t>(std::vector<unsigned char>(image, image + 1024), 0), 31);
  ASSERT_EQ(IMPutHdr(2, image), 0);
  int nx = 0, ny = 0;
  IMRtXY(2, &nx, &ny);
  EXPECT_EQ(ny, 17);
  EXPECT_EQ(record(2)->iSwapped, 0);

  // A foreign image is swapped on the way in.
  RawHeader h;
  h.foreign = true;
  h.basic(9, 5, 2, 1, 1, 2, 100);
  ASSERT_EQ(IMAlHdr(2, h.bytes.data()), 0);
  IMRtXY(2, &nx, &ny);
  EXPECT_EQ(nx, 9);
  EXPECT_EQ(record(2)->iSwapped, 1);

  CaptureStderr();
  EXPECT_EQ(IMRtHdr(5, image), 3);
  EXPECT_EQ(GetCapturedStderr(),
            "IMRtHdr 5: internal stream numbering error.\nIMRtHdr 5: invalid stream.\n");
}

struct DensityCase {
  char const* what;
  int c0, c1, r0, r1;
  int result;
  float min, max, mean;
};

TEST_F(HeaderCallsTest, RectangleStatistics) {
  // 4 columns, 3 rows.
  float const image[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, -12};
  std::vector<DensityCase> const cases = {
      {"whole image", 0, 3, 0, 2, 0, -12, 11, 54.0f / 12},
      {"one pixel", 2, 2, 1, 1, 0, 7, 7, 7},
      {"inner block", 1, 2, 0, 1, 0, 2, 7, 4.5f},
      {"columns reversed", 2, 1, 0, 1, 10000, 99, 99, 99},
      {"rows reversed", 0, 1, 2, 1, 10000, 99, 99, 99},
  };
  for (DensityCase const& c : cases) {
    SCOPED_TRACE(c.what);
    float mn = 99, mx = 99, mean = 99;
    CaptureStderr();
    EXPECT_EQ(IMCalcDen(image, 4, 3, c.c0, c.c1, c.r0, c.r1, &mn, &mx, &mean), c.result);
    EXPECT_EQ(GetCapturedStderr(), c.result == 0 ? "" : "IMCalcDen: invalid ROI.\n");
    EXPECT_EQ(mn, c.min);
    EXPECT_EQ(mx, c.max);
    EXPECT_FLOAT_EQ(mean, c.mean);
  }
}

TEST_F(HeaderCallsTest, UnsupportedCalls) {
  openStack(1, "stubs");
  CaptureStderr();
  EXPECT_EQ(IMInterp(), 904);
  EXPECT_EQ(IMClLim(1), 904);
  EXPECT_EQ(IMClLim(2), 3);
  EXPECT_EQ(IMRtExt(1), 0);
  EXPECT_EQ(IMAlTltRot(1, nullptr), 0);
  EXPECT_EQ(GetCapturedStderr(),
            "IMInterp: unsupported function.\nIMClLim: unsupported function.\n"
            "IMClLim 2: internal stream numbering error.\nIMRtExt: function not supported.\n"
            "IMAlTltRot: function not supported.\n");
  EXPECT_EQ(iTransferWinPositionToStructure(record(1)), 0);
  EXPECT_EQ(iTransferStructureToWinHeader(record(1)), 0);
}

}  // namespace
}  // namespace imtest
