// Whole-header calls (read, set, write, create and copy a stream's header in
// one call), the summary report of a stream, the rectangle statistics helper
// and the stubs of functions this library doesn't support.
//
// Decoding and encoding themselves live with the header layout (header.cpp);
// these calls only move header images between caller, record and file.
#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <string>

#include "imsubs/internal.h"

namespace {

constexpr float kMinSampling = 0.001f;   // IMCrHdr: smaller sampling counts as unset
constexpr int kTypeDescMax = 34;         // report: at most this much of the type text
constexpr int kFirstNamedSequences = 3;  // codes with a fixed label in the report

// Labels of the sequence codes that put P last, as the report names them.
constexpr char const* kSequenceLabels[kFirstNamedSequences] = {"Z -> T -> W", "W -> Z -> T",
                                                               "Z -> W -> T"};

// The report's sequence label. Codes 3 to 14 have no fixed label: they are
// shown in the same arrow form from their name, all four axes, fastest first
// ("ZPWT" gives "Z -> P -> W -> T"); any other code shows "Undefined".
std::string sequenceLabel(int code) {
  if (code >= 0 && code < kFirstNamedSequences) return kSequenceLabels[code];
  std::string const name = IMRtImgSequenceText(code);
  if (code < 0 || name == "Undefined") return "Undefined";
  std::string label;
  for (char axis : name) {
    if (!label.empty()) label += " -> ";
    label += axis;
  }
  return label;
}

// Step of IMWrHdr: a title added after the last one, the count stopping at
// the capacity so that a full list has its last title replaced.
void appendTitle(IMStreamRecord* r, char const* title) {
  int count = std::min(r->iNumTitles + 1, r->iMaxTitles);
  if (count < 1) {
    std::fprintf(stderr, "IMWrHdr: the number of titles appears to be less than 1.\n");
    count = 1;
  }
  count = std::min(count, kMaxTitles);
  std::memset(r->cTitles[count - 1], 0, kTitleBytes);
  std::strncpy(r->cTitles[count - 1], title, kTitleBytes - 1);
  r->iNumTitles = count;
}

void replaceTitles(IMStreamRecord* r, char const* title) {
  std::memset(r->cTitles, 0, sizeof(r->cTitles));
  std::strncpy(r->cTitles[0], title, kTitleBytes - 1);
  r->iNumTitles = 1;
}

}  // namespace

// ---------------------------------------------------------------------------
// Header images.

int IMRtHdr(int iStream, void* header) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMRtHdr", &code);
  if (r == nullptr) {
    std::fprintf(stderr, "IMRtHdr %d: invalid stream.\n", iStream);
    return code;
  }
  iTransferStructureToHeader(r);
  std::memcpy(header, r->pHeader, kHeaderBytes);
  return 0;
}

int IMGetHdr(int iStream, void* header) {
  return IMRtHdr(iStream, header);
}

int IMAlHdr(int iStream, void const* header) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlHdr", &code);
  if (r == nullptr) return code;
  if (r->pHeader == nullptr) {
    r->pHeader = static_cast<unsigned char*>(std::calloc(1, kHeaderBytes));
    if (r->pHeader == nullptr) return 902;
  }
  std::memcpy(r->pHeader, header, kHeaderBytes);
  iTransferHeaderToStructure(r);  // swaps a foreign-order image first
  return 0;
}

int IMPutHdr(int iStream, void const* header) {
  return IMAlHdr(iStream, header);
}

int IMRdHdr(int iStream, int size[3], int sampling[3], int* mode, float* min, float* max,
            float* mean) {
  int const readCode = IMRdHdr2(iStream);
  if (readCode != 0) return readCode;
  IMStreamRecord const* r = gsStreams[iStream];
  size[0] = r->iNumX;
  size[1] = r->iNumY;
  // 32-bit product that wraps, as the stored section count does.
  size[2] = static_cast<int32_t>(static_cast<uint32_t>(r->iNumZ) * static_cast<uint32_t>(r->iNumW) *
                                 static_cast<uint32_t>(r->iNumT) * static_cast<uint32_t>(r->iNumP));
  for (int i = 0; i < 3; ++i) sampling[i] = iTruncToInt32(r->fSampling[i] + 0.5);
  *mode = r->iPixelType;
  *min = r->fMins[0];
  *max = r->fMaxs[0];
  *mean = r->fMeans[0];
  if (giVerboseMode != 0) IMReportInfo(iStream);
  return 0;
}

