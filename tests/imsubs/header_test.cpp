// The 1024-byte header and the whole-header calls: decoding hand-made
// headers of both layouts in both byte orders with a round trip through a
// rewrite, the rounding rules of the encoder, the report text, header
// images, the rectangle statistics and the unsupported calls.
#include <cstddef>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

constexpr int kNarrow = 0;
constexpr int kWide = 100;

// The record's plain decoded fields, as bytes; the record is allocated
// zeroed, so padding compares equal.
std::string decodedBytes(IMStreamRecord const* r) {
  auto span = [r](std::size_t from, std::size_t to) {
    return std::string(reinterpret_cast<char const*>(r) + from, to - from);
  };
  return span(offsetof(IMStreamRecord, iFileType), offsetof(IMStreamRecord, pExtHdr)) +
         span(offsetof(IMStreamRecord, iNumSubRes), offsetof(IMStreamRecord, pHeader));
}

// A header with a value in every field, written as a writer of the given
// byte order would write it. Bytes from 224 on are written in host order:
// the library never swaps them, so they are read as they stand.
RawHeader fullHeader(int fileType, bool foreign) {
  RawHeader h;
  h.foreign = foreign;
  // clang-format off
  std::pair<int, int> const ints[] = {
      {hdroff::giNumX, 7}, {hdroff::giNumY, 5}, {hdroff::giNumSecs, 48}, {hdroff::giPixDataType, 1},
      {hdroff::giStartCol, 3}, {hdroff::giStartRow, 4}, {hdroff::giStartSec, 5},
      {hdroff::giXYZSampling, 2}, {hdroff::giXYZSampling + 8, 3}, {hdroff::giAxisSequenceMap, 1},
      {hdroff::giAxisSequenceMap + 4, 3}, {hdroff::giAxisSequenceMap + 8, 2},
      {hdroff::giSpaceGroupNum, 1}};
  // clang-format on
  for (auto const& [at, v] : ints) h.put<int32_t>(at, v);
  std::pair<int, float> const floats[] = {
      {hdroff::gfCellWidth, 14},    {hdroff::gfCellHeight, 10},   {hdroff::gfCellDepth, 9},
      {hdroff::gfAxisAngleX, 90},   {hdroff::gfAxisAngleY, 80},   {hdroff::gfAxisAngleZ, 70},
      {hdroff::gfTiltAngleX, 1},    {hdroff::gfTiltAngleY, 2},    {hdroff::gfTiltAngleZ, 3},
      {hdroff::gfOriginCoordZ, 11}, {hdroff::gfOriginCoordX, 12}, {hdroff::gfOriginCoordY, 13},
      {iHdrOffMin(0), 1.5f},        {iHdrOffMax(0), 250.25f},     {iHdrOffMean(0), 100.125f}};
  for (auto const& [at, v] : floats) h.put<float>(at, v);
  // clang-format off
  std::pair<int, int> const shorts[] = {
      {hdroff::gnImageFileID, kFileIDHostOrder}, {hdroff::gnNumExtHdrInts, 2},
      {hdroff::gnNumExtHdrFloats, 3}, {hdroff::gnNumSubResImages, 2},
      {hdroff::gnReductionFactor, 3}, {hdroff::gnImageFileType, fileType}, {hdroff::gwLensID, 42},
      {hdroff::gnDataVal1, -7}, {hdroff::gnDataVal2, 9}, {hdroff::gnDataVal3, 250},
      {hdroff::gnDataVal4, -150}, {hdroff::gwNumTimes, 4}, {hdroff::gnImageSequence, 2},
      {hdroff::gwNumWaves, 2}, {hdroff::gwExtHdrType, 3}, {iHdrOffWave(0), 500},
      {iHdrOffWave(1), 600}, {iHdrOffWave(2), -450}, {iHdrOffWave(4), 700}};
  // clang-format on
  for (auto const& [at, v] : shorts) h.put<int16_t>(at, static_cast<int16_t>(v));
  // The unit 220..223 is reversed whole, so a foreign writer's count comes
  // from bytes 220 and 221.
  h.put<int16_t>(foreign ? 220 : hdroff::gnNumTitles, 3);
  for (int w = 1; w < 5; ++w)
    h.put<float>(iHdrOffMin(w), 10.0f * w).put<float>(iHdrOffMax(w), 20.0f * w);
  h.foreign = false;
  std::string const titles[3] = {"first", std::string(80, 'x'), "third"};
  for (int i = 0; i < 3; ++i) {
    std::memcpy(h.bytes.data() + hdroff::gcTitles + kTitleBytes * i, titles[i].data(),
                titles[i].size());
  }
  if (fileType == kWide) {
    for (int w = 1; w < kMaxWaves; ++w) {
      if (w >= 5) {
        h.put<float>(iHdrOffMin(w), 1.0f + w).put<float>(iHdrOffMax(w), 100.0f + w);
        h.put<int16_t>(iHdrOffWave(w), static_cast<int16_t>(400 + w));
      }
      h.put<float>(iHdrOffMean(w), 50.0f + w);
    }
    for (int k = 0; k < 6; ++k) h.put<float>(hdroff::gfDisplayScale + 4 * k, k / 3 + k % 3 + 0.5f);
    h.put<double>(hdroff::gdTimeStamp, 1.5e9).put<uint32_t>(hdroff::guNumTimes, 4);
    h.put<uint8_t>(hdroff::gcDataBitsPerPixel, 12).put<int32_t>(hdroff::giNumP, 2);
  }
  return h;
}

