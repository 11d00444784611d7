// Internals of the image stream library, shared by its source files only.
//
// Holds the stream record, the process-wide table and buffers, the byte
// offsets of the 1024-byte header image with typed views on it, and the
// internal `i...` helpers. Callers outside imsubs/ include imsubs/imsubs.h.
//
// Ownership: every owned pointer of a record (pName, pHeader, pExtHdr and the
// named field arrays) comes from malloc/calloc/realloc and is released with
// free. The record itself is calloc'ed at open and freed at close.
#pragma once

#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "imsubs/imsubs.h"

// ---------------------------------------------------------------------------
// Limits and sizes.

constexpr int kMaxStreams = 10000;                // highest stream number
constexpr int kHeaderBytes = 1024;                // fixed header at the start of a file
constexpr int kIOBuffBytes = 131072;              // staging buffer of converting writes
constexpr int kMaxTitles = 10;                    // titles the narrow layout holds
constexpr int kTitleBytes = 80;                   // bytes per title, the last one NUL
constexpr int kMaxWaves = 12;                     // wavelengths the wide layout holds
constexpr int kNarrowMaxWaves = 5;                // wavelengths the narrow layout holds
constexpr int kWideMaxTitles = 4;                 // titles the wide layout holds
constexpr int kWideImageTypeAbove = 99;           // image types above this use the wide layout
constexpr std::size_t kBufferedIOSize = 2097160;  // requested stdio buffer size
constexpr int16_t kFileIDHostOrder = -16224;      // 0xC0A0 read in host order
constexpr int kExtHdrBlockBytes = 1024;           // extended header sizing unit

// iFileMode values.
constexpr int kFileModeNone = 0;
constexpr int kFileModeBuffered = 1;
constexpr int kFileModeUnbuffered = 2;
constexpr int kFileModeCompressed = 3;

// iLastOp values.
constexpr int kLastOpRead = 1;
constexpr int kLastOpWrite = 2;
constexpr int kLastOpPositioned = 3;

// iStreamType values.
constexpr int kStreamTypeWindow = 0;
constexpr int kStreamTypeFile = 1;

// ---------------------------------------------------------------------------
// The stream record: all that the library knows of one open stream.
// Field order and names are fixed by design; integers are 32-bit signed.

struct IMStreamRecord {
  int iStream;      // this stream's number, equal to its table index
  int iStreamType;  // 1 file, 0 image window (never produced here)
  int iWinID;       // window number, 0 for files
  int iPosX, iPosY, iPosZ, iPosW, iPosT, iPosP, iPosSec;  // window cursor only
  int iFileMode;  // 1 buffered, 2 unbuffered, 3 compressed (refused), 0/4 none
  FILE* pFile;    // buffered handle, non-null while open buffered
  int iFileDesc;  // unbuffered descriptor, 0 when closed
  int iLastOp;    // 1 read, 2 write, 3 positioned
  char* pName;    // owned copy of the name given to IMOpen
  int iConvert;   // 1: section calls convert pixels to and from floats
  int iWinDisplayFlag;
  int iSwapped;  // 1 when the file's byte order is the opposite of the host's

  // Decoded header.
  int iFileType;
  int iFileID;
  int iPixelType;
  unsigned char cDataBits;
  int iBytesPerPixel;
  int iNumSecs;
  int iStartCol, iStartRow, iStartSec;
  int iNumX, iNumY, iNumZ, iNumW, iNumT, iNumP;
  float fSampling[3];
  int iImageSequence;
  int iLensID;
  int iAxisMap[3];
  float fPixelSize[3];
  float fTilt[3];
  float fCellAngle[3];
  float fOrigin[3];
  float fCellSize[3];
  int iSpaceGroup;

  // Extended header. pExtInts and pExtFloats hold the same address as
  // pExtHdr, so words are indexed over the whole block with one index.
  int iExtHdrSize;
  int iExtHdrType;
  int iNumExtInts;
  int iNumExtFloats;
  char* pExtHdr;
  int* pExtInts;
  float* pExtFloats;
  char* pFieldSection;  // start of the named field text inside pExtHdr, or null

  // Named field store.
  int iFieldBytesUsed;
  int iFieldBytesMax;
  int iNumFields;
  char** ppFieldNames;
  char** ppFieldContents;
  char* pFieldTypes;
  int* pFieldSizes;

  // Decoded header, continued.
  int iNumSubRes;
  float fReductionFactor;
  float fMins[kMaxWaves];
  float fMaxs[kMaxWaves];
  float fMeans[kMaxWaves];
  float fWaves[kMaxWaves];
  float fDisplayScale[kMaxWaves][4];
  double dTimeStamp;
  int iDataVal1, iDataVal2;
  float fDataVal3, fDataVal4;
  int iMaxTitles;
  int iMaxWaves;
  int iNumTitles;
  char cTitles[kMaxTitles][kTitleBytes];

