// Extended header: its shape (type, integers and floats per section), the
// sizing calls other than the block creator, one section's record by
// coordinate or by section number, one value of a record, and copies between
// streams.
//
// The block lives in memory from creation or load to IMClose; IMWrHdr2
// writes it. Sizing throws the old contents away, so callers size first.
// Not here: creating the default block, loading at open and the field
// section (exthdr_size.cpp, fields.cpp).
#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "imsubs/internal.h"

namespace {

constexpr int kMaxExtHdrType = 4;
constexpr int kDefaultExtHdrType = 4;         // what a negative or too large type becomes
constexpr int kExtHdrTypeFixedBlocks = 2048;  // IMAlExHdrType adds two blocks of fields
constexpr int kMinUsableExtHdrSize = 3;       // at most this many bytes hold no shape
constexpr int kWorkCountDefault = 4;          // work buffer length for a count below 1
constexpr float kType4Marker = 0.00001f;      // a type 4 record has this much in float 7
constexpr int kType4MarkerWord = 15;          // word of float 7 of section 0 (8 ints first)
constexpr int kType4MarkerMinFloats = 17;
constexpr double kIntSlotBias = 1e-10;  // type 4 integers cross doubles with this nudge

struct ExtHdrShape {
  int ints;
  int floats;
};
// Integers and floats per section, by type. Types 3 and 4 share one shape;
// they differ in which value numbers are legal.
constexpr ExtHdrShape kExtHdrShapes[kMaxExtHdrType + 1] = {
    {0, 0}, {1, 1}, {0, 2}, {8, 32}, {8, 32},
};

// The value numbers of a type: a float slot, an integer slot, or none.
struct ValueSlot {
  bool valid;
  bool isInt;
  int index;
};

// Largest slots the value table names, so work buffers always hold them.
constexpr int kMaxIntSlot = 5;
constexpr int kMaxFloatSlot = 21;

// The value table. `typeKnown` is false for a type outside the table.
ValueSlot valueSlotOf(int type, int valueId, bool* typeKnown) {
  *typeKnown = true;
  switch (type) {
    case 1:
      if (valueId == 0) return {true, true, 0};
      if (valueId == 1) return {true, false, 0};
      return {false, false, 0};
    case 2:
      if (valueId == 0 || valueId == 1) return {true, false, valueId};
      return {false, false, 0};
    case 3:
      if (valueId >= 0 && valueId <= 15) return {true, false, valueId};
      return {false, false, 0};
    case 4:
      if (valueId >= 0 && valueId <= 20) return {true, false, valueId};
      if (valueId >= 1000 && valueId <= 1004) return {true, true, valueId - 1000};
      return {false, false, 0};
    default:
      *typeKnown = false;
      return {false, false, 0};
  }
}

// Work buffers for one record, zeroed, long enough for the record and for
// every slot of the value table.
struct RecordBuffers {
  std::vector<int> ints;
  std::vector<float> floats;
  RecordBuffers(int numInts, int numFloats)
      : ints(static_cast<std::size_t>(
            std::max(numInts < 1 ? kWorkCountDefault : numInts, kMaxIntSlot))),
        floats(static_cast<std::size_t>(
            std::max(numFloats < 1 ? kWorkCountDefault : numFloats, kMaxFloatSlot))) {}
};

// Type clamp shared by the sizing calls: too large prints the caller's
// message, negative is silent; both become type 4.
int normaliseType(int iStream, int type, char const* message) {
  if (type > kMaxExtHdrType) {
    std::fprintf(stderr, message, iStream, type, kDefaultExtHdrType);
    return kDefaultExtHdrType;
  }
  return type < 0 ? kDefaultExtHdrType : type;
}

int64_t wordsPerRecord(IMStreamRecord const* r) {
  return int64_t{r->iNumExtInts} + r->iNumExtFloats;
}

// Moves one record between the block and the caller's arrays. Words past the
// block's end are skipped; the result tells whether any were (the overrun).
bool moveRecord(IMStreamRecord* r, int sec, int* ints, float* floats, bool toBlock) {
  int64_t const blockWords = r->iExtHdrSize / 4;
  int64_t const base = wordsPerRecord(r) * sec;
  int const numInts = std::max(r->iNumExtInts, 0);
  int const numFloats = std::max(r->iNumExtFloats, 0);
  bool overrun = false;
  auto inBlock = [&](int64_t word) {
    bool const ok = word >= 0 && word < blockWords;
    overrun = overrun || !ok;
    return ok;
  };
  for (int k = 0; k < numInts; ++k) {
    int64_t const word = base + k;
    if (!inBlock(word)) continue;
    if (toBlock) {
      std::memcpy(r->pExtHdr + 4 * word, &ints[k], 4);
    } else {
      std::memcpy(&ints[k], r->pExtHdr + 4 * word, 4);
    }
  }
  for (int k = 0; k < numFloats; ++k) {
    int64_t const word = base + r->iNumExtInts + k;
    if (!inBlock(word)) continue;
    if (toBlock) {
      std::memcpy(r->pExtHdr + 4 * word, &floats[k], 4);
    } else {
      std::memcpy(&floats[k], r->pExtHdr + 4 * word, 4);
    }
  }
  // The word index reached, times 4, against the block size.
  return overrun || 4 * (base + numInts + numFloats) > r->iExtHdrSize;
}

// Step 1 of IMRtExHdrZWTP: the settled guard. The product doesn't equal the
// record's true offset; it is kept as designed.
bool failsCoordinateGuard(IMStreamRecord const* r, int iz, int iw, int it, int ip) {
  int64_t const need =
      (int64_t{iw} + 1) * (4 * int64_t{iz} + 4) * (int64_t{it} + 1) * (int64_t{ip} + 1);
  return r->iExtHdrSize < need;
}

// The "4 times section + 4" size test of the calls by section number.
bool blockTooSmallFor(IMStreamRecord const* r, int sec) {
  return int64_t{r->iExtHdrSize} < (4 * int64_t{sec} + 4) * wordsPerRecord(r);
}

// Does the block hold section `sec`? A negative number never names one.
bool holdsSection(IMStreamRecord const* r, int sec) {
  return sec >= 0 && !blockTooSmallFor(r, sec);
}

// Number of values first..last by step; none when the range is empty.
int64_t countRange(int first, int last, int step) {
  if (last < first) return 0;
  return (int64_t{last} - first) / step + 1;
}

}  // namespace

