// The 1024-byte header: decoding hand-made headers of both layouts in both
// byte orders, round trips through a rewrite, the repair and rounding rules,
// and the carrying over of reserved bytes.
#include <cmath>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

constexpr int kNarrow = 0;
constexpr int kWide = 100;

// Every decoded value of a record, in one comparable list.
std::vector<double> decodedValues(IMStreamRecord const* r) {
  std::vector<double> v = {
      double(r->iFileType),
      double(r->iPixelType),
      double(r->iBytesPerPixel),
      double(r->iNumSecs),
      double(r->iStartCol),
      double(r->iStartRow),
      double(r->iStartSec),
      double(r->iNumX),
      double(r->iNumY),
      double(r->iNumZ),
      double(r->iNumW),
      double(r->iNumT),
      double(r->iNumP),
      double(r->iImageSequence),
      double(r->iLensID),
      double(r->iSpaceGroup),
      double(r->iExtHdrSize),
      double(r->iExtHdrType),
      double(r->iNumExtInts),
      double(r->iNumExtFloats),
      double(r->iNumSubRes),
      double(r->fReductionFactor),
      r->dTimeStamp,
      double(r->iDataVal1),
      double(r->iDataVal2),
      double(r->fDataVal3),
      double(r->fDataVal4),
      double(r->iMaxTitles),
      double(r->iMaxWaves),
      double(r->iNumTitles),
      double(r->cDataBits),
  };
  for (int i = 0; i < 3; ++i) {
    for (double x : {double(r->fSampling[i]), double(r->iAxisMap[i]), double(r->fPixelSize[i]),
                     double(r->fTilt[i]), double(r->fCellAngle[i]), double(r->fOrigin[i]),
                     double(r->fCellSize[i])}) {
      v.push_back(x);
    }
  }
  for (int w = 0; w < r->iMaxWaves; ++w) {
    for (double x : {double(r->fMins[w]), double(r->fMaxs[w]), double(r->fMeans[w]),
                     double(r->fWaves[w]), double(r->fDisplayScale[w][0]),
                     double(r->fDisplayScale[w][1]), double(r->fDisplayScale[w][2])}) {
      v.push_back(x);
    }
  }
  return v;
}

// A header with a value in every field, written as a writer of the given
// byte order would write it. Bytes from 224 on are written in host order:
// the library never swaps them, so they are read as they stand.
RawHeader fullHeader(int fileType, bool foreign) {
  RawHeader h;
  h.foreign = foreign;
  h.put<int32_t>(hdroff::giNumX, 7).put<int32_t>(hdroff::giNumY, 5);
  h.put<int32_t>(hdroff::giNumSecs, 48).put<int32_t>(hdroff::giPixDataType, 1);
  h.put<int32_t>(hdroff::giStartCol, 3).put<int32_t>(hdroff::giStartRow, 4);
  h.put<int32_t>(hdroff::giStartSec, 5);
  h.put<int32_t>(hdroff::giXYZSampling, 2).put<int32_t>(hdroff::giXYZSampling + 4, 0);
  h.put<int32_t>(hdroff::giXYZSampling + 8, 3);
  h.put<float>(hdroff::gfCellWidth, 14).put<float>(hdroff::gfCellHeight, 10);
  h.put<float>(hdroff::gfCellDepth, 9);
  h.put<float>(hdroff::gfAxisAngleX, 90).put<float>(hdroff::gfAxisAngleY, 80);
  h.put<float>(hdroff::gfAxisAngleZ, 70);
  h.put<int32_t>(hdroff::giAxisSequenceMap, 1).put<int32_t>(hdroff::giAxisSequenceMap + 4, 3);
  h.put<int32_t>(hdroff::giAxisSequenceMap + 8, 2);
  h.put<int32_t>(hdroff::giSpaceGroupNum, 1);
  h.put<int16_t>(hdroff::gnImageFileID, kFileIDHostOrder);
  h.put<int16_t>(hdroff::gnNumExtHdrInts, 2).put<int16_t>(hdroff::gnNumExtHdrFloats, 3);
  h.put<int16_t>(hdroff::gnNumSubResImages, 2).put<int16_t>(hdroff::gnReductionFactor, 3);
  h.put<int16_t>(hdroff::gnImageFileType, static_cast<int16_t>(fileType));
  h.put<uint16_t>(hdroff::gwLensID, 42);
  h.put<int16_t>(hdroff::gnDataVal1, -7).put<int16_t>(hdroff::gnDataVal2, 9);
  h.put<int16_t>(hdroff::gnDataVal3, 250).put<int16_t>(hdroff::gnDataVal4, -150);
  h.put<uint16_t>(hdroff::gwNumTimes, 4).put<int16_t>(hdroff::gnImageSequence, 2);
  h.put<float>(hdroff::gfTiltAngleX, 1).put<float>(hdroff::gfTiltAngleY, 2);
  h.put<float>(hdroff::gfTiltAngleZ, 3);
  h.put<uint16_t>(hdroff::gwNumWaves, 2);
  int16_t const waves[5] = {500, 600, -450, 0, 700};
  for (int w = 0; w < 5; ++w) h.put<int16_t>(iHdrOffWave(w), waves[w]);
  h.put<float>(hdroff::gfOriginCoordZ, 11).put<float>(hdroff::gfOriginCoordX, 12);
  h.put<float>(hdroff::gfOriginCoordY, 13);
  h.put<float>(iHdrOffMin(0), 1.5f).put<float>(iHdrOffMax(0), 250.25f);
  h.put<float>(iHdrOffMean(0), 100.125f);
  for (int w = 1; w < 5; ++w) {
    h.put<float>(iHdrOffMin(w), 10.0f * w).put<float>(iHdrOffMax(w), 20.0f * w);
  }
  // The 4-byte unit 220..223 is reversed whole, so a foreign writer's count
  // reaches gnNumTitles from the bytes at 220 and 221.
  h.put<int16_t>(foreign ? 220 : hdroff::gnNumTitles, 3);

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
    for (int w = 0; w < 2; ++w) {
      for (int k = 0; k < 3; ++k)
        h.put<float>(hdroff::gfDisplayScale + 4 * (3 * w + k), w + k + 0.5f);
    }
    h.put<double>(hdroff::gdTimeStamp, 1.5e9).put<uint32_t>(hdroff::guNumTimes, 4);
    h.put<uint8_t>(hdroff::gcDataBitsPerPixel, 12).put<int32_t>(hdroff::giNumP, 2);
  }
  return h;
}

