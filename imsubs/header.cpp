// The 1024-byte image file header: byte order recognition and swapping,
// decoding into the stream record and encoding back, and the calls that
// read, write and create it.
//
// Every decode and encode works on the process-wide image gcHeader, so
// reserved bytes are carried over from the header that last went through it,
// as designed. Not here: the extended header block itself (exthdr*.cpp).
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>

#include "imsubs/internal.h"

unsigned char gcHeader[kHeaderBytes];

namespace {

constexpr uint16_t kFileIDSwapped = 0xA0C0;  // the id of a foreign-order file
constexpr int kWideNarrowMeansFirst = 864;   // gfMeans[1..4], both layouts
constexpr int kWideMinsFrom5 = 544;
constexpr int kWideMaxsFrom5 = 588;
constexpr int kWideMeansFrom5 = 632;
constexpr int kWideWavesFrom5 = 676;
constexpr int kNarrowWavesFirst = 198;
constexpr int kTimePointsCap = 65535;   // the reach of the 16-bit time count
constexpr float kDataValScale = 0.01f;  // data values 3 and 4 are stored in hundredths
constexpr double kDataValUnscale = 100.0;
constexpr int kDisplayScaleStored = 3;  // the fourth value of each group is not stored

struct SwapRun {
  int first;
  int unitBytes;
  int count;
};
// Byte ranges not listed stay as stored, by design (bytes 100 to 127 and
// everything from 224 on).
constexpr SwapRun kHeaderSwapTable[] = {
    {0, 4, 24},  {96, 2, 2},  {128, 2, 4}, {136, 4, 6}, {160, 2, 6},
    {172, 4, 2}, {180, 2, 2}, {184, 4, 3}, {196, 2, 6}, {208, 4, 4},
};

constexpr int kMinsNarrow[kNarrowMaxWaves] = {76, 136, 144, 152, 172};
constexpr int kMaxsNarrow[kNarrowMaxWaves] = {80, 140, 148, 156, 176};

bool isWideType(int fileType) {
  return fileType > kWideImageTypeAbove;
}

// Rounds half away from zero, truncating, as the wavelength store does.
int32_t roundHalfAway(double value) {
  return iTruncToInt32(value > 0 ? value + 0.5 : value - 0.5);
}

// Steps 1 to 4 of the decode: detect the file's byte order from its id.
void recogniseByteOrder(IMStreamRecord* record) {
  std::memcpy(gcHeader, record->pHeader, kHeaderBytes);
  int16_t const id = iHdrGet<int16_t>(hdroff::gnImageFileID);
  record->iFileID = id;
  if (id == kFileIDHostOrder) return;
  if (static_cast<uint16_t>(id) == kFileIDSwapped) {
    iSwapHeaderImage(record->pHeader);
    std::memcpy(gcHeader, record->pHeader, kHeaderBytes);
    record->iFileID = kFileIDHostOrder;
    record->iSwapped = 1;
    return;
  }
  std::fprintf(stderr, "[%d] IMSubs %d: warning, unrecognized file ID (%d).\n",
               static_cast<int>(getpid()), record->iStream, static_cast<int>(id));
}

void decodeCounts(IMStreamRecord* record) {
  bool const wide = isWideType(record->iFileType);
  if (iHdrGet<uint16_t>(hdroff::gwNumWaves) == 0) {
    std::fprintf(stderr, "IMSubs: number of wavelengths must be > 0.\n");
    iHdrPut<uint16_t>(hdroff::gwNumWaves, 1);
  }
  if (iHdrGet<uint16_t>(hdroff::gwNumTimes) == 0) {
    std::fprintf(stderr, "IMSubs: number of time-points must be > 0.\n");
    iHdrPut<uint16_t>(hdroff::gwNumTimes, 1);
  }
  record->iNumP = 1;
  record->iNumW = iHdrGet<uint16_t>(hdroff::gwNumWaves);
  record->iNumT = iHdrGet<uint16_t>(hdroff::gwNumTimes);
  if (wide) {
    int32_t const numP = iHdrGet<int32_t>(hdroff::giNumP);
    if (numP > 0) {
      record->iNumP = numP;
    } else {
      iHdrPut<int32_t>(hdroff::giNumP, 1);
    }
    // Signed comparison, by design.
    int32_t const bigTimes = static_cast<int32_t>(iHdrGet<uint32_t>(hdroff::guNumTimes));
    if (bigTimes > record->iNumT) record->iNumT = bigTimes;
  }
  // The product is taken wide so that hostile counts can neither overflow
  // nor divide by zero; every factor is at least 1 here. A product beyond 64
  // bits exceeds any section count, so Z is then 0.
  int64_t perZ = 0;
  bool const overflow =
      __builtin_mul_overflow(int64_t{record->iNumT} * record->iNumW, record->iNumP, &perZ);
  record->iNumZ = overflow ? 0 : static_cast<int>(record->iNumSecs / perZ);
}

void decodeGeometry(IMStreamRecord* record) {
  record->iStartCol = iHdrGet<int32_t>(hdroff::giStartCol);
  record->iStartRow = iHdrGet<int32_t>(hdroff::giStartRow);
  record->iStartSec = iHdrGet<int32_t>(hdroff::giStartSec);
  for (int i = 0; i < 3; ++i) {
    int const offset = hdroff::giXYZSampling + 4 * i;
    int32_t const sampling = iHdrGet<int32_t>(offset);
    record->fSampling[i] = static_cast<float>(sampling < 1 ? 1 : sampling);
  }
  record->iImageSequence = iHdrGet<int16_t>(hdroff::gnImageSequence);
  record->iPixelType = iHdrGet<int32_t>(hdroff::giPixDataType);
  int bytes = 0;
  if (iBytesPerPixelOf(record, &bytes) != 0) {
    std::fprintf(stderr, "IMSubs: internal error involving the number of bytes per pixel.\n");
    bytes = 2;
  }
  record->iBytesPerPixel = bytes;
}

void decodeIdentity(IMStreamRecord* record) {
  record->iLensID = iHdrGet<uint16_t>(hdroff::gwLensID);
  record->iDataVal1 = iHdrGet<int16_t>(hdroff::gnDataVal1);
  record->iDataVal2 = iHdrGet<int16_t>(hdroff::gnDataVal2);
  record->fDataVal3 = static_cast<float>(iHdrGet<int16_t>(hdroff::gnDataVal3)) * kDataValScale;
  record->fDataVal4 = static_cast<float>(iHdrGet<int16_t>(hdroff::gnDataVal4)) * kDataValScale;
  bool const wide = isWideType(record->iFileType);
  record->iMaxTitles = wide ? kWideMaxTitles : kMaxTitles;
  record->iMaxWaves = wide ? kMaxWaves : kNarrowMaxWaves;
}

void decodeCell(IMStreamRecord* record) {
  for (int i = 0; i < 3; ++i) {
    record->iAxisMap[i] = iHdrGet<int32_t>(hdroff::giAxisSequenceMap + 4 * i);
  }
  record->fOrigin[0] = iHdrGet<float>(hdroff::gfOriginCoordX);
  record->fOrigin[1] = iHdrGet<float>(hdroff::gfOriginCoordY);
  record->fOrigin[2] = iHdrGet<float>(hdroff::gfOriginCoordZ);
  record->fCellSize[0] = iHdrGet<float>(hdroff::gfCellWidth);
  record->fCellSize[1] = iHdrGet<float>(hdroff::gfCellHeight);
  record->fCellSize[2] = iHdrGet<float>(hdroff::gfCellDepth);
  for (int i = 0; i < 3; ++i) record->fPixelSize[i] = record->fCellSize[i] / record->fSampling[i];
  record->fCellAngle[0] = iHdrGet<float>(hdroff::gfAxisAngleX);
  record->fCellAngle[1] = iHdrGet<float>(hdroff::gfAxisAngleY);
  record->fCellAngle[2] = iHdrGet<float>(hdroff::gfAxisAngleZ);
  record->iSpaceGroup = iHdrGet<int32_t>(hdroff::giSpaceGroupNum);
  record->iExtHdrSize = iHdrGet<int32_t>(hdroff::giExtHdrSize);
  record->iExtHdrType = iHdrGet<uint16_t>(hdroff::gwExtHdrType);
  record->iNumExtInts = iHdrGet<int16_t>(hdroff::gnNumExtHdrInts);
  record->iNumExtFloats = iHdrGet<int16_t>(hdroff::gnNumExtHdrFloats);
  record->iNumSubRes = iHdrGet<int16_t>(hdroff::gnNumSubResImages);
  record->fReductionFactor = static_cast<float>(iHdrGet<int16_t>(hdroff::gnReductionFactor));
}

void decodeWavelengths(IMStreamRecord* record) {
  bool const wide = isWideType(record->iFileType);
  for (int w = 0; w < record->iMaxWaves; ++w) {
    record->fMins[w] = iHdrGet<float>(iHdrOffMin(w));
    record->fMaxs[w] = iHdrGet<float>(iHdrOffMax(w));
    record->fMeans[w] = iHdrGet<float>(iHdrOffMean(w));
    record->fWaves[w] = static_cast<float>(iHdrGet<int16_t>(iHdrOffWave(w)));
    for (int k = 0; k < 4; ++k) record->fDisplayScale[w][k] = 0.0f;
    if (wide) {
      for (int k = 0; k < kDisplayScaleStored; ++k) {
        record->fDisplayScale[w][k] =
            iHdrGet<float>(hdroff::gfDisplayScale + 4 * (kDisplayScaleStored * w + k));
      }
    }
  }
  if (wide) {
    double const stamp = iHdrGet<double>(hdroff::gdTimeStamp);
    record->dTimeStamp = stamp > 0 ? stamp : 0.0;
    record->cDataBits = iHdrGet<uint8_t>(hdroff::gcDataBitsPerPixel);
  }
}

void decodeTitles(IMStreamRecord* record) {
  record->fTilt[0] = iHdrGet<float>(hdroff::gfTiltAngleX);
  record->fTilt[1] = iHdrGet<float>(hdroff::gfTiltAngleY);
  record->fTilt[2] = iHdrGet<float>(hdroff::gfTiltAngleZ);
  std::memset(record->cTitles, 0, static_cast<std::size_t>(record->iMaxTitles) * kTitleBytes);
  // A negative stored count reads as no titles.
  int const stored = iHdrGet<int16_t>(hdroff::gnNumTitles);
  record->iNumTitles = std::max(0, std::min(record->iMaxTitles, stored));
  for (int i = 0; i < record->iNumTitles; ++i) {
    std::memcpy(record->cTitles[i], gcHeader + hdroff::gcTitles + kTitleBytes * i, kTitleBytes - 1);
    record->cTitles[i][kTitleBytes - 1] = '\0';
  }
}

void encodeCounts(IMStreamRecord* record) {
  iHdrPut<int16_t>(hdroff::gnImageFileID, static_cast<int16_t>(record->iFileID));
  iHdrPut<int32_t>(hdroff::giNumX, record->iNumX);
  iHdrPut<int32_t>(hdroff::giNumY, record->iNumY);
  iHdrPut<int32_t>(hdroff::giNumSecs, record->iNumSecs);
  iHdrPut<uint16_t>(hdroff::gwNumWaves, static_cast<uint16_t>(record->iNumW));
  if (record->iNumP < 1) record->iNumP = 1;
  if (record->iNumT >= kTimePointsCap) {
    iHdrPut<uint16_t>(hdroff::gwNumTimes, kTimePointsCap);
    if (!isWideType(record->iFileType)) {
      uint32_t const secs = static_cast<uint32_t>(record->iNumZ) *
                            static_cast<uint32_t>(record->iNumW) * uint32_t{kTimePointsCap};
      iHdrPut<int32_t>(hdroff::giNumSecs, static_cast<int32_t>(secs));
    }
  } else {
    iHdrPut<uint16_t>(hdroff::gwNumTimes, static_cast<uint16_t>(record->iNumT));
  }
  iHdrPut<int32_t>(hdroff::giStartCol, record->iStartCol);
  iHdrPut<int32_t>(hdroff::giStartRow, record->iStartRow);
  iHdrPut<int32_t>(hdroff::giStartSec, record->iStartSec);
  for (int i = 0; i < 3; ++i) {
    iHdrPut<int32_t>(hdroff::giXYZSampling + 4 * i,
                     iTruncToInt32(static_cast<double>(record->fSampling[i]) + 0.5));
  }
}

void encodeIdentity(IMStreamRecord* record) {
  iHdrPut<int16_t>(hdroff::gnImageSequence, static_cast<int16_t>(record->iImageSequence));
  iHdrPut<int32_t>(hdroff::giPixDataType, record->iPixelType);
  iHdrPut<uint16_t>(hdroff::gwLensID, static_cast<uint16_t>(record->iLensID));
  iHdrPut<int16_t>(hdroff::gnDataVal1, static_cast<int16_t>(record->iDataVal1));
  iHdrPut<int16_t>(hdroff::gnDataVal2, static_cast<int16_t>(record->iDataVal2));
  // Truncated with no rounding term: a value may shrink by one per round
  // trip, which is accepted.
  iHdrPut<int16_t>(
      hdroff::gnDataVal3,
      static_cast<int16_t>(iTruncToInt32(double{record->fDataVal3} * kDataValUnscale)));
  iHdrPut<int16_t>(
      hdroff::gnDataVal4,
      static_cast<int16_t>(iTruncToInt32(double{record->fDataVal4} * kDataValUnscale)));
  iHdrPut<int16_t>(hdroff::gnImageFileType, static_cast<int16_t>(record->iFileType));
  for (int i = 0; i < 3; ++i) {
    iHdrPut<int32_t>(hdroff::giAxisSequenceMap + 4 * i, record->iAxisMap[i]);
  }
  iHdrPut<float>(hdroff::gfOriginCoordX, record->fOrigin[0]);
  iHdrPut<float>(hdroff::gfOriginCoordY, record->fOrigin[1]);
  iHdrPut<float>(hdroff::gfOriginCoordZ, record->fOrigin[2]);
  iHdrPut<float>(hdroff::gfCellWidth, record->fCellSize[0]);
  iHdrPut<float>(hdroff::gfCellHeight, record->fCellSize[1]);
  iHdrPut<float>(hdroff::gfCellDepth, record->fCellSize[2]);
  iHdrPut<float>(hdroff::gfAxisAngleX, record->fCellAngle[0]);
  iHdrPut<float>(hdroff::gfAxisAngleY, record->fCellAngle[1]);
  iHdrPut<float>(hdroff::gfAxisAngleZ, record->fCellAngle[2]);
  iHdrPut<int32_t>(hdroff::giSpaceGroupNum, record->iSpaceGroup);
  iHdrPut<int32_t>(hdroff::giExtHdrSize, record->iExtHdrSize);
  iHdrPut<uint16_t>(hdroff::gwExtHdrType, static_cast<uint16_t>(record->iExtHdrType));
  iHdrPut<int16_t>(hdroff::gnNumExtHdrInts, static_cast<int16_t>(record->iNumExtInts));
  iHdrPut<int16_t>(hdroff::gnNumExtHdrFloats, static_cast<int16_t>(record->iNumExtFloats));
  iHdrPut<int16_t>(hdroff::gnNumSubResImages, static_cast<int16_t>(record->iNumSubRes));
  iHdrPut<int16_t>(hdroff::gnReductionFactor,
                   static_cast<int16_t>(iTruncToInt32(record->fReductionFactor + 0.5)));
}

void encodeWavelengths(IMStreamRecord* record) {
  int const maxWaves = std::min(std::max(record->iMaxWaves, 0), kMaxWaves);
  for (int w = 0; w < maxWaves; ++w) {
    iHdrPut<float>(iHdrOffMin(w), record->fMins[w]);
    iHdrPut<float>(iHdrOffMax(w), record->fMaxs[w]);
    iHdrPut<float>(iHdrOffMean(w), record->fMeans[w]);
    iHdrPut<int16_t>(iHdrOffWave(w), static_cast<int16_t>(roundHalfAway(record->fWaves[w])));
  }
  if (isWideType(record->iFileType)) {
    for (int w = 0; w < maxWaves; ++w) {
      bool const inUse = w < record->iNumW;
      for (int k = 0; k < kDisplayScaleStored; ++k) {
        iHdrPut<float>(hdroff::gfDisplayScale + 4 * (kDisplayScaleStored * w + k),
                       inUse ? record->fDisplayScale[w][k] : 0.0f);
      }
    }
    iHdrPut<double>(hdroff::gdTimeStamp, record->dTimeStamp < 0 ? 0.0 : record->dTimeStamp);
    iHdrPut<uint8_t>(hdroff::gcDataBitsPerPixel, record->cDataBits);
    iHdrPut<int32_t>(hdroff::giNumP, record->iNumP);
  }
  iHdrPut<uint32_t>(hdroff::guNumTimes, static_cast<uint32_t>(record->iNumT));
  iHdrPut<float>(hdroff::gfTiltAngleX, record->fTilt[0]);
  iHdrPut<float>(hdroff::gfTiltAngleY, record->fTilt[1]);
  iHdrPut<float>(hdroff::gfTiltAngleZ, record->fTilt[2]);
}

void encodeTitles(IMStreamRecord* record) {
  int const maxTitles = std::min(std::max(record->iMaxTitles, 0), kMaxTitles);
  std::memset(gcHeader + hdroff::gcTitles, 0, static_cast<std::size_t>(maxTitles) * kTitleBytes);
  iHdrPut<int16_t>(hdroff::gnNumTitles, static_cast<int16_t>(record->iNumTitles));
  // The count is not limited by iMaxTitles here, by design; only the end of
  // the header image bounds it.
  int const count = std::min(std::max(record->iNumTitles, 0), kMaxTitles);
  for (int i = 0; i < count; ++i) {
    unsigned char* title = gcHeader + hdroff::gcTitles + kTitleBytes * i;
    std::memcpy(title, record->cTitles[i], kTitleBytes - 1);
    title[kTitleBytes - 1] = 0;
  }
}

// Fields of a fresh header, apart from the counts that IMCrHdr3 stores.
void setFreshHeaderFields(IMStreamRecord* record, int pixelType) {
  record->iFileMode = kFileModeBuffered;
  record->iFileID = kFileIDHostOrder;
  record->iSwapped = 0;
  record->cDataBits = 0;
  record->iPixelType = pixelType;
  int bytes = 0;
  iBytesPerPixelOf(record, &bytes);
  record->iBytesPerPixel = bytes;
  record->iLensID = 0;
  record->iDataVal1 = 0;
  record->iDataVal2 = 0;
  record->fDataVal3 = 0.0f;
  record->fDataVal4 = 0.0f;
  record->iFileType = kWideImageTypeAbove + 1;
  record->iMaxTitles = kWideMaxTitles;
  record->iMaxWaves = kMaxWaves;
  for (int i = 0; i < 3; ++i) {
    record->iAxisMap[i] = i + 1;
    record->fOrigin[i] = 0.0f;
    record->fCellSize[i] = 1.0f;
    record->fSampling[i] = 1.0f;
    record->fPixelSize[i] = 1.0f;
    record->fCellAngle[i] = 90.0f;
    record->fTilt[i] = 0.0f;
  }
  record->iSpaceGroup = 0;
  record->iExtHdrSize = 0;
  record->iExtHdrType = 0;
  record->iNumExtInts = 0;
  record->iNumExtFloats = 0;
  record->iNumSubRes = 1;
  record->fReductionFactor = 1.0f;
  for (int w = 0; w < kMaxWaves; ++w) {
    record->fMins[w] = 0.0f;
    record->fMaxs[w] = 0.0f;
    record->fMeans[w] = 0.0f;
    record->fWaves[w] = 0.0f;
    record->fDisplayScale[w][0] = 0.0f;
    record->fDisplayScale[w][1] = 0.0f;
    record->fDisplayScale[w][2] = 1.0f;
    record->fDisplayScale[w][3] = 0.0f;
  }
  record->fMaxs[0] = 1000.0f;
  record->fMeans[0] = 500.0f;
  record->fWaves[0] = 500.0f;
}

}  // namespace

