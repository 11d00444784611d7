// Attribute accessors: read (IMRt...), set (IMAl...) and copy (IMTr...) one
// attribute of a stream's record. Changes stay in the record until IMWrHdr2.
//
// Common rule: every accessor checks the stream first under its own name and,
// when refused, returns the check's code and touches nothing. A failure with
// a 400 or 500 code leaves the record alone unless noted at the function.
// Not here: whole-header calls (header_calls.cpp), extended header records.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdlib>

#include "imsubs/internal.h"

namespace {

constexpr float kMinPixelSize = 1e-30f;             // IMAlDel: smaller counts as no size
constexpr float kScaleNearZero = 0.0001f;           // IMRtScl: both ends this small are unset
constexpr double kEarliestTimeStamp = 315561600.0;  // IMRtTimeStamp: older is invalid
constexpr int kMaxDataBits = 255;                   // cDataBits is one byte
constexpr int kMaxPixelType = 8;
constexpr int kNarrowMaxTitles = 10;
constexpr int kWideMaxTitlesOf = 4;
constexpr int kWideMaxWavesOf = 12;

bool isWide(IMStreamRecord const* record) {
  return record->iFileType > kWideImageTypeAbove;
}

// A wavelength index that names a stored channel and stays inside the
// record's arrays, whatever count a file claimed.
bool isStoredWave(IMStreamRecord const* record, int w) {
  return w >= 0 && w < record->iNumW && w < kMaxWaves;
}

// Capacities of a file type: titles and wavelengths of its header layout.
void setCapacities(IMStreamRecord* record) {
  record->iMaxTitles = isWide(record) ? kWideMaxTitlesOf : kNarrowMaxTitles;
  record->iMaxWaves = isWide(record) ? kWideMaxWavesOf : kNarrowMaxWaves;
}

// Cuts the titles to a new capacity with the caller's two messages; 401 when
// cut, else 0.
int cutTitlesToCapacity(IMStreamRecord* record, char const* caller) {
  if (record->iNumTitles <= record->iMaxTitles) return 0;
  std::fprintf(stderr, "%s %d: the current number of titles (%d) is too large for file type %d.\n",
               caller, record->iStream, record->iNumTitles, record->iFileType);
  std::fprintf(stderr, "%s %d: setting the number of titles to %d.\n", caller, record->iStream,
               record->iMaxTitles);
  record->iNumTitles = record->iMaxTitles;
  return 401;
}

// Copies a caller's title into a record slot: 79 characters, the rest zero.
void storeTitle(char slot[kTitleBytes], char const* title) {
  std::memset(slot, 0, kTitleBytes);
  std::strncpy(slot, title, kTitleBytes - 1);
}

// The `w` rule of the statistics calls: 605 (with the caller's message)
// outside iMaxWaves, 603 from iNumW on, else 0. Only 605 stops the transfer.
int statisticsWaveRule(IMStreamRecord const* record, int w, char const* caller) {
  if (w < 0 || w >= record->iMaxWaves || w >= kMaxWaves) {
    std::fprintf(stderr, "%s %d: %d is an invalid wavelength number.\n", caller, record->iStream,
                 w);
    return 605;
  }
  return w >= record->iNumW ? 603 : 0;
}

void setCounts(IMStreamRecord* record, int nz, int nw, int nt, int np, int sequence) {
  record->iNumZ = nz;
  record->iNumW = nw;
  record->iNumT = nt;
  record->iNumP = np;
  record->iImageSequence = sequence;
  // 32-bit product that wraps, as the stored section count does.
  record->iNumSecs = static_cast<int32_t>(static_cast<uint32_t>(nz) * static_cast<uint32_t>(nw) *
                                          static_cast<uint32_t>(nt) * static_cast<uint32_t>(np));
}

}  // namespace

IMStreamRecord* iCheckedRecord(int iStream, char const* caller, int* code) {
  *code = IMCheckStream(iStream, caller);
  return *code == 0 ? gsStreams[iStream] : nullptr;
}

// ---------------------------------------------------------------------------
// Geometry.

int IMRtXY(int iStream, int* nx, int* ny) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtXY", &code);
  if (r == nullptr) return code;
  *nx = r->iNumX;
  *ny = r->iNumY;
  return 0;
}

