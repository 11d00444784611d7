// Sizing, creating and loading the extended header block: the steps that the
// header and open paths need. The per-section record and value calls and the
// copies between streams live with the rest of the extended header.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "imsubs/internal.h"

namespace {

constexpr int kFieldSectionMinBytes = 6;  // smaller room holds no field section
constexpr int kDefaultFieldBlocks = 4;
constexpr int kDefaultExtHdrType = 4;
// How far a stored block may fall short of its claimed size and still be
// allocated whole, so that the records it does hold stay readable. A claim
// beyond that is a damaged or hostile header: it gets no block at all, and
// memory stays bounded by what the file holds.
constexpr int64_t kMaxExtHdrShortfall = int64_t{1} << 20;
constexpr int kMaxExtHdrType = 4;

struct ExtHdrShape {
  int ints;
  int floats;
};
// Integers and floats per section, by extended header type.
constexpr ExtHdrShape kExtHdrShapes[kMaxExtHdrType + 1] = {
    {0, 0}, {1, 1}, {0, 2}, {8, 32}, {8, 32},
};

// Bytes of the per-section records: 4 * iNumSecs * (ints + floats).
int64_t recordBytes(IMStreamRecord const* record) {
  return 4 * int64_t{record->iNumSecs} * (int64_t{record->iNumExtInts} + record->iNumExtFloats);
}

// Points the three views and the field pointer at a fresh zeroed block.
bool allocateBlock(IMStreamRecord* record, int size) {
  iFreeExtHdr(record);
  char* block = static_cast<char*>(std::calloc(static_cast<std::size_t>(size), 1));
  if (block == nullptr) return false;
  record->pExtHdr = block;
  record->pExtInts = reinterpret_cast<int*>(block);
  record->pExtFloats = reinterpret_cast<float*>(block);
  record->pFieldSection = cGetFieldSectionPtr(record->iStream);
  return true;
}

// Bytes the file holds from the end of the fixed header on, or -1 when the
// file can't tell. Leaves the position at the end, where a short read of the
// block would have left it.
int64_t bytesAfterHeader(IMStreamRecord* record) {
  if (iStreamFileSeek(record, 0, SEEK_END) < 0) return -1;
  double const end = dStreamFileTell(record);
  if (end < 0.0) return -1;
  return std::max<int64_t>(0, static_cast<int64_t>(end) - kHeaderBytes);
}

void reportShortExtHdr(IMStreamRecord const* record, int got, char const* attrib) {
  std::fprintf(stderr, "IMOpen %d: error reading extended header (%d,%d,%s,\"%s\").\n",
               record->iStream, got, record->iExtHdrSize, attrib, record->pName);
}

}  // namespace

char* cGetFieldSectionPtr(int iStream) {
  if (IMCheckStream(iStream, "cGetFieldSectionPtr") != 0) return nullptr;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->pExtHdr == nullptr) return nullptr;
  int64_t const offset = recordBytes(record);
  if (offset <= 0 || offset > int64_t{record->iExtHdrSize} - kFieldSectionMinBytes) return nullptr;
  return record->pExtHdr + offset;
}

int iCalcFieldBytesMax(IMStreamRecord* record) {
  int64_t const room = int64_t{record->iExtHdrSize} - 1 - recordBytes(record);
  record->iFieldBytesMax = room < kFieldSectionMinBytes ? 0 : static_cast<int>(room);
  return record->iFieldBytesMax;
}