// ---------------------------------------------------------------------------
// Helpers shared with the other files.

int iHdrOffMin(int w) {
  assert(w >= 0 && w < kMaxWaves);
  return w < kNarrowMaxWaves ? kMinsNarrow[w] : kWideMinsFrom5 + 4 * (w - kNarrowMaxWaves);
}

int iHdrOffMax(int w) {
  assert(w >= 0 && w < kMaxWaves);
  return w < kNarrowMaxWaves ? kMaxsNarrow[w] : kWideMaxsFrom5 + 4 * (w - kNarrowMaxWaves);
}

int iHdrOffMean(int w) {
  assert(w >= 0 && w < kMaxWaves);
  if (w == 0) return 84;
  if (w < kNarrowMaxWaves) return kWideNarrowMeansFirst + 4 * (w - 1);
  return kWideMeansFrom5 + 4 * (w - kNarrowMaxWaves);
}

int iHdrOffWave(int w) {
  assert(w >= 0 && w < kMaxWaves);
  if (w < kNarrowMaxWaves) return kNarrowWavesFirst + 2 * w;
  return kWideWavesFrom5 + 2 * (w - kNarrowMaxWaves);
}

void iSwapUnits(void* data, std::size_t count, int unitBytes) {
  unsigned char* bytes = static_cast<unsigned char*>(data);
  for (std::size_t i = 0; i < count; ++i, bytes += unitBytes) {
    std::reverse(bytes, bytes + unitBytes);
  }
}