int IMAlXY(int iStream, int nx, int ny) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlXY", &code);
  if (r == nullptr) return code;
  r->iNumX = nx;
  r->iNumY = ny;
  return 0;
}

int IMRtSiz(int iStream, int size[3], int sampling[3], int start[3]) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtSiz", &code);
  if (r == nullptr) return code;
  size[0] = r->iNumX;
  size[1] = r->iNumY;
  size[2] = r->iNumSecs;
  for (int i = 0; i < 3; ++i) sampling[i] = iTruncToInt32(r->fSampling[i] + 0.5);
  start[0] = r->iStartCol;
  start[1] = r->iStartRow;
  start[2] = r->iStartSec;
  return 0;
}

int IMAlSiz(int iStream, int const size[3], int const start[3]) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlSiz", &code);
  if (r == nullptr) return code;
  // The Z, W, T, P counts stay as they are, as designed.
  r->iNumX = size[0];
  r->iNumY = size[1];
  r->iNumSecs = size[2];
  r->iStartCol = start[0];
  r->iStartRow = start[1];
  r->iStartSec = start[2];
  return 0;
}

int IMRtMst(int iStream, int start[3]) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtMst", &code);
  if (r == nullptr) return code;
  start[0] = r->iStartCol;
  start[1] = r->iStartRow;
  start[2] = r->iStartSec;
  return 0;
}

int IMRtMap(int iStream, int map[3]) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtMap", &code);
  if (r == nullptr) return code;
  std::copy(r->iAxisMap, r->iAxisMap + 3, map);
  return 0;
}

int IMAlMap(int iStream, int const map[3]) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlMap", &code);
  if (r == nullptr) return code;
  std::copy(map, map + 3, r->iAxisMap);
  return 0;
}

int IMRtDel(int iStream, float pixelSize[3]) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtDel", &code);
  if (r == nullptr) return code;
  std::copy(r->fPixelSize, r->fPixelSize + 3, pixelSize);
  return 0;
}

int IMRtDel2(int iStream, float* dx, float* dy, float* dz) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtDel2", &code);
  if (r == nullptr) {
    // Unlike the other accessors, a refused stream yields unit sizes.
    *dx = *dy = *dz = 1.0f;
    return code;
  }
  *dx = r->fPixelSize[0];
  *dy = r->fPixelSize[1];
  *dz = r->fPixelSize[2];
  return 0;
}

int IMAlDel(int iStream, float const pixelSize[3]) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlDel", &code);
  if (r == nullptr) return code;
  int result = 0;
  for (int i = 0; i < 3; ++i) {
    if (pixelSize[i] < kMinPixelSize) {
      std::fprintf(stderr, "IMAlDel %d: pixel size must be greater than 0\n", iStream);
      result = 502;
    }
    // Stored even when refused, as designed.
    r->fPixelSize[i] = pixelSize[i];
    r->fCellSize[i] = r->fSampling[i] * pixelSize[i];
  }
  return result;
}

int IMAlDel2(int iStream, float dx, float dy, float dz) {
  float const pixelSize[3] = {dx, dy, dz};
  return IMAlDel(iStream, pixelSize);
}

int IMRtCel(int iStream, float cell[6]) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtCel", &code);
  if (r == nullptr) return code;
  std::copy(r->fCellSize, r->fCellSize + 3, cell);
  std::copy(r->fCellAngle, r->fCellAngle + 3, cell + 3);
  return 0;
}

int IMAlCel(int iStream, float const cell[6]) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlCel", &code);
  if (r == nullptr) return code;
  for (int i = 0; i < 3; ++i) {
    r->fCellSize[i] = cell[i];
    r->fCellAngle[i] = cell[i + 3];
    r->fPixelSize[i] = r->fCellSize[i] / r->fSampling[i];
  }
  return 0;
}