bool iExtHdrShape(int type, int* ints, int* floats) {
  if (type < 0 || type > kMaxExtHdrType) return false;
  *ints = kExtHdrShapes[type].ints;
  *floats = kExtHdrShapes[type].floats;
  return true;
}

int iReplaceExtHdrBlock(IMStreamRecord* record, int size) {
  assert(size > 0);
  iFreeExtHdr(record);
  char* block = static_cast<char*>(std::calloc(static_cast<std::size_t>(size), 1));
  if (block == nullptr) return 902;
  record->pExtHdr = block;
  record->pExtInts = reinterpret_cast<int*>(block);
  record->pExtFloats = reinterpret_cast<float*>(block);
  record->pFieldSection = cGetFieldSectionPtr(record->iStream);
  iCalcFieldBytesMax(record);
  return 0;
}

int iExtHdrNoMemory(char const* caller, int iStream) {
  std::fprintf(stderr, "%s %d: unable to allocate memory for extended header values.\n", caller,
               iStream);
  return 902;
}

// ---------------------------------------------------------------------------
// Shape.

int IMRtExHdrType(int iStream, int* type) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtExHdrType", &code);
  if (r == nullptr) return code;
  if (r->iExtHdrType >= 1) {
    *type = r->iExtHdrType;
    return 0;
  }
  *type = 0;
  bool const judgedByShape =
      r->iFileType == 0 || r->iFileType == 100 || r->iFileType == 1 || r->iFileType == 3;
  if (!judgedByShape) return 0;
  int const ints = r->iNumExtInts;
  int const floats = r->iNumExtFloats;
  if (ints == 1 && floats == 1) {
    *type = 1;
  } else if (ints == 0 && floats == 2) {
    *type = 2;
  } else if (ints == 8 && floats == 32) {
    // Type 4 records carry a value in float 7 where type 3 records hold 0.
    bool const markerInBlock =
        r->pExtHdr != nullptr && r->iExtHdrSize >= 4 * (kType4MarkerWord + 1);
    float const marker = markerInBlock ? r->pExtFloats[kType4MarkerWord] : 0.0f;
    *type = floats >= kType4MarkerMinFloats && std::fabs(marker) > kType4Marker ? 4 : 3;
  }
  return 0;
}