void iSwapHeaderImage(unsigned char* image) {
  for (SwapRun const& run : kHeaderSwapTable) {
    iSwapUnits(image + run.first, static_cast<std::size_t>(run.count), run.unitBytes);
  }
}

int32_t iTruncToInt32(double value) {
  // The hardware conversion yields INT32_MIN for every value it can't
  // represent; this keeps that result without undefined behaviour.
  constexpr double kTwoTo31 = 2147483648.0;
  if (!(value > -kTwoTo31 - 1.0 && value < kTwoTo31)) return INT32_MIN;
  return static_cast<int32_t>(value);
}

int iTransferHeaderToStructure(IMStreamRecord* record) {
  assert(record != nullptr && record->pHeader != nullptr);
  recogniseByteOrder(record);
  record->iFileType = iHdrGet<int16_t>(hdroff::gnImageFileType);
  record->iNumX = iHdrGet<int32_t>(hdroff::giNumX);
  record->iNumY = iHdrGet<int32_t>(hdroff::giNumY);
  record->iNumSecs = iHdrGet<int32_t>(hdroff::giNumSecs);
  decodeCounts(record);
  decodeGeometry(record);
  decodeIdentity(record);
  decodeCell(record);
  decodeWavelengths(record);
  decodeTitles(record);
  return 0;
}

