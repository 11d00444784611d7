// Section pixel input and output: pixel type descriptions, and moving whole
// sections, lines, part lines and rectangles between the file and a caller's
// buffer, converting to and from 4-byte floats on the way.
//
// Reads convert in place in the caller's buffer; converting section writes
// stage through the process-wide gIOBuffer, so a section of any size needs no
// allocation. Positioning belongs to section.cpp.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

#include "imsubs/internal.h"

namespace {

// Pixel type codes.
constexpr int kTypeByte = 0;
constexpr int kTypeShort = 1;
constexpr int kTypeFloat = 2;
constexpr int kTypeShortComplex = 3;
constexpr int kTypeFloatComplex = 4;
constexpr int kTypeNone = 5;
constexpr int kTypeUShort = 6;
constexpr int kTypeInt = 7;
constexpr int kTypeDouble = 8;
constexpr int kNumTypes = 9;

// Pixels widened per step of an in-place widening; the block's source is
// copied aside first, so wider results never overwrite unread pixels.
constexpr int kWidenBlock = 4096;

struct PixelTypeInfo {
  int bytes;
  char const* description;
  double min;
  double max;
};
constexpr PixelTypeInfo kPixelTypes[kNumTypes] = {
    {1, "1 byte integer", 0.0, 255.0},
    {2, "2 byte signed integer", -32767.0, 32767.0},
    {4, "4 byte floating-point", -1e38, 1e38},
    {4, "2 byte integer complex", 0.0, 0.0},
    {8, "4 byte floating-point complex", -1e38, 1e38},
    {2, "unknown", 0.0, 0.0},
    {2, "2 byte unsigned integer", 0.0, 65535.0},
    {4, "4 byte signed integer", -2147483647.0, 2147483647.0},
    {8, "8 byte floating-point", -1e38, 1e38},
};

bool isKnownType(int type) {
  return static_cast<unsigned>(type) < kNumTypes && type != kTypeNone;
}

// Types that a converting write narrows through clamping.
bool isClampedType(int type) {
  return type == kTypeByte || type == kTypeShort || type == kTypeUShort || type == kTypeInt;
}

// Types that a converting read widens to floats.
bool isWidenedType(int type) {
  return isClampedType(type);
}

// Clamping counters of one converting write.
struct ClampCounts {
  int hi = 0;
  int lo = 0;
};

// How a converting write turns a float into an integer.
enum class NarrowRule {
  kTruncate,         // section write: clamp, then truncate every type
  kHalfUpByte,       // multi-line write: type 0 gets 0.5 before clamping
  kConvertThenClamp  // line write: 0.5 for types 0 and 1, clamp the integer
};

// Floor and ceilings of the clamping table.
struct ClampLimits {
  double floor;
  double ceilingTest;
  int64_t ceilingStored;
};
ClampLimits limitsOf(int type) {
  switch (type) {
    case kTypeByte:
      return {0.0, 255.0, 255};
    case kTypeShort:
      return {-32767.0, 32767.0, 32767};
    case kTypeUShort:
      return {0.0, 65535.0, 65535};
    default:
      return {-2147483648.0, 2147483648.0, 2147483647};
  }
}

// Truncation to 64 bits as the hardware does it: INT64_MIN when out of range.
int64_t truncToInt64(double value) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (!(value >= -kTwoTo63 && value < kTwoTo63)) return INT64_MIN;
  return static_cast<int64_t>(value);
}

// One float to the integer stored, with the counters of the rule.
template <NarrowRule rule>
int64_t narrowOne(float v, int type, ClampLimits const& limits, ClampCounts& counts) {
  if (rule == NarrowRule::kConvertThenClamp) {
    bool const halfUp = type == kTypeByte || type == kTypeShort;
    int64_t const converted = truncToInt64(halfUp ? double{v} + 0.5 : double{v});
    if (converted < static_cast<int64_t>(limits.floor)) {
      ++counts.lo;
      return static_cast<int64_t>(limits.floor);
    }
    if (converted > limits.ceilingStored) {
      ++counts.hi;
      return limits.ceilingStored;
    }
    return converted;
  }
  double const value = (rule == NarrowRule::kHalfUpByte && type == kTypeByte) ? v + 0.5 : v;
  if (value < limits.floor) {
    ++counts.lo;
    return static_cast<int64_t>(limits.floor);
  }
  if (value > limits.ceilingTest) {
    ++counts.hi;
    return limits.ceilingStored;
  }
  // In range, or NaN: truncation toward zero. 2147483648.0 for type 7 wraps
  // to INT32_MIN, which is kept as designed.
  return iTruncToInt32(value);
}