void IMWrHdr(int iStream, char const* title, int titleMode, float min, float max, float mean) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMWrHdr", &code);
  if (r == nullptr) return;
  char const* text = title != nullptr ? title : "";
  switch (titleMode) {
    case 0:
      replaceTitles(r, text);
      break;
    case 1:
      appendTitle(r, text);
      break;
    case 2:
      std::fprintf(stderr,
                   "IMWrHdr: add title to top of list not yet supported. Adding to bottom.\n");
      appendTitle(r, text);
      break;
    default:
      break;  // titles stay as they are
  }
  r->fMins[0] = min;
  r->fMaxs[0] = max;
  r->fMeans[0] = mean;
  IMWrHdr2(iStream, 1);
}

int IMCrHdr(int iStream, int const size[3], int const sampling[3], int mode,
            char const titles[][80], int count) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMCrHdr", &code);
  if (r == nullptr) return code;
  constexpr int kMaxPixelType = 8;
  constexpr int kDefaultPixelType = 1;
  if (static_cast<unsigned>(mode) > kMaxPixelType) {
    std::fprintf(stderr, "IMCrHdr %d: %d is an invalid pixel data type.\n", iStream, mode);
    mode = kDefaultPixelType;
  }
  int const created = IMCrHdr3(iStream, size[0], size[1], size[2], 1, 1, 1, 0, mode);
  if (created != 0) return created;
  // The older creator makes no extended header: size and counts stay 0.
  iFreeExtHdr(r);
  r->iExtHdrSize = 0;
  r->iExtHdrType = 0;
  r->iNumExtInts = 0;
  r->iNumExtFloats = 0;
  r->iFieldBytesMax = 0;
  static char const* const kAxisNames[3] = {"X", "Y", "Z"};
  for (int i = 0; i < 3; ++i) {
    float s = static_cast<float>(sampling[i]);
    if (s < kMinSampling) {
      std::fprintf(stderr, "IMCrHdr %d: %s sampling must be greater than 0.\n", iStream,
                   kAxisNames[i]);
      s = 1.0f;
    }
    r->fSampling[i] = s;
    r->fPixelSize[i] = 1.0f / s;
  }
  if (titles != nullptr && count > 0) IMAlLab(iStream, titles, count);
  iTransferStructureToHeader(r);
  IMPosn(iStream, 0, 0);  // the pixels now start right after the header
  return 0;
}

int IMTrHdr(int iStream, int source) {
  int code;
  IMStreamRecord* dst = iCheckedRecord(iStream, "IMTrHdr", &code);
  if (dst == nullptr) return code;
  IMStreamRecord* src = iCheckedRecord(source, "IMTrHdr", &code);
  if (src == nullptr) return code;
  if (dst == src) return 0;
  iTransferStructureToHeader(src);
  if (dst->pHeader == nullptr) {
    dst->pHeader = static_cast<unsigned char*>(std::calloc(1, kHeaderBytes));
    if (dst->pHeader == nullptr) return 902;
  }
  std::memcpy(dst->pHeader, src->pHeader, kHeaderBytes);
  iTransferHeaderToStructure(dst);
  dst->iStream = iStream;

  if (src->iExtHdrSize < 1) {
    iFreeExtHdr(dst);
    dst->iExtHdrSize = 0;
    return 0;
  }
  if (IMAlExHdrInfo(iStream, src->iExtHdrType, src->iExtHdrSize, src->iNumExtInts,
                    src->iNumExtFloats) != 0) {
    std::fprintf(stderr, "IMTrHdr %d->%d: IMAlExHdrInfo Failed\n", source, iStream);
    return 10000;
  }
  for (IMStreamRecord const* side : {src, dst}) {
    if (side->pExtHdr == nullptr) {
      std::fprintf(stderr, "IMTrHdr %d->%d: ext header buffer %d is NULL.\n", source, iStream,
                   side->iStream);
      return 706;
    }
  }
  std::memcpy(dst->pExtHdr, src->pExtHdr, static_cast<std::size_t>(src->iExtHdrSize));
  return 0;
}

// ---------------------------------------------------------------------------
// Report.