class ImsubsHeader : public ImsubsTest {
 protected:
  int openRaw(int iStream, RawHeader const& header, char const* attrib = "ro") {
    header.write(file("raw"));
    return IMOpen(iStream, file("raw").c_str(), attrib);
  }
};

TEST_F(ImsubsHeader, DecodesBothLayoutsInBothByteOrdersAndSurvivesARewrite) {
  for (int fileType : {kNarrow, kWide}) {
    for (bool foreign : {false, true}) {
      SCOPED_TRACE(testing::Message() << "type " << fileType << " foreign " << foreign);
      ASSERT_EQ(openRaw(1, fullHeader(fileType, foreign), "old"), 0);
      IMStreamRecord const* r = record(1);
      bool const wide = fileType == kWide;
      int const p = wide ? 2 : 1, z = wide ? 3 : 6, titles = wide ? 4 : 10, waves = wide ? 12 : 5;
      int const type = foreign ? 0x0300 : 3;
      EXPECT_EQ(Ints({r->iSwapped,   r->iFileID,     r->iNumX,     r->iNumY,      r->iNumW,
                      r->iNumT,      r->iNumP,       r->iNumZ,     r->iPixelType, r->iBytesPerPixel,
                      r->iStartSec,  r->iAxisMap[1], r->iLensID,   r->iDataVal1,  r->iNumExtInts,
                      r->iNumSubRes, r->iMaxTitles,  r->iMaxWaves, r->iNumTitles, r->iExtHdrType}),
                Ints({foreign, -16224, 7,  5,  2, 4, p,      z,     1, 2,
                      5,       3,      42, -7, 2, 2, titles, waves, 3, type}));
      // A stored sampling of 0 reads as 1; bytes 100 to 127 are never swapped.
      EXPECT_EQ(Floats({r->fSampling[1], r->fPixelSize[0], r->fPixelSize[2], r->fOrigin[0],
                        r->fOrigin[2], r->fCellAngle[2], r->fDataVal3, r->fDataVal4,
                        r->fReductionFactor, r->fWaves[2], r->fMaxs[4], r->fMeans[0]}),
                Floats({1, 7, 3, 12, 11, 70, 2.5f, -1.5f, 3, -450, 80, 100.125f}));
      EXPECT_STREQ(r->cTitles[0], "first");
      EXPECT_EQ(std::string(r->cTitles[1]), std::string(79, 'x'));
      EXPECT_STREQ(r->cTitles[2], "third");
      if (wide) {
        EXPECT_EQ(Floats({r->fMins[11], r->fWaves[11], r->fMeans[3], r->fDisplayScale[1][2],
                          r->fDisplayScale[1][3]}),
                  Floats({12, 411, 53, 3.5f, 0}));
        EXPECT_EQ(r->dTimeStamp, 1.5e9);
        EXPECT_EQ(r->cDataBits, 12);
      }
      std::string const before = decodedBytes(r);
      ASSERT_EQ(IMWrHdr2(1, 0), 0);
      ASSERT_EQ(IMClose(1), 0);
      Bytes const written = readBytes(file("raw"));
      EXPECT_EQ(hostValueAt<int16_t>(written, 96), kFileIDHostOrder);
      EXPECT_EQ(hostValueAt<float>(written, 208), 11.0f);  // origin Z ahead of X
      ASSERT_EQ(IMOpen(1, file("raw").c_str(), "ro"), 0);
      EXPECT_EQ(record(1)->iSwapped, 0);
      EXPECT_EQ(decodedBytes(record(1)), before);
      ASSERT_EQ(IMClose(1), 0);
    }
  }
}