  unsigned char* pHeader;  // this stream's own 1024-byte header image
};

// ---------------------------------------------------------------------------
// Process-wide state. The library is not reentrant.

extern IMStreamRecord* gsStreams[kMaxStreams + 1];  // slot 0 never used
extern int giLibNeedsInit;                          // 1 until the first open
extern int giVerboseMode;                           // set only by IMAlPrt
extern int giWinDisplayFlag;                        // copied into new streams
extern char cOpenMode[8];                           // buffered open mode scratch

// The one header image on which every decode and encode works.
extern unsigned char gcHeader[kHeaderBytes];

// The staging buffer of converting writes, with its typed views.
union IMIOBuffer {
  unsigned char gcIOBuff[kIOBuffBytes];
  int16_t gnIOBuff[kIOBuffBytes / 2];
  uint16_t gwIOBuff[kIOBuffBytes / 2];
  int32_t giIOBuff[kIOBuffBytes / 4];
};
extern IMIOBuffer gIOBuffer;

// The record of a stream number without any check; null for a free slot or a
// number out of range. For the families that skip IMCheckStream by design.
inline IMStreamRecord* iRecord(int iStream) {
  if (iStream < 1 || iStream > kMaxStreams) return nullptr;
  return gsStreams[iStream];
}

// ---------------------------------------------------------------------------
// Byte offsets of the header fields in a 1024-byte header image. The names
// are those of the on-disk record.

namespace hdroff {
constexpr int giNumX = 0;
constexpr int giNumY = 4;
constexpr int giNumSecs = 8;
constexpr int giPixDataType = 12;
constexpr int giStartCol = 16;
constexpr int giStartRow = 20;
constexpr int giStartSec = 24;
constexpr int giXYZSampling = 28;  // 3 x int32
constexpr int gfCellWidth = 40;
constexpr int gfCellHeight = 44;
constexpr int gfCellDepth = 48;
constexpr int gfAxisAngleX = 52;
constexpr int gfAxisAngleY = 56;
constexpr int gfAxisAngleZ = 60;
constexpr int giAxisSequenceMap = 64;  // 3 x int32
constexpr int giSpaceGroupNum = 88;
constexpr int giExtHdrSize = 92;
constexpr int gnImageFileID = 96;
constexpr int gwExtHdrType = 100;
constexpr int gnNumExtHdrInts = 128;
constexpr int gnNumExtHdrFloats = 130;
constexpr int gnNumSubResImages = 132;
constexpr int gnReductionFactor = 134;
constexpr int gnImageFileType = 160;
constexpr int gwLensID = 162;
constexpr int gnDataVal1 = 164;
constexpr int gnDataVal2 = 166;
constexpr int gnDataVal3 = 168;
constexpr int gnDataVal4 = 170;
constexpr int gwNumTimes = 180;
constexpr int gnImageSequence = 182;
constexpr int gfTiltAngleX = 184;
constexpr int gfTiltAngleY = 188;
constexpr int gfTiltAngleZ = 192;
constexpr int gwNumWaves = 196;
constexpr int gfOriginCoordZ = 208;
constexpr int gfOriginCoordX = 212;
constexpr int gfOriginCoordY = 216;
constexpr int gnNumTitles = 222;
constexpr int gcTitles = 224;
// Wide layout only (image type above 99).
constexpr int gfDisplayScale = 700;  // 12 x 3 floats
constexpr int gdTimeStamp = 844;     // 8-byte float, not aligned
constexpr int guNumTimes = 852;
constexpr int gcDataBitsPerPixel = 856;
constexpr int giNumP = 880;
}  // namespace hdroff

// Offsets of the per-wavelength statistics and wavelength of index w
// (0 <= w < 12); the table of the two layouts lives in header.cpp.
int iHdrOffMin(int w);
int iHdrOffMax(int w);
int iHdrOffMean(int w);
int iHdrOffWave(int w);

// Typed views on gcHeader, in host order, safe at any alignment.
template <typename T>
inline T iHdrGet(int offset) {
  T value;
  std::memcpy(&value, gcHeader + offset, sizeof(T));
  return value;
}
template <typename T>
inline void iHdrPut(int offset, T value) {
  std::memcpy(gcHeader + offset, &value, sizeof(T));
}

// ---------------------------------------------------------------------------
// File access (stream.cpp). Each works on whichever handle the record holds.