int iTransferStructureToHeader(IMStreamRecord* record) {
  assert(record != nullptr);
  encodeCounts(record);
  encodeIdentity(record);
  encodeWavelengths(record);
  encodeTitles(record);
  if (record->pHeader == nullptr) {
    record->pHeader = static_cast<unsigned char*>(std::calloc(1, kHeaderBytes));
  }
  if (record->pHeader != nullptr) std::memcpy(record->pHeader, gcHeader, kHeaderBytes);
  return 0;
}

// ---------------------------------------------------------------------------
// Public header calls.

int IMRdHdr2(int iStream) {
  int const check = IMCheckStream(iStream, "IMRdHdr2");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) {
    // Nothing to read; a record without a header image has nothing to decode.
    return record->pHeader != nullptr ? iTransferHeaderToStructure(record) : 0;
  }
  if (record->pFile == nullptr && record->iFileDesc == 0) {
    std::fprintf(stderr, "IMRdHdr2 %d: stream not opened yet.\n", iStream);
    return 103;
  }
  if (record->pHeader == nullptr) {
    record->pHeader = static_cast<unsigned char*>(std::calloc(1, kHeaderBytes));
    if (record->pHeader == nullptr) {
      std::fprintf(stderr, "IMRdHdr2 %d: memory allocation problem.\n", iStream);
      return 902;
    }
  }
  if (iStreamFileSeek(record, 0, SEEK_SET) < 0) {
    std::fprintf(stderr, "IMRdHdr2: ");
    return 208;
  }
  int const got = iStreamFileRead(record, record->pHeader, 1, kHeaderBytes);
  if (got < kHeaderBytes) {
    std::fprintf(stderr, "IMRdHdr2 %d: only %d bytes found in header.\n", iStream, got);
    return 207;
  }
  iTransferHeaderToStructure(record);
  IMPosn(iStream, 0, 0);
  return 0;
}