int IMRtExHdrSize(int iStream, int* ints, int* floats) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtExHdrSize", &code);
  if (r == nullptr) return code;
  if (r->iExtHdrSize <= kMinUsableExtHdrSize) {
    *ints = 0;
    *floats = 0;
    return 704;
  }
  *ints = r->iNumExtInts;
  *floats = r->iNumExtFloats;
  return 0;
}

int IMRtExHdrInfo(int iStream, int* type, int* size, int* ints, int* floats) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtExHdrInfo", &code);
  if (r == nullptr) return code;
  IMRtExHdrType(iStream, type);
  *size = r->iExtHdrSize;
  *ints = r->iNumExtInts;
  *floats = r->iNumExtFloats;
  return 0;
}

int IMAlExHdrType(int iStream, int type, int allocate, int sections) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlExHdrType", &code);
  if (r == nullptr) return code;
  type = normaliseType(iStream, type,
                       "IMAlExHdrType %d: %d is an invalid ext header type. Switching to %d.\n");
  r->iExtHdrType = type;
  iExtHdrShape(type, &r->iNumExtInts, &r->iNumExtFloats);
  if (allocate == 0) return 0;  // the old block and size stay
  r->iExtHdrSize = 0;
  int64_t const bytes = 4 * wordsPerRecord(r) * std::max(sections, 1);
  if (type == 0 || bytes == 0) {
    r->pFieldSection = cGetFieldSectionPtr(iStream);
    iCalcFieldBytesMax(r);
    IMPosn(iStream, 0, 0);
    return 0;
  }
  // Unlike IMAlExHdrSize2, exactly two blocks of room for fields.
  int64_t const size = (bytes + kExtHdrBlockBytes - 1) / kExtHdrBlockBytes * kExtHdrBlockBytes +
                       kExtHdrTypeFixedBlocks;
  if (size > INT32_MAX) {
    iFreeExtHdr(r);
    return iExtHdrNoMemory("IMAlExHdrType", iStream);
  }
  r->iExtHdrSize = static_cast<int>(size);
  if (iReplaceExtHdrBlock(r, r->iExtHdrSize) != 0) return iExtHdrNoMemory("IMAlExHdrType", iStream);
  IMPosn(iStream, 0, 0);
  return 0;
}

int IMAlExHdrSize(int iStream, int ints, int floats, int sections) {
  return IMAlExHdrSize2(iStream, ints, floats, sections, 1);
}

int IMAlExHdrInfo(int iStream, int type, int size, int ints, int floats) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlExHdrInfo", &code);
  if (r == nullptr) return code;
  type = normaliseType(iStream, type,
                       "IMAlExHdrInfo %d: %d is an invalid ext header type. Switching to %d.\n");
  r->iExtHdrType = type;
  // The counts are taken as given, with no relation to the type.
  r->iNumExtInts = ints;
  r->iNumExtFloats = floats;
  r->iExtHdrSize = std::max(size, 0);
  int result = 0;
  if (r->iExtHdrSize != 0 && iReplaceExtHdrBlock(r, r->iExtHdrSize) != 0) {
    result = iExtHdrNoMemory("IMAlExHdrInfo", iStream);
  }
  r->pFieldSection = cGetFieldSectionPtr(iStream);
  iCalcFieldBytesMax(r);
  IMPosn(iStream, 0, 0);
  return result;
}

// ---------------------------------------------------------------------------
// One section's record.