int IMTrCel(int iStream, int source) {
  // Both checks run, and their codes are joined, as designed.
  int const dstCode = IMCheckStream(iStream, "IMTrCel");
  int const srcCode = IMCheckStream(source, "IMTrCel");
  if (dstCode != 0 || srcCode != 0) return dstCode | srcCode;
  IMStreamRecord* dst = gsStreams[iStream];
  IMStreamRecord const* src = gsStreams[source];
  for (int i = 0; i < 3; ++i) {
    dst->fCellSize[i] = src->fCellSize[i];
    dst->fCellAngle[i] = src->fCellAngle[i];
    dst->fPixelSize[i] = dst->fCellSize[i] / dst->fSampling[i];
  }
  return 0;
}

int IMRtOrig(int iStream, float* x, float* y, float* z) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtOrig", &code);
  if (r == nullptr) return code;
  *x = r->fOrigin[0];
  *y = r->fOrigin[1];
  *z = r->fOrigin[2];
  return 0;
}

int IMAlOrig(int iStream, float x, float y, float z) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlOrig", &code);
  if (r == nullptr) return code;
  r->fOrigin[0] = x;
  r->fOrigin[1] = y;
  r->fOrigin[2] = z;
  return 0;
}

int IMRtTlt(int iStream, float tilt[3]) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtTlt", &code);
  if (r == nullptr) return code;
  std::copy(r->fTilt, r->fTilt + 3, tilt);
  return 0;
}

int IMAlTlt(int iStream, float const tilt[3]) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlTlt", &code);
  if (r == nullptr) return code;
  std::copy(tilt, tilt + 3, r->fTilt);
  return 0;
}

int IMAlTltRot(int iStream, float const* /*tilt*/) {
  int code;
  if (iCheckedRecord(iStream, "IMAlTltRot", &code) == nullptr) return code;
  std::fprintf(stderr, "IMAlTltRot: function not supported.\n");
  return 0;
}

// ---------------------------------------------------------------------------
// Pixel type, lens, space group and symmetry bytes.

int IMRtMode(int iStream, int* mode) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtMode", &code);
  if (r == nullptr) return code;
  *mode = r->iPixelType;
  return 0;
}

int IMAlMode(int iStream, int mode) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlMode", &code);
  if (r == nullptr) return code;
  if (mode < 0 || mode > kMaxPixelType) {
    std::fprintf(stderr, "IMAlMode %d: %d is an invalid pixel data type.\n", iStream, mode);
    return 503;
  }
  r->iPixelType = mode;
  // Types 3 and 5 print the size function's message; the result stays 0.
  iBytesPerPixelOf(r, &r->iBytesPerPixel);
  return 0;
}

int IMRtLensID(int iStream, int* lensId) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtLensID", &code);
  if (r == nullptr) return code;
  *lensId = r->iLensID;
  return 0;
}

int IMAlLensID(int iStream, int lensId) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlLensID", &code);
  if (r == nullptr) return code;
  r->iLensID = lensId;  // the header keeps only 16 bits of it
  return 0;
}

int IMRtSpg(int iStream, int* spaceGroup, int* extHdrSize) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtSpg", &code);
  if (r == nullptr) return code;
  *spaceGroup = r->iSpaceGroup;
  *extHdrSize = r->iExtHdrSize;
  return 0;
}

int IMAlSpg(int iStream, int spaceGroup, int extHdrSize) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlSpg", &code);
  if (r == nullptr) return code;
  r->iSpaceGroup = spaceGroup;
  r->iExtHdrSize = std::max(extHdrSize, 0);
  int result = 0;
  if (r->iExtHdrSize != 0 && iReplaceExtHdrBlock(r, r->iExtHdrSize) != 0) {
    result = iExtHdrNoMemory("IMAlSpg", iStream);
  }
  IMPosn(iStream, 0, 0);
  return result;
}

int IMRtSym(int iStream, int* bytes, void* data) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtSym", &code);
  if (r == nullptr) return code;
  *bytes = r->iExtHdrSize;
  if (data != nullptr && r->pExtHdr != nullptr && r->iExtHdrSize > 0)
    std::memcpy(data, r->pExtHdr, static_cast<std::size_t>(r->iExtHdrSize));
  return 0;
}

int IMAlSym(int iStream, int bytes, void const* data) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlSym", &code);
  if (r == nullptr) return code;
  if (bytes < 1 || bytes > r->iExtHdrSize || r->pExtHdr == nullptr) {
    std::fprintf(stderr, "IMAlSym %d: error altering symmetry information.\n", iStream);
    return 703;
  }
  std::memcpy(r->pExtHdr, data, static_cast<std::size_t>(bytes));
  return 0;
}