int IMWrHdr2(int iStream, int writeExtHdr) {
  int const check = IMCheckStream(iStream, "IMWrHdr2");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  iTransferStructureToHeader(record);
  if (record->iStreamType != kStreamTypeFile) return 0;
  if (iStreamFileSeek(record, 0, SEEK_SET) < 0) {
    iPrintPositionError("IMWrHdr2", iStream);
    return 301;
  }
  int const put = iStreamFileWrite(record, 1, kHeaderBytes, record->pHeader);
  if (put < kHeaderBytes) {
    std::fprintf(stderr, "IMWrHdr2 %d: only %d bytes written to header.\n", iStream, put);
    return 209;
  }
  if (writeExtHdr != 0 && record->iExtHdrSize > 0) {
    if (record->pExtHdr == nullptr) {
      std::fprintf(stderr, "IMWrHdr2 %d: ext header buffer is NULL, size is %d.\n", iStream,
                   record->iExtHdrSize);
      return 706;
    }
    if (record->iNumFields > 0) iWriteAllFields(record);
    int const extPut = iStreamFileWrite(record, 1, record->iExtHdrSize, record->pExtHdr);
    if (extPut < record->iExtHdrSize) {
      std::fprintf(stderr, "IMWrHdr2 %d: only %d bytes written to extended header. Expected %d.\n",
                   iStream, extPut, record->iExtHdrSize);
      return 211;
    }
  }
  if (iUsesBufferedHandle(record)) std::fflush(record->pFile);
  IMPosn(iStream, 0, 0);
  return 0;
}