class ImsubsHeader : public ImsubsTest {
 protected:
  int openRaw(int iStream, RawHeader const& header, std::string const& name,
              char const* attrib = "ro") {
    writeBytes(file(name), header.bytes);
    return IMOpen(iStream, file(name).c_str(), attrib);
  }
};

TEST_F(ImsubsHeader, DecodesBothLayoutsInBothByteOrdersAndSurvivesARewrite) {
  struct Case {
    int fileType;
    bool foreign;
  };
  Case const cases[] = {{kNarrow, false}, {kNarrow, true}, {kWide, false}, {kWide, true}};
  for (Case const& c : cases) {
    SCOPED_TRACE(testing::Message() << "type " << c.fileType << " foreign " << c.foreign);
    ASSERT_EQ(openRaw(1, fullHeader(c.fileType, c.foreign), "full", "old"), 0);
    IMStreamRecord const* r = record(1);
    bool const wide = c.fileType == kWide;
    EXPECT_EQ(r->iSwapped, c.foreign ? 1 : 0);
    EXPECT_EQ(r->iFileID, -16224);
    EXPECT_EQ(r->iNumX, 7);
    EXPECT_EQ(r->iNumY, 5);
    EXPECT_EQ(r->iNumW, 2);
    EXPECT_EQ(r->iNumT, 4);
    EXPECT_EQ(r->iNumP, wide ? 2 : 1);
    EXPECT_EQ(r->iNumZ, wide ? 3 : 6);
    EXPECT_EQ(r->iPixelType, 1);
    EXPECT_EQ(r->iBytesPerPixel, 2);
    EXPECT_EQ(r->iStartSec, 5);
    EXPECT_EQ(r->fSampling[1], 1.0f);  // stored 0 reads as 1
    EXPECT_EQ(r->fPixelSize[0], 7.0f);
    EXPECT_EQ(r->fPixelSize[2], 3.0f);
    EXPECT_EQ(r->fOrigin[0], 12.0f);
    EXPECT_EQ(r->fOrigin[2], 11.0f);
    EXPECT_EQ(r->iAxisMap[1], 3);
    EXPECT_EQ(r->fCellAngle[2], 70.0f);
    EXPECT_EQ(r->iLensID, 42);
    EXPECT_EQ(r->iDataVal1, -7);
    EXPECT_FLOAT_EQ(r->fDataVal3, 2.5f);
    EXPECT_FLOAT_EQ(r->fDataVal4, -1.5f);
    // Bytes 100 to 127 are never swapped: the type arrives as stored.
    EXPECT_EQ(r->iNumExtInts, 2);
    EXPECT_EQ(r->iNumSubRes, 2);
    EXPECT_EQ(r->fReductionFactor, 3.0f);
    EXPECT_EQ(r->fWaves[2], -450.0f);
    EXPECT_EQ(r->fMaxs[4], 80.0f);
    EXPECT_EQ(r->iMaxTitles, wide ? 4 : 10);
    EXPECT_EQ(r->iMaxWaves, wide ? 12 : 5);
    EXPECT_EQ(r->iNumTitles, 3);
    EXPECT_STREQ(r->cTitles[0], "first");
    EXPECT_EQ(std::string(r->cTitles[1]), std::string(79, 'x'));
    EXPECT_STREQ(r->cTitles[2], "third");
    if (wide) {
      EXPECT_EQ(r->fMins[11], 12.0f);
      EXPECT_EQ(r->fWaves[11], 411.0f);
      EXPECT_EQ(r->fMeans[3], 53.0f);
      EXPECT_EQ(r->fDisplayScale[1][2], 3.5f);
      EXPECT_EQ(r->fDisplayScale[1][3], 0.0f);
      EXPECT_EQ(r->dTimeStamp, 1.5e9);
      EXPECT_EQ(r->cDataBits, 12);
    }
    std::vector<double> const before = decodedValues(r);

    ASSERT_EQ(IMWrHdr2(1, 0), 0);
    ASSERT_EQ(IMClose(1), 0);
    std::vector<unsigned char> const written = readBytes(file("full"));
    EXPECT_EQ(written[96], 0xA0);  // host order, little-endian host
    EXPECT_EQ(written[97], 0xC0);
    EXPECT_EQ(hostValueAt<float>(written, 208), 11.0f);  // origin Z ahead of X
    ASSERT_EQ(IMOpen(1, file("full").c_str(), "ro"), 0);
    EXPECT_EQ(record(1)->iSwapped, 0);
    EXPECT_EQ(decodedValues(record(1)), before);
    ASSERT_EQ(IMClose(1), 0);
  }
}