// Narrows `count` floats into `out` as the file's integer type.
template <NarrowRule rule, typename T>
void narrowAs(float const* in, T* out, int count, int type, ClampCounts& counts) {
  ClampLimits const limits = limitsOf(type);
  for (int i = 0; i < count; ++i) {
    out[i] = static_cast<T>(narrowOne<rule>(in[i], type, limits, counts));
  }
}

// The fast loops also get a clone for wider vector units, chosen at run
// time by the processor, where the compiler supports that.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__)
#define IM_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define IM_VECTOR_CLONES
#endif

// Pixels per step of the fast loops: a fixed count lets the compiler turn
// each step into vector instructions with no scalar remainder.
constexpr int kLanes = 16;

// One pixel of the fast truncating path; counts into lo and hi.
template <typename T>
inline __attribute__((always_inline)) T narrowClampedSmall(float v, float floor, float ceiling,
                                                           int& lo, int& hi) {
  lo += v < floor;
  hi += v > ceiling;
  float clamped = v < floor ? floor : v;
  clamped = clamped > ceiling ? ceiling : clamped;
  clamped = clamped == clamped ? clamped : 0.0f;  // NaN stores 0, as INT32_MIN narrowed
  return static_cast<T>(static_cast<int32_t>(clamped));
}

// The fast path of the truncating rule for the 8- and 16-bit types, free of
// branches so that it vectorises; proven against a reference in the tests.
template <typename T>
IM_VECTOR_CLONES void narrowTruncatingSmall(float const* in, T* out, int count, int type,
                                            ClampCounts& counts) {
  ClampLimits const limits = limitsOf(type);
  float const floor = static_cast<float>(limits.floor);
  float const ceiling = static_cast<float>(limits.ceilingTest);
  int lo = 0;
  int hi = 0;
  int i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    for (int j = 0; j < kLanes; ++j) {
      out[i + j] = narrowClampedSmall<T>(in[i + j], floor, ceiling, lo, hi);
    }
  }
  for (; i < count; ++i) out[i] = narrowClampedSmall<T>(in[i], floor, ceiling, lo, hi);
  counts.lo += lo;
  counts.hi += hi;
}

// Narrows floats to the file type into `out` (bytes of the file type).
template <NarrowRule rule>
void narrowToFileType(float const* in, void* out, int count, int type, ClampCounts& counts) {
  switch (type) {
    case kTypeByte:
      if (rule == NarrowRule::kTruncate) {
        narrowTruncatingSmall(in, static_cast<uint8_t*>(out), count, type, counts);
      } else {
        narrowAs<rule>(in, static_cast<uint8_t*>(out), count, type, counts);
      }
      break;
    case kTypeShort:
      if (rule == NarrowRule::kTruncate) {
        narrowTruncatingSmall(in, static_cast<int16_t*>(out), count, type, counts);
      } else {
        narrowAs<rule>(in, static_cast<int16_t*>(out), count, type, counts);
      }
      break;
    case kTypeUShort:
      if (rule == NarrowRule::kTruncate) {
        narrowTruncatingSmall(in, static_cast<uint16_t*>(out), count, type, counts);
      } else {
        narrowAs<rule>(in, static_cast<uint16_t*>(out), count, type, counts);
      }
      break;
    default:
      narrowAs<rule>(in, static_cast<int32_t*>(out), count, type, counts);
      break;
  }
}