// ---------------------------------------------------------------------------
// Wavelengths, their statistics and display scales.

int IMRtWav(int iStream, int* nw, float* waves) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtWav", &code);
  if (r == nullptr) return code;
  *nw = r->iNumW;
  // A file may claim more channels than the record can describe.
  int const n = std::clamp(r->iNumW, 0, kMaxWaves);
  std::copy(r->fWaves, r->fWaves + n, waves);
  return 0;
}

int IMAlWav(int iStream, int n, float const* waves) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlWav", &code);
  if (r == nullptr) return code;
  if (n < 1 || n > r->iMaxWaves || n > kMaxWaves) {
    std::fprintf(stderr, "IMAlWav %d: %d is an invalid number of wavelengths.\n", iStream, n);
    return 501;
  }
  std::copy(waves, waves + n, r->fWaves);  // iNumW is left as it is
  return 0;
}

int IMRtWav2(int iStream, int w, float* wave) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtWav2", &code);
  if (r == nullptr) return code;
  if (!isStoredWave(r, w)) {
    std::fprintf(stderr, "IMRtWav2 %d: %d is an invalid wavelength number (min=0, max=%d).\n",
                 iStream, w, r->iNumW - 1);
    return 603;
  }
  *wave = r->fWaves[w];
  return 0;
}

int IMAlWav2(int iStream, int w, float wave) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlWav2", &code);
  if (r == nullptr) return code;
  if (!isStoredWave(r, w)) {
    std::fprintf(stderr, "IMAlWav2 %d: %d is an invalid wavelength number (min=0, max=%d).\n",
                 iStream, w, r->iNumW - 1);
    return 603;
  }
  r->fWaves[w] = wave;
  return 0;
}

int IMRtWavMMM(int iStream, int w, float* min, float* max, float* mean) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtWavMMM", &code);
  if (r == nullptr) return code;
  int const result = statisticsWaveRule(r, w, "IMRtWavMMM");
  if (result == 605) return result;
  *min = r->fMins[w];
  *max = r->fMaxs[w];
  *mean = r->fMeans[w];
  return result;
}

int IMRtWavMM(int iStream, int w, float* min, float* max) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtWavMM", &code);
  if (r == nullptr) return code;
  int const result = statisticsWaveRule(r, w, "IMRtWavMM");
  if (result == 605) return result;
  *min = r->fMins[w];
  *max = r->fMaxs[w];
  return result;
}

int IMAlWavMMM(int iStream, int w, float min, float max, float mean) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlWavMMM", &code);
  if (r == nullptr) return code;
  if (giVerboseMode != 0)
    std::printf("IMAlWavMMM %d: w=%d, MMM=%.2f %.2f %.3f\n", iStream, w, min, max, mean);
  int const result = statisticsWaveRule(r, w, "IMAlWavMMM");
  if (result == 605) return result;
  r->fMins[w] = min;
  r->fMaxs[w] = max;
  r->fMeans[w] = mean;
  return result;
}

int IMAlWavMM(int iStream, int w, float min, float max) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlWavMM", &code);
  if (r == nullptr) return code;
  if (giVerboseMode != 0) std::printf("IMAlWavMM %d: w=%d, MMM=%.2f %.2f\n", iStream, w, min, max);
  int const result = statisticsWaveRule(r, w, "IMAlWavMM");
  if (result == 605) return result;
  r->fMins[w] = min;
  r->fMaxs[w] = max;
  return result;
}