int IMRtExHdrZWTP(int iStream, int iz, int iw, int it, int ip, int* ints, float* floats) {
  // No stream check by design; an absent record is still refused quietly.
  IMStreamRecord* r = iRecord(iStream);
  if (r == nullptr) return 1;
  if (failsCoordinateGuard(r, iz, iw, it, ip)) return 704;
  if (r->pExtHdr == nullptr) return 706;
  int sec = 0;
  IMRtSecNum2(iStream, iz, iw, it, ip, &sec);  // a bad coordinate reads section 0
  if (moveRecord(r, sec, ints, floats, false)) {
    std::fprintf(stderr, "IMRtExHdrZWTP %d: extended header overrun.\n", iStream);
    return 707;
  }
  return 0;
}

int IMAlExHdrZWTP(int iStream, int iz, int iw, int it, int ip, int const* ints,
                  float const* floats) {
  IMStreamRecord* r = iRecord(iStream);
  if (r == nullptr) return 1;
  int sec = 0;
  IMRtSecNum2(iStream, iz, iw, it, ip, &sec);
  if (int64_t{r->iExtHdrSize} < 4 * wordsPerRecord(r) * sec + 4) return 704;
  if (r->pExtHdr == nullptr) return 706;
  if (moveRecord(r, sec, const_cast<int*>(ints), const_cast<float*>(floats), true)) {
    std::fprintf(stderr, "IMAlExHdrZWTP %d: extended header overrun. ZWTP=%d %d %d %d\n", iStream,
                 iz, iw, it, ip);
    return 707;
  }
  return 0;
}

int IMRtExHdrZWT(int iStream, int iz, int iw, int it, int* ints, float* floats) {
  return IMRtExHdrZWTP(iStream, iz, iw, it, 0, ints, floats);
}

int IMAlExHdrZWT(int iStream, int iz, int iw, int it, int const* ints, float const* floats) {
  return IMAlExHdrZWTP(iStream, iz, iw, it, 0, ints, floats);
}

int IMRtExHdr(int iStream, int sec, int* ints, float* floats) {
  IMStreamRecord* r = iRecord(iStream);
  if (r == nullptr) return 1;
  if (blockTooSmallFor(r, sec)) return 704;
  if (sec < 0 || sec >= r->iNumSecs) {
    std::fprintf(stderr, "IMRtExHdr %d: invalid section number.\n", iStream);
    return 602;
  }
  if (r->pExtHdr == nullptr) return 706;
  if (moveRecord(r, sec, ints, floats, false)) {
    std::fprintf(stderr, "IMRtExHdr %d: extended header overrun.\n", iStream);
    return 707;
  }
  return 0;
}