// Converts `count` stored pixels of a widened type to floats; the two
// buffers must not overlap.
template <typename T>
IM_VECTOR_CLONES void widenAs(void const* in, float* out, int count) {
  T const* src = static_cast<T const*>(in);
  int i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    for (int j = 0; j < kLanes; ++j) out[i + j] = static_cast<float>(src[i + j]);
  }
  for (; i < count; ++i) out[i] = static_cast<float>(src[i]);
}
void widenToFloat(int type, void const* in, float* out, int count) {
  switch (type) {
    case kTypeByte:
      widenAs<uint8_t>(in, out, count);
      break;
    case kTypeShort:
      widenAs<int16_t>(in, out, count);
      break;
    case kTypeUShort:
      widenAs<uint16_t>(in, out, count);
      break;
    case kTypeInt:
      widenAs<int32_t>(in, out, count);
      break;
    default:
      assert(false && "not a widened type");
      break;
  }
}

// Widens in place, from the last block to the first: a block's stored
// pixels are copied aside before its floats are written, and earlier blocks
// lie below the bytes being written.
void widenInPlace(int type, void* data, int count, int bytesPerPixel) {
  unsigned char* bytes = static_cast<unsigned char*>(data);
  float* floats = static_cast<float*>(data);
  alignas(8) unsigned char aside[kWidenBlock * 4];
  for (int end = count; end > 0; end -= kWidenBlock) {
    int const start = std::max(0, end - kWidenBlock);
    int const n = end - start;
    std::memcpy(aside, bytes + static_cast<std::size_t>(start) * bytesPerPixel,
                static_cast<std::size_t>(n) * bytesPerPixel);
    widenToFloat(type, aside, floats + start, n);
  }
}

// Single-precision magnitudes of complex pixels.
void complexMagnitudes(float const* pairs, float* out, int count) {
  for (int i = 0; i < count; ++i) {
    float const re = pairs[2 * i];
    float const im = pairs[2 * i + 1];
    out[i] = std::sqrt(re * re + im * im);
  }
}

// Swaps stored pixels of a foreign-order file. False for type 3, which can't
// be swapped. Type 8 is never swapped, as designed.
bool swapStoredPixels(int type, void* data, int count) {
  switch (type) {
    case kTypeShort:
    case kTypeUShort:
      iSwapUnits(data, static_cast<std::size_t>(count), 2);
      return true;
    case kTypeFloat:
    case kTypeInt:
      iSwapUnits(data, static_cast<std::size_t>(count), 4);
      return true;
    case kTypeFloatComplex:
      iSwapUnits(data, static_cast<std::size_t>(count) * 2, 4);
      return true;
    case kTypeShortComplex:
      return false;
    default:
      return true;
  }
}

bool needsSwap(IMStreamRecord const* record) {
  return record->iSwapped == 1 && record->iPixelType < kTypeDouble;
}

// The pixel count of `lines` lines of the stream, or a refusal: a header with
// negative or overflowing dimensions must never size a transfer.
int linePixels(IMStreamRecord const* record, int64_t lines, char const* caller, int* pixels) {
  if (record->iNumX < 0) {
    std::fprintf(stderr, "%s %d: invalid number of columns (%d).\n", caller, record->iStream,
                 record->iNumX);
    return 402;
  }
  int64_t const count = lines * record->iNumX;
  if (lines < 0 || count > INT_MAX) {
    std::fprintf(stderr, "%s %d: invalid number of rows (%lld).\n", caller, record->iStream,
                 static_cast<long long>(lines));
    return 403;
  }
  *pixels = static_cast<int>(count);
  return 0;
}

void reportShortRead(char const* caller, IMStreamRecord* record, int got, bool withErrno,
                     int savedErrno) {
  int const eof = iStreamFileEOF(record);
  std::fprintf(stderr, "%s %d: only %d pixels read (EOF=%d).\n", caller, record->iStream, got, eof);
  if (withErrno) std::fprintf(stderr, "        %s\n", std::strerror(savedErrno));
}

void reportTruncation(char const* caller, int iStream, ClampCounts const& counts) {
  if ((counts.hi > 0 || counts.lo > 0) && giVerboseMode != 0) {
    std::fprintf(stderr, "%s %d: intensity truncation (hi=%d, lo=%d).\n", caller, iStream,
                 counts.hi, counts.lo);
  }
}