TEST_F(ImsubsHeader, SwappedExtHdrTypeArrivesAsStored) {
  RawHeader h;
  h.foreign = true;
  h.basic(2, 2, 1, 1, 1, 2, kWide).put<uint16_t>(hdroff::gwExtHdrType, 3);
  ASSERT_EQ(openRaw(2, h, "exttype"), 0);
  EXPECT_EQ(record(2)->iExtHdrType, 0x0300);
}

TEST_F(ImsubsHeader, CountsAreRepairedAndRaised) {
  struct Case {
    int fileType;
    uint16_t waves, times;
    uint32_t bigTimes;
    int32_t numP;
    int32_t secs;
    int expectW, expectT, expectP, expectZ;
    std::string err;
  };
  Case const cases[] = {
      {kWide, 0, 2, 0, 1, 8, 1, 2, 1, 4, "IMSubs: number of wavelengths must be > 0.\n"},
      {kWide, 2, 0, 0, 1, 8, 2, 1, 1, 4, "IMSubs: number of time-points must be > 0.\n"},
      {kWide, 1, 1, 0, 0, 6, 1, 1, 1, 6, ""},
      {kWide, 1, 3, 70000, 1, 140000, 1, 70000, 1, 2, ""},
      {kNarrow, 1, 3, 70000, 5, 12, 1, 3, 1, 4, ""},
      {kWide, 1, 3, 0xFFFFFFFFu, 1, 9, 1, 3, 1, 3, ""},  // signed comparison
      // Hostile counts whose product leaves 32 bits: no crash, no section.
      {kWide, 65535, 65535, 0x7FFFFFFF, 0x7FFFFFFF, 100, 65535, 0x7FFFFFFF, 0x7FFFFFFF, 0, ""},
  };
  for (Case const& c : cases) {
    RawHeader h;
    h.basic(4, 4, 1, 1, 1, 2, c.fileType);
    h.put<uint16_t>(hdroff::gwNumWaves, c.waves).put<uint16_t>(hdroff::gwNumTimes, c.times);
    h.put<uint32_t>(hdroff::guNumTimes, c.bigTimes).put<int32_t>(hdroff::giNumP, c.numP);
    h.put<int32_t>(hdroff::giNumSecs, c.secs);
    CaptureStderr();
    ASSERT_EQ(openRaw(3, h, "counts"), 0);
    EXPECT_EQ(GetCapturedStderr(), c.err);
    IMStreamRecord const* r = record(3);
    EXPECT_EQ(r->iNumW, c.expectW);
    EXPECT_EQ(r->iNumT, c.expectT);
    EXPECT_EQ(r->iNumP, c.expectP);
    EXPECT_EQ(r->iNumZ, c.expectZ) << c.secs;
    ASSERT_EQ(IMClose(3), 0);
  }
}