int IMAlExHdr(int iStream, int sec, int const* ints, float const* floats) {
  IMStreamRecord* r = iRecord(iStream);
  if (r == nullptr) return 1;
  if (!holdsSection(r, sec)) {
    std::fprintf(stderr,
                 "IMAlExHdr iStream %d: invalid section number (%d). Extended header is too small "
                 "(%d bytes).\n",
                 iStream, sec, r->iExtHdrSize);
    return 704;
  }
  if (r->pExtHdr == nullptr) return 706;
  if (moveRecord(r, sec, const_cast<int*>(ints), const_cast<float*>(floats), true)) {
    std::fprintf(stderr, "IMAlExHdr %d: extended header overrun.\n", iStream);
    return 707;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// One value of a record.

int IMRtExHdrValueZWTP(int iStream, int iz, int iw, int it, int ip, int valueId, double* value) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMRtExHdrValueZWTP", &code);
  if (r == nullptr) return code;
  if (failsCoordinateGuard(r, iz, iw, it, ip)) return 704;
  int type, size, numInts, numFloats;
  IMRtExHdrInfo(iStream, &type, &size, &numInts, &numFloats);
  RecordBuffers work(numInts, numFloats);
  int const readCode = IMRtExHdrZWTP(iStream, iz, iw, it, ip, work.ints.data(), work.floats.data());
  if (readCode != 0) return readCode;
  bool typeKnown;
  ValueSlot const slot = valueSlotOf(type, valueId, &typeKnown);
  if (!typeKnown) {
    // 1 rather than the 702 of the store call; the difference is settled.
    *value = 0.0;
    return 1;
  }
  if (!slot.valid) {
    *value = 0.0;
    return 701;
  }
  if (!slot.isInt) {
    *value = work.floats[static_cast<std::size_t>(slot.index)];
  } else if (type == 4) {
    // The nudge keeps a later truncation from landing one below.
    *value = work.ints[static_cast<std::size_t>(slot.index)] + kIntSlotBias;
  } else {
    *value = work.ints[static_cast<std::size_t>(slot.index)];
  }
  return 0;
}

int IMAlExHdrValueZWTP(int iStream, int iz, int iw, int it, int ip, int valueId, double value) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlExHdrValueZWTP", &code);
  if (r == nullptr) return code;
  int type, size, numInts, numFloats;
  IMRtExHdrInfo(iStream, &type, &size, &numInts, &numFloats);
  RecordBuffers work(numInts, numFloats);
  IMRtExHdrZWTP(iStream, iz, iw, it, ip, work.ints.data(), work.floats.data());
  bool typeKnown;
  ValueSlot const slot = valueSlotOf(type, valueId, &typeKnown);
  if (!typeKnown) return 702;
  if (!slot.valid) return 701;
  auto const index = static_cast<std::size_t>(slot.index);
  if (!slot.isInt) {
    work.floats[index] = static_cast<float>(value);
  } else if (type == 1) {
    work.ints[index] = iTruncToInt32(value + 0.5);
  } else {
    work.ints[index] = iTruncToInt32(value + kIntSlotBias);
  }
  // A failed store (a full block) is not reported here, as designed.
  IMAlExHdrZWTP(iStream, iz, iw, it, ip, work.ints.data(), work.floats.data());
  return 0;
}

int IMRtExHdrValueZWT(int iStream, int iz, int iw, int it, int valueId, double* value) {
  return IMRtExHdrValueZWTP(iStream, iz, iw, it, 0, valueId, value);
}

int IMAlExHdrValueZWT(int iStream, int iz, int iw, int it, int valueId, double value) {
  return IMAlExHdrValueZWTP(iStream, iz, iw, it, 0, valueId, value);
}

// ---------------------------------------------------------------------------
// Copies between streams.

int IMTrExHdr(int dst, int src, int dstSection, int srcSection) {
  int code;
  IMStreamRecord* d = iCheckedRecord(dst, "IMTrExHdr", &code);
  if (d == nullptr) return code;
  IMStreamRecord* s = iCheckedRecord(src, "IMTrExHdr", &code);
  if (s == nullptr) return code;
  if (d->iExtHdrType != s->iExtHdrType) {
    std::fprintf(stderr, "IMTrExHdr %d->%d: extended header type mismatch (%d/%d)\n", src, dst,
                 s->iExtHdrType, d->iExtHdrType);
    return 708;
  }
  if (!holdsSection(d, dstSection) || !holdsSection(s, srcSection)) {
    std::fprintf(stderr, "IMTrExHdr %d->%d: extended header size (%d, %d) is too small.\n", src,
                 dst, s->iExtHdrSize, d->iExtHdrSize);
    return 704;
  }
  RecordBuffers work(std::max(s->iNumExtInts, d->iNumExtInts),
                     std::max(s->iNumExtFloats, d->iNumExtFloats));
  int const readCode = IMRtExHdr(src, srcSection, work.ints.data(), work.floats.data());
  if (readCode != 0) return readCode;
  return IMAlExHdr(dst, dstSection, work.ints.data(), work.floats.data());
}

namespace {

// Copies every named field of `s` into `d`, announcing each.
void transferFields(IMStreamRecord const* s, IMStreamRecord* d) {
  for (int i = 0; i < s->iNumFields; ++i) {
    char const* name = s->ppFieldNames[i];
    char const* value = s->ppFieldContents[i];
    if (name == nullptr) continue;
    std::printf("Transferring field %d: %s %c %d %s\n", i, name, s->pFieldTypes[i],
                s->pFieldSizes[i], value != nullptr ? value : "");
    iReplaceOrAddCharField(d, name, value != nullptr ? value : "", s->pFieldTypes[i],
                           s->pFieldSizes[i]);
  }
}

}  // namespace