// Ends a successful write: the section is in the file when the call returns.
void finishWrite(IMStreamRecord* record) {
  record->iLastOp = kLastOpWrite;
  if (iUsesBufferedHandle(record)) std::fflush(record->pFile);
}

// The shared body of the line reads (IMRdSecl, IMRdLin, IMRdPal's read):
// no temporary buffer and no conversion for complex pixels.
int readLinePixels(IMStreamRecord* record, void* buffer, int pixels, char const* caller) {
  int const got = iStreamFileRead(record, buffer, record->iBytesPerPixel, pixels);
  if (got < pixels) {
    reportShortRead(caller, record, got, false, 0);
    return 212;
  }
  if (needsSwap(record) && !swapStoredPixels(record->iPixelType, buffer, pixels)) {
    std::fprintf(stderr, "%s %d: byte swap failed\n", caller, record->iStream);
    return 214;
  }
  record->iLastOp = kLastOpRead;
  if (record->iConvert == 0 || record->iPixelType >= kTypeDouble) return 0;
  if (isWidenedType(record->iPixelType)) {
    widenInPlace(record->iPixelType, buffer, pixels, record->iBytesPerPixel);
  }
  return record->iPixelType == kTypeShortComplex ? 905 : 0;
}

// The shared body of IMWrSecl and IMWrLin: one staging buffer per call.
template <NarrowRule rule>
int writeLinePixels(IMStreamRecord* record, float const* buffer, int pixels, char const* caller) {
  int const type = record->iPixelType;
  int written = 0;
  ClampCounts counts;
  if (record->iConvert == 0 || type == kTypeFloat || type == kTypeFloatComplex ||
      type == kTypeDouble) {
    written = iStreamFileWrite(record, record->iBytesPerPixel, pixels, buffer);
  } else if (static_cast<unsigned>(type) > kTypeDouble || type == kTypeNone) {
    written = pixels;  // nothing is written, and that counts as success
  } else if (type == kTypeShortComplex) {
    return 905;
  } else {
    std::unique_ptr<unsigned char[]> staging(
        new (std::nothrow) unsigned char[static_cast<std::size_t>(pixels) * 4 + 1]);
    if (!staging) {
      std::fprintf(stderr, "IMWrSecl %d: unable to allocate memory.\n", record->iStream);
      return 902;
    }
    narrowToFileType<rule>(buffer, staging.get(), pixels, type, counts);
    written = iStreamFileWrite(record, record->iBytesPerPixel, pixels, staging.get());
  }
  if (written < pixels) {
    std::fprintf(stderr, "%s %d: incorrect number of pixels written.\n", caller, record->iStream);
    return 213;
  }
  reportTruncation(caller, record->iStream, counts);
  finishWrite(record);
  return 0;
}

// Pixels per chunk of a converting section write through gIOBuffer.
int chunkPixels(int type) {
  return kIOBuffBytes / kPixelTypes[type].bytes;
}

// Steps 7 and 8 of IMWrSec: convert and write in chunks; false on a short write.
bool writeConvertedChunks(IMStreamRecord* record, float const* buffer, int pixels,
                          ClampCounts& counts) {
  int const type = record->iPixelType;
  int const perChunk = chunkPixels(type);
  int done = 0;
  while (done < pixels) {
    int const n = std::min(perChunk, pixels - done);
    narrowToFileType<NarrowRule::kTruncate>(buffer + done, gIOBuffer.gcIOBuff, n, type, counts);
    int const written = iStreamFileWrite(record, record->iBytesPerPixel, n, gIOBuffer.gcIOBuff);
    done += written;
    if (written < n) return false;
  }
  return done == pixels;
}

// Element size of a caller's rectangle array.
int arrayElementBytes(IMStreamRecord const* record, bool reading) {
  int const type = record->iPixelType;
  if (record->iConvert == 0) return record->iBytesPerPixel;
  if (isClampedType(type) || type == kTypeFloat) return 4;
  if (type == kTypeFloatComplex) return reading ? 4 : record->iBytesPerPixel;
  return record->iBytesPerPixel;
}