TEST_F(ImsubsHeader, TitleCountIsLimitedByTheLayout) {
  struct Case {
    int fileType;
    int16_t stored;
    int expected;
  };
  Case const cases[] = {{kNarrow, 12, 10}, {kWide, 6, 4}, {kNarrow, 2, 2}, {kWide, -3, 0}};
  for (Case const& c : cases) {
    RawHeader h;
    h.basic(1, 1, 1, 1, 1, 2, c.fileType).put<int16_t>(hdroff::gnNumTitles, c.stored);
    ASSERT_EQ(openRaw(4, h, "titles"), 0);
    EXPECT_EQ(record(4)->iNumTitles, c.expected) << c.stored;
    ASSERT_EQ(IMClose(4), 0);
  }
}

TEST_F(ImsubsHeader, EncodeRoundsEachFieldByItsOwnRule) {
  struct Case {
    char const* what;
    void (*set)(IMStreamRecord*);
    int offset;
    int width;  // 2 or 4 bytes, signed
    int expected;
  };
  Case const cases[] = {
      {"wave -500.4", [](IMStreamRecord* r) { r->fWaves[0] = -500.4f; }, iHdrOffWave(0), 2, -500},
      {"wave -500.6", [](IMStreamRecord* r) { r->fWaves[0] = -500.6f; }, iHdrOffWave(0), 2, -501},
      {"wave 500.5", [](IMStreamRecord* r) { r->fWaves[0] = 500.5f; }, iHdrOffWave(0), 2, 501},
      {"wave -0.4", [](IMStreamRecord* r) { r->fWaves[0] = -0.4f; }, iHdrOffWave(0), 2, 0},
      {"wave 11", [](IMStreamRecord* r) { r->fWaves[11] = 610.5f; }, iHdrOffWave(11), 2, 611},
      {"data value 3 shrinks", [](IMStreamRecord* r) { r->fDataVal3 = -2.9399998f; },
       hdroff::gnDataVal3, 2, -293},
      {"data value 4 cut", [](IMStreamRecord* r) { r->fDataVal4 = 1.239f; }, hdroff::gnDataVal4, 2,
       123},
      {"sampling 2.5", [](IMStreamRecord* r) { r->fSampling[0] = 2.5f; }, hdroff::giXYZSampling, 4,
       3},
      {"sampling 2.4", [](IMStreamRecord* r) { r->fSampling[2] = 2.4f; }, hdroff::giXYZSampling + 8,
       4, 2},
      {"reduction 1.5", [](IMStreamRecord* r) { r->fReductionFactor = 1.5f; },
       hdroff::gnReductionFactor, 2, 2},
      {"waves cut to 16 bits", [](IMStreamRecord* r) { r->iNumW = 65537; }, hdroff::gwNumWaves, 2,
       1},
      {"P below 1", [](IMStreamRecord* r) { r->iNumP = -4; }, hdroff::giNumP, 4, 1},
      {"T capped", [](IMStreamRecord* r) { r->iNumT = 70000; }, hdroff::gwNumTimes, 2, -1},
      {"T kept wide", [](IMStreamRecord* r) { r->iNumT = 70000; }, hdroff::guNumTimes, 4, 70000},
      {"negative stamp", [](IMStreamRecord* r) { r->dTimeStamp = -5; }, hdroff::gdTimeStamp, 4, 0},
  };
  for (Case const& c : cases) {
    ASSERT_EQ(IMOpen(5, file("enc").c_str(), "new"), 0);
    c.set(record(5));
    ASSERT_EQ(IMWrHdr2(5, 0), 0);
    std::vector<unsigned char> const bytes = readBytes(file("enc"));
    int const got = c.width == 2 ? hostValueAt<int16_t>(bytes, c.offset)
                                 : hostValueAt<int32_t>(bytes, c.offset);
    EXPECT_EQ(got, c.expected) << c.what;
    ASSERT_EQ(IMClose(5), 0);
  }
}