namespace {

// IMRtScl on an accepted stream: the stored display scale of channel w, or
// the fallback from the channel's range.
int readDisplayScale(IMStreamRecord const* r, int w, float scale[4], char const* caller) {
  int result = 0;
  if (!isWide(r)) {
    result = 806;
  } else if (!isStoredWave(r, w)) {
    std::fill(scale, scale + 4, 0.0f);
    std::fprintf(stderr, "%s %d: %d is an invalid wavelength number.\n", caller, r->iStream, w);
    return 603;
  } else {
    float const* stored = r->fDisplayScale[w];
    bool const unset =
        std::fabs(stored[0]) < kScaleNearZero && std::fabs(stored[1]) < kScaleNearZero;
    bool const good = !unset && stored[0] < stored[1] && r->fMins[w] < stored[1];
    if (good) {
      std::copy(stored, stored + 4, scale);
      return 0;
    }
    result = 812;
  }
  // Fallback: the channel's own range. A narrow stream reaches here without
  // a wavelength test; an index outside the record's arrays reads as 0.
  bool const inArrays = w >= 0 && w < kMaxWaves;
  scale[0] = inArrays ? r->fMins[w] : 0.0f;
  scale[1] = inArrays ? r->fMaxs[w] : 0.0f;
  scale[2] = 1.0f;
  scale[3] = 0.0f;
  return result;
}

}  // namespace

int IMRtScl(int iStream, int w, float scale[4]) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtScl", &code);
  if (r == nullptr) return code;
  return readDisplayScale(r, w, scale, "IMRtScl");
}

int IMRtScl2(int iStream, int w, float* a, float* b, float* c, float* d) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtScl2", &code);
  if (r == nullptr) return code;
  float scale[4];
  int const result = readDisplayScale(r, w, scale, "IMRtScl2");
  *a = scale[0];
  *b = scale[1];
  *c = scale[2];
  *d = scale[3];
  return result;
}

namespace {

int setDisplayScale(int iStream, int w, float const scale[4], char const* caller) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, caller, &code);
  if (r == nullptr) return code;
  if (!isWide(r)) return 806;
  if (!isStoredWave(r, w)) {
    std::fprintf(stderr, "%s %d: %d is an invalid wavelength number.\n", caller, iStream, w);
    return 603;
  }
  std::copy(scale, scale + 4, r->fDisplayScale[w]);  // only three reach the file
  return 0;
}

}  // namespace

int IMAlScl(int iStream, int w, float const scale[4]) {
  return setDisplayScale(iStream, w, scale, "IMAlScl");
}

int IMAlScl2(int iStream, int w, float a, float b, float c, float d) {
  float const scale[4] = {a, b, c, d};
  return setDisplayScale(iStream, w, scale, "IMAlScl2");
}

// ---------------------------------------------------------------------------
// Titles.

int IMRtLab(int iStream, char titles[][80], int* count) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtLab", &code);
  if (r == nullptr) return code;
  *count = r->iNumTitles;
  if (titles == nullptr) return 0;
  int const n = std::clamp(r->iNumTitles, 0, kMaxTitles);
  for (int i = 0; i < n; ++i) {
    std::strncpy(titles[i], r->cTitles[i], kTitleBytes - 1);
    titles[i][kTitleBytes - 1] = '\0';
  }
  return 0;
}

int IMRtLab2(int iStream, char titles[][80], int first, int count) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtLab2", &code);
  if (r == nullptr) return code;
  // A negative start or count names no titles either; refused the same way.
  int64_t const last = int64_t{first} + count;
  if (first < 0 || count < 0 || last > r->iNumTitles || last > kMaxTitles) {
    std::fprintf(stderr, "IMRtLab2 %d: %d is too many titles. Max is %d. No titles returned.\n",
                 iStream, static_cast<int>(last), r->iNumTitles);
    return 401;
  }
  for (int i = 0; i < count; ++i) {
    std::strncpy(titles[i], r->cTitles[first + i], kTitleBytes - 1);
    titles[i][kTitleBytes - 1] = '\0';
  }
  return 0;
}

int IMAlLab(int iStream, char const titles[][80], int count) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlLab", &code);
  if (r == nullptr) return code;
  int result = 0;
  if (count > r->iMaxTitles) {
    std::fprintf(stderr, "IMAlLab %d: %d is too many titles. Truncating at %d...\n", iStream, count,
                 r->iMaxTitles);
    count = r->iMaxTitles;
    result = 401;
  }
  count = std::clamp(count, 0, kMaxTitles);
  std::memset(r->cTitles, 0, sizeof(r->cTitles));
  for (int i = 0; i < count; ++i) storeTitle(r->cTitles[i], titles[i]);
  r->iNumTitles = count;
  return result;
}