// The rectangle test of IMRdPas and IMWrPas; 0, 402 or 403.
int checkRectangle(IMStreamRecord const* record, char const* caller, int mx, int my,
                   int firstColumn, int lastColumn, int firstRow, int lastRow) {
  int const columns = lastColumn - firstColumn + 1;
  if (firstColumn < 0 || lastColumn >= record->iNumX || columns < 1 || columns > mx) {
    std::fprintf(stderr, "%s %d: too many columns (%d/%d/%d).\n", caller, record->iStream, columns,
                 mx, record->iNumX);
    return 402;
  }
  int const rows = lastRow - firstRow + 1;
  if (firstRow < 0 || lastRow >= record->iNumY || rows < 1 || rows > my) {
    std::fprintf(stderr, "%s %d: too many rows (%d/%d/%d).\n", caller, record->iStream, rows, my,
                 record->iNumY);
    return 403;
  }
  return 0;
}

// Moves the file position forward by `pixels` pixels of the stream.
bool skipPixels(IMStreamRecord* record, int64_t pixels) {
  return iStreamFileSeek(record, pixels * record->iBytesPerPixel, SEEK_CUR) >= 0;
}

// Converts one stored row of a rectangle into the caller's array row.
int deliverRow(IMStreamRecord const* record, unsigned char const* stored, unsigned char* out,
               int columns) {
  int const type = record->iPixelType;
  if (record->iConvert == 0 || type >= kTypeDouble || type < 0) {
    std::memcpy(out, stored, static_cast<std::size_t>(columns) * record->iBytesPerPixel);
    return 0;
  }
  float* const floats = reinterpret_cast<float*>(out);
  if (isWidenedType(type)) {
    widenToFloat(type, stored, floats, columns);
  } else if (type == kTypeFloatComplex) {
    std::vector<float> pairs(static_cast<std::size_t>(columns) * 2);
    std::memcpy(pairs.data(), stored, pairs.size() * sizeof(float));
    complexMagnitudes(pairs.data(), floats, columns);
  } else {
    std::memcpy(out, stored, static_cast<std::size_t>(columns) * record->iBytesPerPixel);
    if (type == kTypeShortComplex) return 905;
  }
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Pixel types.

int iBytesPerPixelOf(IMStreamRecord const* record, int* bytes) {
  int const type = record->iPixelType;
  if (type == kTypeShortComplex) {
    *bytes = 4;
    std::fprintf(stderr, "IMRtBytesPerPix %d: 16 bit complex data not supported.\n",
                 record->iStream);
    return 905;
  }
  if (!isKnownType(type)) {
    *bytes = 2;
    std::fprintf(stderr, "IMRtBytesPerPix %d: %d is an invalid pixel data type.\n", record->iStream,
                 type);
    return 503;
  }
  *bytes = kPixelTypes[type].bytes;
  return 0;
}

int IMRtBytesPerPixel(int iStream, int* bytes) {
  int const check = IMCheckStream(iStream, "IMRtBytesPerPixel");
  if (check != 0) return check;
  int ignored = 0;
  return iBytesPerPixelOf(gsStreams[iStream], bytes != nullptr ? bytes : &ignored);
}

int IMRtDataTypeDesc(int code, char* text, int maxLength) {
  bool const known = isKnownType(code);
  char const* description = known ? kPixelTypes[code].description : "unknown";
  if (text != nullptr && maxLength > 0) {
    std::strncpy(text, description, static_cast<std::size_t>(maxLength));
  }
  return known ? 0 : 503;
}

int IMRtDataTypeMinMax(int iStream, double* min, double* max) {
  int const check = IMCheckStream(iStream, "IMRtDataTypeMinMax");
  if (check != 0) return check;
  int const type = gsStreams[iStream]->iPixelType;
  if (type == kTypeShortComplex) {
    std::fprintf(stderr, "IMRtDataTypeMinMax %d: 16 bit complex data not supported.\n", iStream);
    return 905;
  }
  if (!isKnownType(type)) {
    std::fprintf(stderr, "IMRtDataTypeMinMax %d: %d is an invalid pixel data type.\n", iStream,
                 type);
    return 503;
  }
  if (min != nullptr) *min = kPixelTypes[type].min;
  if (max != nullptr) *max = kPixelTypes[type].max;
  return 0;
}

// ---------------------------------------------------------------------------
// Whole sections.

int IMRdSec(int iStream, void* buffer) {
  int const check = IMCheckStream(iStream, "IMRdSec");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  int pixels = 0;
  int const sizeCode = linePixels(record, record->iNumY, "IMRdSec", &pixels);
  if (sizeCode != 0) return sizeCode;
  iSwitchDirection(record, kLastOpRead);

  int const type = record->iPixelType;
  bool const magnitudes = type == kTypeFloatComplex && record->iConvert != 0;
  std::unique_ptr<float[]> pairs;
  void* destination = buffer;
  int toRead = pixels;
  if (magnitudes) {
    // A section the file can't hold is read as far as it goes and fails as
    // the short read it is, with no buffer sized by the header's claim.
    int64_t const left = iStreamBytesLeft(record);
    if (left >= 0 && left < int64_t{pixels} * record->iBytesPerPixel) {
      toRead = static_cast<int>(left / record->iBytesPerPixel) + 1;
    }
    pairs.reset(new (std::nothrow) float[static_cast<std::size_t>(toRead) * 2 + 1]);
    if (!pairs) {
      std::fprintf(stderr, "IMRdSec %d: unable to allocate memory.\n", iStream);
      return 902;
    }
    destination = pairs.get();
  }
  // A read that stops at the end of the file leaves errno alone: cleared
  // first, the reason printed is this read's, not an earlier call's on this
  // thread.
  errno = 0;
  int const got = iStreamFileRead(record, destination, record->iBytesPerPixel, toRead);
  if (got < pixels) {
    reportShortRead("IMRdSec", record, got, true, errno);
    return 212;
  }
  if (needsSwap(record) && !swapStoredPixels(type, destination, pixels)) {
    std::fprintf(stderr, "IMRdSec %d: byte swap failed\n", iStream);
    return 214;
  }
  record->iLastOp = kLastOpRead;
  if (record->iConvert == 0 || type >= kTypeDouble) return 0;
  if (isWidenedType(type)) widenInPlace(type, buffer, pixels, record->iBytesPerPixel);
  if (magnitudes) complexMagnitudes(pairs.get(), static_cast<float*>(buffer), pixels);
  return type == kTypeShortComplex ? 905 : 0;
}

int IMWrSec(int iStream, float const* buffer) {
  int const check = IMCheckStream(iStream, "IMWrSec");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  iSwitchDirection(record, kLastOpWrite);
  int pixels = 0;
  int const sizeCode = linePixels(record, record->iNumY, "IMWrSec", &pixels);
  if (sizeCode != 0) return sizeCode;

  int const type = record->iPixelType;
  ClampCounts counts;
  bool complete = true;
  if (record->iConvert == 0 || type == kTypeFloat || type == kTypeFloatComplex ||
      type == kTypeDouble) {
    complete = iStreamFileWrite(record, record->iBytesPerPixel, pixels, buffer) == pixels;
  } else if (static_cast<unsigned>(type) > kTypeDouble || type == kTypeNone) {
    complete = true;  // nothing is written, and that counts as success
  } else if (type == kTypeShortComplex) {
    return 905;
  } else {
    complete = writeConvertedChunks(record, buffer, pixels, counts);
  }
  if (!complete) {
    int const savedErrno = errno;
    std::fprintf(stderr, "IMWrSec %d: incorrect number of pixels written.\n", iStream);
    std::fprintf(stderr, "        %s\n", std::strerror(savedErrno));
    return 213;
  }
  reportTruncation("IMWrSec", iStream, counts);
  finishWrite(record);
  return 0;
}

// ---------------------------------------------------------------------------
// Lines and part lines.

int IMRdSecl(int iStream, void* buffer, int lines) {
  int const check = IMCheckStream(iStream, "IMRdSecl");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  int pixels = 0;
  int const sizeCode = linePixels(record, lines, "IMRdSecl", &pixels);
  if (sizeCode != 0) return sizeCode;
  iSwitchDirection(record, kLastOpRead);
  return readLinePixels(record, buffer, pixels, "IMRdSecl");
}

int IMRdLin(int iStream, void* buffer) {
  int const check = IMCheckStream(iStream, "IMRdLin");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  int pixels = 0;
  int const sizeCode = linePixels(record, 1, "IMRdLin", &pixels);
  if (sizeCode != 0) return sizeCode;
  iSwitchDirection(record, kLastOpRead);
  return readLinePixels(record, buffer, pixels, "IMRdLin");
}

int IMRdPal(int iStream, void* buffer, int first, int last) {
  int const check = IMCheckStream(iStream, "IMRdPal");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  if (first < 0 || last < first || last >= record->iNumX) {
    std::fprintf(stderr, "IMRdPal %d: invalid column range (%d to %d of %d).\n", iStream, first,
                 last, record->iNumX);
    return 302;
  }
  iSwitchDirection(record, kLastOpRead);
  if (!skipPixels(record, first)) {
    iPrintPositionError("IMRdPal", iStream);
    return 301;
  }
  int const result = readLinePixels(record, buffer, last - first + 1, "IMRdPal");
  if (result != 0 && result != 905) return result;
  if (last < record->iNumX - 1) {
    if (!skipPixels(record, record->iNumX - 1 - last)) {
      iPrintPositionError("IMRdPal", iStream);
      return 301;
    }
    record->iLastOp = kLastOpPositioned;
  }
  return result;
}

int IMWrSecl(int iStream, float const* buffer, int lines) {
  int const check = IMCheckStream(iStream, "IMWrSecl");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  int pixels = 0;
  int const sizeCode = linePixels(record, lines, "IMWrSecl", &pixels);
  if (sizeCode != 0) return sizeCode;
  iSwitchDirection(record, kLastOpWrite);
  return writeLinePixels<NarrowRule::kHalfUpByte>(record, buffer, pixels, "IMWrSecl");
}

int IMWrLin(int iStream, float const* buffer) {
  int const check = IMCheckStream(iStream, "IMWrLin");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  int pixels = 0;
  int const sizeCode = linePixels(record, 1, "IMWrLin", &pixels);
  if (sizeCode != 0) return sizeCode;
  iSwitchDirection(record, kLastOpWrite);
  return writeLinePixels<NarrowRule::kConvertThenClamp>(record, buffer, pixels, "IMWrLin");
}

int IMWrPal(int iStream) {
  std::fprintf(stderr, "IMWrPal %d: unsupported function.\n", iStream);
  return 904;
}

// ---------------------------------------------------------------------------
// Rectangles of the current section. The stream stands at the start of the
// section before the call and at the start of the next section after it.

int IMRdPas(int iStream, void* buffer, int mx, int my, int firstColumn, int lastColumn,
            int firstRow, int lastRow) {
  int const check = IMCheckStream(iStream, "IMRdPas");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  int const rectCode =
      checkRectangle(record, "IMRdPas", mx, my, firstColumn, lastColumn, firstRow, lastRow);
  if (rectCode != 0) return rectCode;
  iSwitchDirection(record, kLastOpRead);

  int const nx = record->iNumX;
  int const columns = lastColumn - firstColumn + 1;
  int const bpp = record->iBytesPerPixel;
  std::size_t const elementBytes = static_cast<std::size_t>(arrayElementBytes(record, true));
  std::vector<unsigned char> stored(static_cast<std::size_t>(columns) * bpp);
  unsigned char* const out = static_cast<unsigned char*>(buffer);
  int result = 0;
  if (!skipPixels(record, int64_t{firstRow} * nx + firstColumn)) {
    iPrintPositionError("IMRdPas", iStream);
    return 301;
  }
  for (int row = firstRow; row <= lastRow; ++row) {
    int const got = iStreamFileRead(record, stored.data(), bpp, columns);
    if (got < columns) {
      reportShortRead("IMRdPas", record, got, false, 0);
      std::fprintf(stderr, "           cols %d -> %d, rows %d -> %d\n", firstColumn, lastColumn,
                   firstRow, lastRow);
      return 212;
    }
    if (needsSwap(record) && !swapStoredPixels(record->iPixelType, stored.data(), columns)) {
      std::fprintf(stderr, "IMRdPas %d: byte swap failed\n", iStream);
      return 214;
    }
    std::size_t const rowStart = static_cast<std::size_t>(row - firstRow) * mx * elementBytes;
    result = deliverRow(record, stored.data(), out + rowStart, columns);
    int64_t const skip =
        row < lastRow ? nx - columns
                      : int64_t{nx - 1 - lastColumn} + int64_t{record->iNumY - 1 - lastRow} * nx;
    if (!skipPixels(record, skip)) {
      iPrintPositionError("IMRdPas", iStream);
      return 301;
    }
  }
  record->iLastOp = kLastOpPositioned;
  return result;
}

int IMWrPas(int iStream, float const* buffer, int mx, int my, int firstColumn, int lastColumn,
            int firstRow, int lastRow) {
  int const check = IMCheckStream(iStream, "IMWrPas");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iStreamType != kStreamTypeFile) return 0;
  int const rectCode =
      checkRectangle(record, "IMWrPas", mx, my, firstColumn, lastColumn, firstRow, lastRow);
  if (rectCode != 0) return rectCode;
  int const nx = record->iNumX;
  int const ny = record->iNumY;
  if (firstColumn == 0 && lastColumn == nx - 1 && firstRow == 0 && lastRow == ny - 1 && mx == nx &&
      my == ny) {
    return IMWrSec(iStream, buffer);
  }
  int const type = record->iPixelType;
  if (record->iConvert != 0 && type == kTypeShortComplex) return 905;
  iSwitchDirection(record, kLastOpWrite);

  int const columns = lastColumn - firstColumn + 1;
  int const bpp = record->iBytesPerPixel;
  bool const converts = record->iConvert != 0 && isClampedType(type);
  bool const writesNothing =
      record->iConvert != 0 && (static_cast<unsigned>(type) > kTypeDouble || type == kTypeNone);
  std::size_t const elementBytes = static_cast<std::size_t>(arrayElementBytes(record, false));
  std::vector<unsigned char> staging(static_cast<std::size_t>(columns) * bpp);
  unsigned char const* const in = reinterpret_cast<unsigned char const*>(buffer);
  ClampCounts counts;
  if (!skipPixels(record, int64_t{firstRow} * nx + firstColumn)) {
    iPrintPositionError("IMWrPas", iStream);
    return 301;
  }
  for (int row = firstRow; row <= lastRow; ++row) {
    unsigned char const* source = in + static_cast<std::size_t>(row - firstRow) * mx * elementBytes;
    int64_t skip = row < lastRow ? nx - columns
                                 : int64_t{nx - 1 - lastColumn} + int64_t{ny - 1 - lastRow} * nx;
    if (writesNothing) {
      skip += columns;
    } else {
      void const* rowBytes = source;
      if (converts) {
        std::vector<float> floats(static_cast<std::size_t>(columns));
        std::memcpy(floats.data(), source, floats.size() * sizeof(float));
        narrowToFileType<NarrowRule::kTruncate>(floats.data(), staging.data(), columns, type,
                                                counts);
        rowBytes = staging.data();
      }
      if (iStreamFileWrite(record, bpp, columns, rowBytes) < columns) {
        std::fprintf(stderr, "IMWrPas %d: incorrect number of pixels written.\n", iStream);
        return 213;
      }
    }
    if (!skipPixels(record, skip)) {
      iPrintPositionError("IMWrPas", iStream);
      return 301;
    }
  }
  if (iUsesBufferedHandle(record)) std::fflush(record->pFile);
  reportTruncation("IMWrPas", iStream, counts);
  record->iLastOp = kLastOpPositioned;
  return 0;
}