int IMTrExHdr4(int dst, int src, int zFirst, int zLast, int zStep, int const* waveFlags,
               int numWaves, int tFirst, int tLast, int tStep, int pFirst, int pLast) {
  int code;
  IMStreamRecord* d = iCheckedRecord(dst, "IMTrExHdr4", &code);
  if (d == nullptr) return code;
  IMStreamRecord* s = iCheckedRecord(src, "IMTrExHdr4", &code);
  if (s == nullptr) return code;
  if (wordsPerRecord(s) == 0 || s->pExtHdr == nullptr) return 0;
  if (d->iExtHdrType != s->iExtHdrType) {
    std::fprintf(stderr, "IMTrExHdr4 %d->%d: extended header type mismatch (%d/%d)\n", src, dst,
                 s->iExtHdrType, d->iExtHdrType);
    return 708;
  }
  if (zStep < 1) {
    std::fprintf(stderr, "IMTrExHdr4: Z section increment must be greater than 0. Fixed.\n");
    zStep = 1;
  }
  if (tStep < 1) {
    std::fprintf(stderr, "IMTrExHdr4: time increment must be greater than 0. Fixed.\n");
    tStep = 1;
  }
  int numPicked = 0;
  for (int w = 0; w < numWaves; ++w) numPicked += waveFlags[w] != 0 ? 1 : 0;
  int64_t const sections = countRange(pFirst, pLast, 1) * countRange(tFirst, tLast, tStep) *
                           numPicked * countRange(zFirst, zLast, zStep);
  int64_t const blocks = (int64_t{s->iExtHdrSize} + kExtHdrBlockBytes - 1) / kExtHdrBlockBytes;
  int const sizeCode = IMAlExHdrSize2(dst, s->iNumExtInts, s->iNumExtFloats,
                                      static_cast<int>(std::min<int64_t>(sections, INT32_MAX)),
                                      static_cast<int>(blocks));
  if (sizeCode != 0) return sizeCode;

  RecordBuffers work(s->iNumExtInts, s->iNumExtFloats);
  // 64-bit loop variables: a range ending at the largest integer still ends.
  int tp = 0;
  for (int64_t p = pFirst; p <= pLast; ++p, ++tp) {
    int tt = 0;
    for (int64_t t = tFirst; t <= tLast; t += tStep, ++tt) {
      int tw = 0;
      for (int w = 0; w < numWaves; ++w) {
        if (waveFlags[w] == 0) continue;
        int tz = 0;
        for (int64_t z = zFirst; z <= zLast; z += zStep, ++tz) {
          IMRtExHdrZWTP(src, static_cast<int>(z), w, static_cast<int>(t), static_cast<int>(p),
                        work.ints.data(), work.floats.data());
          IMAlExHdrZWTP(dst, tz, tw, tt, tp, work.ints.data(), work.floats.data());
        }
        ++tw;
      }
    }
  }
  transferFields(s, d);
  return 0;
}

int IMTrExHdr3(int dst, int src, int zFirst, int zLast, int zStep, int const* waveFlags,
               int numWaves, int tFirst, int tLast, int tStep) {
  return IMTrExHdr4(dst, src, zFirst, zLast, zStep, waveFlags, numWaves, tFirst, tLast, tStep, 0,
                    0);
}

int IMTrExHdr2(int dst, int src, int zFirst, int zLast, int zStep, int const* waveFlags, int tFirst,
               int tLast, int tStep) {
  constexpr int kClassicWaves = 5;
  std::fprintf(stderr, "IMTrExHdr2: switch to IMTrExHdr3. Backwards compatibility enabled...\n");
  return IMTrExHdr3(dst, src, zFirst, zLast, zStep, waveFlags, kClassicWaves, tFirst, tLast, tStep);
}