int IMAlLab2(int iStream, char const titles[][80], int first, int count) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlLab2", &code);
  if (r == nullptr) return code;
  int64_t const last = int64_t{first} + count;
  if (first < 0 || count < 0 || last > r->iMaxTitles || last > kMaxTitles) {
    std::fprintf(stderr, "IMAlLab2 %d: %d is too many titles. Max is %d. No changes made.\n",
                 iStream, static_cast<int>(last), r->iMaxTitles);
    return 401;
  }
  for (int i = 0; i < count; ++i) storeTitle(r->cTitles[first + i], titles[i]);
  r->iNumTitles = std::max(r->iNumTitles, first + count);
  return 0;
}

int IMRtMaxNumLab(int iStream, int* max) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtMaxNumLab", &code);
  if (r == nullptr) return code;
  if (max != nullptr) *max = r->iMaxTitles;
  return 0;
}

int IMRtNumLab(int iStream, int* count) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtNumLab", &code);
  if (r == nullptr) return code;
  if (count != nullptr) *count = r->iNumTitles;
  return 0;
}

int IMAlNumLab(int iStream, int count) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlNumLab", &code);
  if (r == nullptr) return code;
  if (count < 0 || count > r->iMaxTitles) {
    std::fprintf(stderr, "IMAlNumLab: %d is an invalid number of labels. Valid range: 0-%d.\n",
                 count, r->iMaxTitles);
    return count < 0 ? 405 : 401;
  }
  r->iNumTitles = count;
  return 0;
}

int IMTrLab(int iStream, int source) {
  int const dstCode = IMCheckStream(iStream, "IMTrLab");
  int const srcCode = IMCheckStream(source, "IMTrLab");
  if (dstCode != 0 || srcCode != 0) return dstCode | srcCode;
  IMStreamRecord* dst = gsStreams[iStream];
  IMStreamRecord const* src = gsStreams[source];
  int const count = std::clamp(std::min(src->iNumTitles, dst->iMaxTitles), 0, kMaxTitles);
  for (int i = 0; i < count; ++i) storeTitle(dst->cTitles[i], src->cTitles[i]);
  dst->iNumTitles = count;
  return 0;
}

// ---------------------------------------------------------------------------
// File type, id, data values, time stamp, data bits.

int IMRtFileType(int iStream, int* type) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtFileType", &code);
  if (r == nullptr) return code;
  *type = r->iFileType;
  return 0;
}

int IMAlFileType(int iStream, int type) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlFileType", &code);
  if (r == nullptr) return code;
  r->iFileType = type;
  setCapacities(r);
  return cutTitlesToCapacity(r, "IMAlFileType");
}

int IMRtFileID(int iStream, int* id, int* swapped) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtFileID", &code);
  if (r == nullptr) return code;
  constexpr int kFileIDForeignOrder = -24384;  // 0xA0C0 read in host order
  *id = r->iFileID;
  if (r->iFileID != kFileIDHostOrder && r->iFileID != kFileIDForeignOrder) {
    *swapped = 0;
    return 506;
  }
  *swapped = r->iSwapped;
  return 0;
}

int IMRtDat(int iStream, int* type, int* lensId, int* value1, int* value2, float* value3,
            float* value4) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtDat", &code);
  if (r == nullptr) return code;
  *type = r->iFileType;
  *lensId = r->iLensID;
  *value1 = r->iDataVal1;
  *value2 = r->iDataVal2;
  *value3 = r->fDataVal3;
  *value4 = r->fDataVal4;
  return 0;
}

int IMAlDat(int iStream, int type, int lensId, int value1, int value2, float value3, float value4) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlDat", &code);
  if (r == nullptr) return code;
  r->iFileType = type;
  r->iLensID = lensId;
  r->iDataVal1 = value1;
  r->iDataVal2 = value2;
  r->fDataVal3 = value3;
  r->fDataVal4 = value4;
  setCapacities(r);
  return cutTitlesToCapacity(r, "IMAlDat");
}