int iLoadExtHdr(IMStreamRecord* record, char const* attrib) {
  int const iStream = record->iStream;
  int const size = record->iExtHdrSize;
  assert(size >= 1);
  if (record->iStreamType == kStreamTypeFile) {
    // The read of a block the file can't hold would be short anyway: report
    // it as such before allocating the claimed size, not after.
    int64_t const present = bytesAfterHeader(record);
    if (present >= 0 && size - present > kMaxExtHdrShortfall) {
      iFreeExtHdr(record);
      reportShortExtHdr(record, static_cast<int>(present), attrib);
      return 210;
    }
  }
  if (!allocateBlock(record, size)) {
    std::fprintf(stderr, "IMOpen %d: extended header memory allocation error.\n", iStream);
    return 902;
  }
  int result = 0;
  if (record->iStreamType == kStreamTypeFile) {
    if (iStreamFileSeek(record, kHeaderBytes, SEEK_SET) < 0) {
      iPrintPositionError("IMOpen", iStream);
      return 301;
    }
    int const got = iStreamFileRead(record, record->pExtHdr, 1, size);
    if (got < size) {
      reportShortExtHdr(record, got, attrib);
      result = 210;  // kept while loading goes on
    }
  }
  if (record->iSwapped != 0) {
    // Only the per-section words; the field text stays as stored. A header
    // claiming more words than the block holds is cut at the block's end.
    int64_t const words = std::min<int64_t>(recordBytes(record), size) / 4;
    if (words > 0) iSwapUnits(record->pExtHdr, static_cast<std::size_t>(words), 4);
  }
  iReadAllFields(iStream, nullptr);  // a broken field section costs only the fields
  return result;
}

int IMAlExHdrSize2(int iStream, int ints, int floats, int sections, int blocks) {
  int const check = IMCheckStream(iStream, "IMAlExHdrSize2");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  record->iNumExtInts = ints;
  record->iNumExtFloats = floats;
  if (record->iNumSecs > sections) {
    std::fprintf(stderr,
                 "IMAlExHdrSize2 %d: requested number of sections is less than current image "
                 "size (%d < %d).\n",
                 iStream, sections, record->iNumSecs);
    sections = record->iNumSecs;
  }
  if (sections < 1) sections = 1;
  if (blocks < 0) blocks = 0;
  // Negative counts give no record bytes rather than a negative size.
  int64_t const bytes = std::max<int64_t>(0, 4 * (int64_t{ints} + floats) * sections);
  int64_t const size =
      int64_t{kExtHdrBlockBytes} * ((bytes + kExtHdrBlockBytes - 1) / kExtHdrBlockBytes + blocks);
  if (size > INT32_MAX) {
    std::fprintf(stderr, "IMAlExHdrSize2 %d: extended header memory allocation error.\n", iStream);
    return 902;
  }
  record->iExtHdrSize = static_cast<int>(size);
  if (size > 0) {
    if (!allocateBlock(record, record->iExtHdrSize)) {
      std::fprintf(stderr, "IMAlExHdrSize2 %d: extended header memory allocation error.\n",
                   iStream);
      return 902;
    }
  }
  iCalcFieldBytesMax(record);
  IMPosn(iStream, 0, 0);
  return 0;
}

int IMCrExHdr(int iStream, int type, int blocks) {
  int const check = IMCheckStream(iStream, "IMCrExHdr");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->iNumSecs < 1) {
    std::fprintf(stderr, "IMCrExHdr %d: invalid number of image sections (%d)...\n", iStream,
                 record->iNumSecs);
    return 510;
  }
  if (blocks < 0) {
    if (blocks != -1) {
      std::fprintf(stderr, "IMCrExHdr %d: invalid number of field blocks (%d). Setting to %d...\n",
                   iStream, blocks, kDefaultFieldBlocks);
    }
    blocks = kDefaultFieldBlocks;
  }
  if (type < 1) type = kDefaultExtHdrType;
  if (type > kMaxExtHdrType) {
    std::fprintf(stderr, "IMCrExHdr %d: invalid ext header type (%d).\n", iStream, type);
    return 702;
  }
  ExtHdrShape const shape = kExtHdrShapes[type];
  int const result = IMAlExHdrSize2(iStream, shape.ints, shape.floats, record->iNumSecs, blocks);
  if (result == 0) record->iExtHdrType = type;
  return result;
}