TEST_F(ImsubsHeader, NarrowLayoutLosesWideFieldsAndCapsTimes) {
  ASSERT_EQ(IMOpen(6, file("narrow").c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(6, 2, 2, 2, 1, 70000, 2, 2), 0);
  IMStreamRecord* r = record(6);
  r->iFileType = 1;
  r->iMaxTitles = 10;
  r->iMaxWaves = 5;
  r->fMeans[1] = 33.0f;
  r->dTimeStamp = 7e8;
  r->iNumTitles = 1;
  std::strcpy(r->cTitles[0], "kept");
  ASSERT_EQ(IMWrHdr2(6, 0), 0);
  std::vector<unsigned char> const bytes = readBytes(file("narrow"));
  EXPECT_EQ(hostValueAt<int32_t>(bytes, hdroff::giNumSecs), 2 * 1 * 65535);
  EXPECT_EQ(hostValueAt<uint16_t>(bytes, hdroff::gwNumTimes), 65535);
  EXPECT_EQ(hostValueAt<float>(bytes, 864), 0.0f);  // title area cleared
  EXPECT_EQ(hostValueAt<double>(bytes, hdroff::gdTimeStamp), 0.0);
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(bytes.data()) + hdroff::gcTitles), "kept");
}

TEST_F(ImsubsHeader, UnknownFileIdWarnsAndIsKept) {
  RawHeader h;
  h.basic(3, 3, 1, 1, 1, 2, kWide).put<int16_t>(hdroff::gnImageFileID, 777);
  CaptureStderr();
  ASSERT_EQ(openRaw(7, h, "unknown"), 0);
  EXPECT_EQ(GetCapturedStderr(), pidPrefix() + "IMSubs 7: warning, unrecognized file ID (777).\n");
  EXPECT_EQ(record(7)->iFileID, 777);
  EXPECT_EQ(record(7)->iSwapped, 0);
}

TEST_F(ImsubsHeader, ReservedBytesCarryOverFromTheLastDecodedHeader) {
  RawHeader h;
  h.basic(3, 3, 1, 1, 1, 2, kWide);
  for (int i = 102; i < 128; ++i) h.bytes[i] = static_cast<unsigned char>(i);
  h.bytes[98] = 0x5A;
  h.bytes[900] = 0x77;
  ASSERT_EQ(openRaw(8, h, "source"), 0);
  ASSERT_EQ(IMOpen(9, file("target").c_str(), "new"), 0);
  ASSERT_EQ(IMWrHdr2(9, 0), 0);
  std::vector<unsigned char> const bytes = readBytes(file("target"));
  EXPECT_EQ(bytes[98], 0x5A);
  EXPECT_EQ(bytes[110], 110);
  EXPECT_EQ(bytes[900], 0x77);
  // The source file was only read and stays as it was.
  EXPECT_EQ(readBytes(file("source")), h.bytes);
}

TEST_F(ImsubsHeader, CreateFillsFreshFieldsAndRefusesBadArguments) {
  ASSERT_EQ(IMOpen(10, file("create").c_str(), "new_unbuffered"), 0);
  EXPECT_EQ(IMCrHdr3(10, 4, 4, 1, 1, 1, 1, 15, 2), 505);
  EXPECT_EQ(IMCrHdr3(10, 4, 4, 1, 1, 1, 1, -1, 2), 505);
  EXPECT_EQ(IMCrHdr3(10, 4, 4, 1, 1, 1, 1, 2, 9), 503);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMCrHdr3(10, 4, 4, 0, 3, 2, 1, 2, 2), 510); }),
            "IMOpen2 10: invalid number of sections (0,3,2)\n");
  ASSERT_EQ(IMCrHdr3(10, 4, 3, 10, 1, 1, 1, 1, 7), 0);
  IMStreamRecord const* r = record(10);
  EXPECT_EQ(r->iFileMode, 1);
  EXPECT_EQ(r->iNumSecs, 10);
  EXPECT_EQ(r->iBytesPerPixel, 4);
  EXPECT_EQ(r->iFileType, 100);
  EXPECT_EQ(r->fCellAngle[1], 90.0f);
  EXPECT_EQ(r->fMaxs[0], 1000.0f);
  EXPECT_EQ(r->fWaves[0], 500.0f);
  EXPECT_EQ(r->fDisplayScale[5][2], 1.0f);
  EXPECT_EQ(r->iExtHdrType, 4);
  EXPECT_EQ(r->iNumExtInts, 8);
  EXPECT_EQ(r->iNumExtFloats, 32);
  EXPECT_EQ(r->iExtHdrSize, 5120);  // 1600 record bytes in 2 blocks, plus 3
  EXPECT_NE(r->pExtHdr, nullptr);
  EXPECT_EQ(r->pFieldSection, r->pExtHdr + 1600);
  EXPECT_EQ(r->iFieldBytesMax, 5120 - 1 - 1600);
}

}  // namespace
}  // namespace imtest