int IMRtTimeStamp(int iStream, double* time) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtTimeStamp", &code);
  if (r == nullptr) return code;
  if (!isWide(r)) {
    if (giVerboseMode != 0)
      std::fprintf(stderr, "IMRtTimeStamp %d: invalid image type (%d).\n", iStream, r->iFileType);
    *time = 0.0;
    return 507;
  }
  if (r->dTimeStamp < kEarliestTimeStamp) {
    if (giVerboseMode != 0)
      std::fprintf(stderr, "IMRtTimeStamp %d: invalid time stamp (%.3f).\n", iStream,
                   r->dTimeStamp);
    *time = 0.0;
    return 507;
  }
  *time = r->dTimeStamp;
  return 0;
}

int IMAlTimeStamp(int iStream, double time) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlTimeStamp", &code);
  if (r == nullptr) return code;
  if (!isWide(r)) {
    if (giVerboseMode != 0)
      std::fprintf(stderr, "IMAlTimeStamp %d: invalid image type (%d).\n", iStream, r->iFileType);
    return 507;
  }
  r->dTimeStamp = std::max(time, 0.0);
  return 0;
}

int IMRtDataBitsPerPixel(int iStream, int* bits) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtDataBitsPerPixel", &code);
  if (r == nullptr) return code;
  int const value = isWide(r) ? r->cDataBits : 0;
  if (bits != nullptr) *bits = value;
  return value == 0 ? 512 : 0;
}

int IMAlDataBitsPerPixel(int iStream, int bits) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlDataBitsPerPixel", &code);
  if (r == nullptr) return code;
  if (!isWide(r)) {
    std::fprintf(stderr,
                 "IMAlDataBitsPerPixel %d: file type %d does not support storage of data bits.\n",
                 iStream, r->iFileType);
    return 512;
  }
  if (bits < 0 || bits > kMaxDataBits) {
    std::fprintf(stderr, "IMAlDataBitsPerPixel %d: invalid number of data bits per pixel (%d)\n",
                 iStream, bits);
    return 511;
  }
  r->cDataBits = static_cast<unsigned char>(bits);
  return 0;
}

// ---------------------------------------------------------------------------
// Counts, conversion and display flags.

int IMAlZWTP(int iStream, int nz, int nw, int nt, int np, int sequence) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlZWTP", &code);
  if (r == nullptr) return code;
  setCounts(r, nz, nw, nt, np, sequence);
  return 0;
}

int IMAlZWT(int iStream, int nz, int nw, int nt, int sequence) {
  return IMAlZWTP(iStream, nz, nw, nt, 1, sequence);
}

int IMAlZWT2(int iStream, int nz, int nw, int nt) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlZWT2", &code);
  if (r == nullptr) return code;
  setCounts(r, nz, nw, nt, 1, r->iImageSequence);
  return 0;
}

int IMAlZWTP2(int iStream, int nz, int nw, int nt, int np) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlZWTP2", &code);
  if (r == nullptr) return code;
  setCounts(r, nz, nw, nt, np, r->iImageSequence);
  return 0;
}

int IMRtCon(int iStream, int* flag) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtCon", &code);
  if (r == nullptr) return code;
  if (flag != nullptr) *flag = r->iConvert;
  return 0;
}

int IMAlCon(int iStream, int flag) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlCon", &code);
  if (r == nullptr) return code;
  r->iConvert = flag;
  return 0;
}

int IMAlDis2(int iStream, int flag) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlDis2", &code);
  if (r == nullptr) return code;
  r->iWinDisplayFlag = flag;
  return 0;
}

int IMAlDis(int iWinDisplayFlag) {
  std::fprintf(stderr, "IMAlDis: use IMAlDis2(iStream,iWinDisplayFlag) instead.\n");
  giWinDisplayFlag = iWinDisplayFlag;
  for (int i = 1; i <= kMaxStreams; ++i)
    if (gsStreams[i] != nullptr) gsStreams[i]->iWinDisplayFlag = iWinDisplayFlag;
  return 0;
}

int IMRtWID(int iStream) {
  if (iStream < 0) return -1;
  if (iStream == 0) return 0;
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtWID", &code);
  if (r == nullptr || r->iStreamType != kStreamTypeWindow) return 0;
  return std::max(r->iWinID, 0);
}