int IMReportInfo(int iStream) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMReportInfo", &code);
  if (r == nullptr) return code;
  char typeText[kTypeDescMax + 1] = {};
  IMRtDataTypeDesc(r->iPixelType, typeText, kTypeDescMax);
  int extType = 0;
  IMRtExHdrType(iStream, &extType);
  // A file may claim more channels or titles than the record holds.
  int const numWaves = std::clamp(r->iNumW, 0, kMaxWaves);
  int const numTitles = std::clamp(r->iNumTitles, 0, kMaxTitles);

  std::printf("\n");
  if (r->pName != nullptr && r->pName[0] != '\0')
    std::printf("Image Name............................\t%s\n", r->pName);
  std::printf("Size (X, Y, Z)........................\t%d %d %d\n", r->iNumX, r->iNumY, r->iNumZ);
  std::printf("Size (W, T, P)........................\t%d %d %d\n", r->iNumW, r->iNumT, r->iNumP);
  std::printf("Data Type.............................\t%s\n", typeText);
  std::printf("Sequence..............................\t%s\n",
              sequenceLabel(r->iImageSequence).c_str());
  std::printf("Pixel Size (dX, dY, dZ)...............\t%.3f %.3f %.3f\n", r->fPixelSize[0],
              r->fPixelSize[1], r->fPixelSize[2]);
  std::printf("Wavelengths (nm)......................\t");
  for (int w = 0; w < numWaves; ++w) std::printf("%.2f  ", r->fWaves[w]);
  std::printf("\n");
  for (int w = 0; w < numWaves; ++w)
    std::printf("Min, Max, Mean (w=%.1f nm)...........\t%.2f %.2f %.2f\n", r->fWaves[w],
                r->fMins[w], r->fMaxs[w], r->fMeans[w]);
  std::printf("Rotation Angles (alpha, beta, gamma)..\t%.2f %.2f %.2f\n", r->fTilt[0], r->fTilt[1],
              r->fTilt[2]);
  std::printf("Extended Header Size (bytes)..........\t%d\n", r->iExtHdrSize);
  std::printf("Extended Header Type .................\t%d\n", extType);
  std::printf("Image Type............................\t%d\n", r->iFileType);
  std::printf("Lens ID Number........................\t%d\n", r->iLensID);
  std::printf("\nTitles................................\n");
  for (int i = 0; i < numTitles; ++i) std::printf("%.79s\n", r->cTitles[i]);
  std::printf("\n");
  std::fflush(stdout);
  return 0;
}

// ---------------------------------------------------------------------------
// Rectangle statistics.

int IMCalcDen(float const* image, int width, int /*height*/, int firstColumn, int lastColumn,
              int firstRow, int lastRow, float* min, float* max, float* mean) {
  if (lastColumn < firstColumn || lastRow < firstRow) {
    std::fprintf(stderr, "IMCalcDen: invalid ROI.\n");
    return 10000;
  }
  constexpr float kStartMin = 1e38f;
  constexpr float kStartMax = -1e38f;
  float lo = kStartMin;
  float hi = kStartMax;
  double sum = 0.0;  // 8-byte sum: a float would lose small pixels on large areas
  for (int row = firstRow; row <= lastRow; ++row) {
    float const* line = image + static_cast<std::ptrdiff_t>(row) * width;
    for (int col = firstColumn; col <= lastColumn; ++col) {
      lo = std::min(lo, line[col]);
      hi = std::max(hi, line[col]);
      sum += line[col];
    }
  }
  double const count = (static_cast<double>(lastRow) - firstRow + 1) *
                       (static_cast<double>(lastColumn) - firstColumn + 1);
  *min = lo;
  *max = hi;
  *mean = static_cast<float>(sum / count);
  return 0;
}

// ---------------------------------------------------------------------------
// Unsupported calls.

int IMInterp() {
  std::fprintf(stderr, "IMInterp: unsupported function.\n");
  return 904;
}

int IMClLim(int iStream) {
  int code;
  if (iCheckedRecord(iStream, "IMClLim", &code) == nullptr) return code;
  std::fprintf(stderr, "IMClLim: unsupported function.\n");
  return 904;
}

int IMRtExt(int iStream) {
  int code;
  if (iCheckedRecord(iStream, "IMRtExt", &code) == nullptr) return code;
  std::fprintf(stderr, "IMRtExt: function not supported.\n");
  return 0;
}

int iTransferWinPositionToStructure(IMStreamRecord* /*record*/) {
  return 0;
}

int iTransferStructureToWinHeader(IMStreamRecord* /*record*/) {
  return 0;
}