TEST_F(ImsubsHeader, EncodeRoundsEachFieldByItsOwnRule) {
  struct Case {
    char const* what;
    void (*set)(IMStreamRecord*);
    int offset, width;  // 2 or 4 bytes, signed
    int expected;
  };
  Case const cases[] = {
      {"wave -500.4", [](IMStreamRecord* r) { r->fWaves[0] = -500.4f; }, iHdrOffWave(0), 2, -500},
      {"wave -500.6", [](IMStreamRecord* r) { r->fWaves[0] = -500.6f; }, iHdrOffWave(0), 2, -501},
      {"wave 500.5", [](IMStreamRecord* r) { r->fWaves[0] = 500.5f; }, iHdrOffWave(0), 2, 501},
      {"wave 11", [](IMStreamRecord* r) { r->fWaves[11] = 610.5f; }, iHdrOffWave(11), 2, 611},
      {"value 3", [](IMStreamRecord* r) { r->fDataVal3 = -2.9399998f; }, hdroff::gnDataVal3, 2,
       -293},
      {"value 4", [](IMStreamRecord* r) { r->fDataVal4 = 1.239f; }, hdroff::gnDataVal4, 2, 123},
      {"sampling 2.5", [](IMStreamRecord* r) { r->fSampling[0] = 2.5f; }, hdroff::giXYZSampling, 4,
       3},
      {"reduction", [](IMStreamRecord* r) { r->fReductionFactor = 1.5f; },
       hdroff::gnReductionFactor, 2, 2},
      {"waves cut", [](IMStreamRecord* r) { r->iNumW = 65537; }, hdroff::gwNumWaves, 2, 1},
      {"P below 1", [](IMStreamRecord* r) { r->iNumP = -4; }, hdroff::giNumP, 4, 1},
      {"T capped", [](IMStreamRecord* r) { r->iNumT = 70000; }, hdroff::gwNumTimes, 2, -1},
      {"T kept wide", [](IMStreamRecord* r) { r->iNumT = 70000; }, hdroff::guNumTimes, 4, 70000},
      {"negative stamp", [](IMStreamRecord* r) { r->dTimeStamp = -5; }, hdroff::gdTimeStamp, 4, 0},
  };
  for (Case const& c : cases) {
    ASSERT_EQ(IMOpen(5, file("enc").c_str(), "new"), 0);
    c.set(record(5));
    ASSERT_EQ(IMWrHdr2(5, 0), 0);
    Bytes const bytes = readBytes(file("enc"));
    EXPECT_EQ(c.width == 2 ? hostValueAt<int16_t>(bytes, c.offset)
                           : hostValueAt<int32_t>(bytes, c.offset),
              c.expected)
        << c.what;
    ASSERT_EQ(IMClose(5), 0);
  }
}