int IMCrHdr3(int iStream, int nx, int ny, int nz, int nw, int nt, int np, int sequence,
             int pixelType) {
  int const check = IMCheckStream(iStream, "IMCrHdr3");
  if (check != 0) return check;
  if (static_cast<unsigned>(sequence) > 14u) return 505;
  if (static_cast<unsigned>(pixelType) > 8u) return 503;
  IMStreamRecord* record = gsStreams[iStream];
  record->iNumX = nx;
  record->iNumY = ny;
  record->iNumZ = nz;
  record->iNumW = nw;
  record->iNumT = nt;
  record->iNumP = np;
  record->iStartCol = 0;
  record->iStartRow = 0;
  record->iStartSec = 0;
  // 32-bit product that wraps, as the section count is stored.
  record->iNumSecs = static_cast<int32_t>(static_cast<uint32_t>(nz) * static_cast<uint32_t>(nw) *
                                          static_cast<uint32_t>(nt) * static_cast<uint32_t>(np));
  record->iNumTitles = 0;
  record->iImageSequence = sequence;
  if (record->iNumSecs <= 0) {
    // The message names another function; it is the settled text.
    std::fprintf(stderr, "IMOpen2 %d: invalid number of sections (%d,%d,%d)\n", iStream, nz, nw,
                 nt);
    return 510;
  }
  setFreshHeaderFields(record, pixelType);
  iFreeExtHdr(record);
  std::memset(record->cTitles, 0, static_cast<std::size_t>(record->iMaxTitles) * kTitleBytes);
  iTransferStructureToHeader(record);
  IMCrExHdr(iStream, 4, 3);  // its result is ignored, by design
  return 0;
}

int IMCrHdr2(int iStream, int nx, int ny, int nz, int nw, int nt, int sequence, int pixelType) {
  return IMCrHdr3(iStream, nx, ny, nz, nw, nt, 1, sequence, pixelType);
}