// Reads `count` elements of `size` bytes; returns the whole elements read.
int iStreamFileRead(IMStreamRecord* record, void* buffer, int size, int count);
// Writes `count` elements of `size` bytes; returns the whole elements written.
int iStreamFileWrite(IMStreamRecord* record, int size, int count, void const* buffer);
// Seeks like fseeko64/lseek; a negative result is failure.
int iStreamFileSeek(IMStreamRecord* record, int64_t offset, int whence);
// The file position, -1.0 on failure.
double dStreamFileTell(IMStreamRecord* record);
// Bytes from the file position to the end of the file, or -1 when the file
// can't tell; the position is kept. Lets a caller refuse to allocate for a
// transfer that the file can't satisfy.
int64_t iStreamBytesLeft(IMStreamRecord* record);
// End-of-file indication of a buffered stream, else 0.
int iStreamFileEOF(IMStreamRecord* record);
// True when transfers go through the record's stdio handle.
bool iUsesBufferedHandle(IMStreamRecord const* record);
// Lets a buffered handle change direction (read after write or the reverse).
void iSwitchDirection(IMStreamRecord* record, int nextOp);
// Prints "%s %d: error positioning stream.\n".
void iPrintPositionError(char const* caller, int iStream);
// Releases the named field arrays of a record and zeroes their count.
void iFreeFieldArrays(IMStreamRecord* record);
// Releases the extended header block and clears its four pointers.
void iFreeExtHdr(IMStreamRecord* record);

// ---------------------------------------------------------------------------
// Header (header.cpp).

// Decode pHeader into the record through gcHeader, swapping a foreign-order
// image in place first. Always 0.
int iTransferHeaderToStructure(IMStreamRecord* record);
// Encode the record into gcHeader, then copy it into pHeader (allocated when
// missing). Always 0.
int iTransferStructureToHeader(IMStreamRecord* record);
// Swaps a 1024-byte header image in place by the fixed swap table.
void iSwapHeaderImage(unsigned char* image);

// Byte reversal of `count` units of 2, 4 or 8 bytes, in place.
void iSwapUnits(void* data, std::size_t count, int unitBytes);

// Bytes per pixel of the record's pixel type with the messages of
// IMRtBytesPerPixel; 0, 905 or 503.
int iBytesPerPixelOf(IMStreamRecord const* record, int* bytes);

// Truncation of a double to a 32-bit integer as the hardware does it: a
// value out of range, or NaN, gives INT32_MIN. Never undefined.
int32_t iTruncToInt32(double value);

// ---------------------------------------------------------------------------
// Extended header and named fields.

// Start of the field section inside pExtHdr, or null (exthdr_size.cpp).
char* cGetFieldSectionPtr(int iStream);
// Recomputes, stores and returns iFieldBytesMax (exthdr_size.cpp).
int iCalcFieldBytesMax(IMStreamRecord* record);
// Loads the extended header at open: step 13 of IMOpen (exthdr_size.cpp).
// `attrib` is the lower-cased attribute, for the message of a short read.
int iLoadExtHdr(IMStreamRecord* record, char const* attrib);

// Field store seams (fields.cpp, owned by the named field store):
// parses the field section into the arrays; the argument is unused.
int iReadAllFields(int iStream, void* unused);
// Rebuilds the field section from the arrays before the block is written;
// called by IMWrHdr2 only when iNumFields is above 0.
int iWriteAllFields(IMStreamRecord* record);

// ===========================================================================
// Attributes, extended header records and named fields.

// The record of a stream that passes IMCheckStream under `caller`'s name;
// null, with the check's code in *code, when it is refused.
IMStreamRecord* iCheckedRecord(int iStream, char const* caller, int* code);

// Integers and floats per section of an extended header type from 0 to 4;
// false for any other type (extended_header.cpp).
bool iExtHdrShape(int type, int* ints, int* floats);

// Replaces the extended header block by `size` zeroed bytes and points the
// views, the field section and iFieldBytesMax at it. On allocation failure
// the four pointers are cleared and 902 returned; no message.
int iReplaceExtHdrBlock(IMStreamRecord* record, int size);

// Reports that `caller` could not allocate the extended header block of
// stream `iStream`, and returns its status 902 (extended_header.cpp).
int iExtHdrNoMemory(char const* caller, int iStream);

// The one store step of the named field store: replaces the field of that
// exact name or adds it; 720 (the field kept) when the fields no longer fit,
// 1 for a null record (fields.cpp).
int iReplaceOrAddCharField(IMStreamRecord* record, char const* name, char const* value, char type,
                           int size);

// Window stubs of the header transfer; always 0.
int iTransferWinPositionToStructure(IMStreamRecord* record);
int iTransferStructureToWinHeader(IMStreamRecord* record);