TEST_F(ImsubsHeader, ReportOfAStackReadBackFromItsFile) {
  create(1, "report", 8, 6, 3, 2, 1, 1, 2);
  float const pixel[3] = {0.1f, 0.1f, 0.3f}, tilt[3] = {1.5f, 0.0f, -90.0f};
  static char const titles[2][80] = {"first", "second title"};
  ASSERT_TRUE(
      allOk({IMAlDel(1, pixel), IMAlWav2(1, 1, 600.0f), IMAlWavMMM(1, 1, 1.0f, 2.0f, 1.5f),
             IMAlTlt(1, tilt), IMAlLensID(1, 10002), IMAlLab(1, titles, 2), IMWrHdr2(1, 1)}));
  ASSERT_EQ(IMClose(1), 0);
  ASSERT_EQ(IMOpen(1, file("report").c_str(), "ro"), 0);
  CaptureStdout();
  EXPECT_EQ(IMReportInfo(1), 0);
  EXPECT_EQ(GetCapturedStdout(),
            "\nImage Name............................\t" + file("report") +
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
                "\nTitles................................\nfirst\nsecond title\n\n");
  int size[3], sampling[3], mode;  // the classic reader
  float mn, mx, mean;
  ASSERT_EQ(IMRdHdr(1, size, sampling, &mode, &mn, &mx, &mean), 0);
  EXPECT_EQ(Floats({float(size[2]), float(sampling[0]), float(mode), mn, mx, mean}),
            Floats({6, 1, 2, 0, 1000, 500}));
}

TEST_F(ImsubsHeader, HeaderImagesStatisticsAndUnsupportedCalls) {
  create(1, "a", 8, 6, 3, 2, 1, 1, 2);
  create(2, "b", 8, 6, 3, 2, 1, 1, 2);
  ASSERT_EQ(IMAlXY(1, 31, 17), 0);
  unsigned char image[1024];
  ASSERT_EQ(IMGetHdr(1, image), 0);
  EXPECT_EQ(hostValueAt<int32_t>(Bytes(image, image + 1024), 0), 31);
  ASSERT_EQ(IMPutHdr(2, image), 0);
  int nx = 0, ny = 0;
  IMRtXY(2, &nx, &ny);
  EXPECT_EQ(Ints({nx, ny, record(2)->iSwapped}), Ints({31, 17, 0}));
  RawHeader h;  // a foreign image is swapped on the way in
  h.foreign = true;
  h.basic(9, 5, 2, 1, 1, 2, 100);
  ASSERT_EQ(IMAlHdr(2, h.bytes.data()), 0);
  IMRtXY(2, &nx, &ny);
  EXPECT_EQ(Ints({nx, ny, record(2)->iSwapped}), Ints({9, 5, 1}));

  float const density[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, -12};  // 4 x 3
  struct Rect {
    int c0, c1, r0, r1, result;
    Floats expected;
  };
  Rect const rects[] = {{0, 3, 0, 2, 0, {-12, 11, 54.0f / 12}},
                        {2, 2, 1, 1, 0, {7, 7, 7}},
                        {2, 1, 0, 1, 10000, {99, 99, 99}},
                        {0, 1, 2, 1, 10000, {99, 99, 99}}};
  for (Rect const& c : rects) {
    float mn = 99, mx = 99, mean = 99;
    EXPECT_EQ(stderrOf([&] {
                EXPECT_EQ(IMCalcDen(density, 4, 3, c.c0, c.c1, c.r0, c.r1, &mn, &mx, &mean),
                          c.result);
              }),
              c.result == 0 ? "" : "IMCalcDen: invalid ROI.\n");
    EXPECT_EQ(Floats({mn, mx, mean}), c.expected) << c.c0 << " " << c.r0;
  }
  expectCalls({
      IM_CALL(IMRtHdr(5, image), 3,
              "IMRtHdr 5: internal stream numbering error.\nIMRtHdr 5: invalid stream.\n"),
      IM_CALL(IMInterp(), 904, "IMInterp: unsupported function.\n"),
      IM_CALL(IMClLim(3), 3, "IMClLim 3: internal stream numbering error.\n"),
      IM_CALL(IMRtExt(1), 0, "IMRtExt: function not supported.\n"),
      IM_CALL(IMTrHdr(2, 40), 3, "IMTrHdr 40: internal stream numbering error.\n"),
  });
  EXPECT_EQ(iTransferWinPositionToStructure(record(1)), 0);
  EXPECT_EQ(iTransferStructureToWinHeader(record(1)), 0);
}

}  // namespace
}  // namespace imtest
