// The stream table, opening and closing streams, the low-level file steps
// (read, write, seek, tell with the retry rule), the verbosity switches and
// the table of status texts.
//
// Not here: the header bytes (header.cpp), positioning arithmetic
// (section.cpp), pixels (pixels.cpp), the extended header (exthdr*.cpp).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "imsubs/internal.h"

IMStreamRecord* gsStreams[kMaxStreams + 1];
int giLibNeedsInit = 1;
int giVerboseMode = 0;
int giWinDisplayFlag = 1;
char cOpenMode[8];
IMIOBuffer gIOBuffer;

namespace {

constexpr double kLibVersion = 2.000011;
constexpr int kLibBuild = 11;
constexpr int kAttribMaxChars = 35;     // characters of the attribute kept
constexpr int kMaxIOTries = 11;         // system calls per unbuffered transfer
constexpr int kShortWindowNameMax = 4;  // names this short also set the window id
constexpr mode_t kNewFilePermission = 0644;
constexpr int kFileIDOffset = 96;

// Open modes chosen by the attribute.
constexpr int kOpenNew = 0;
constexpr int kOpenOld = 2;
constexpr int kOpenAppend = 3;
constexpr int kOpenReadOnly = 4;

struct AttribKeyword {
  char const* word;
  int openMode;
};
// Tested in this order; only the keyword's length is compared.
constexpr AttribKeyword kAttribKeywords[] = {
    {"new", kOpenNew}, {"scratch", kOpenNew},   {"ro", kOpenReadOnly},
    {"old", kOpenOld}, {"append", kOpenAppend},
};

struct ErrorText {
  unsigned int code;
  char const* text;
};
constexpr ErrorText kErrorTexts[] = {
    {0, "No error"},
    {1, "Invalid stream number"},
    {2, "Invalid file"},
    {3, "Internal stream numbering error"},
    {101, "Stream already open"},
    {102, "File not open"},
    {103, "File not opened yet"},
    {104, "Attempt to close an unopened stream"},
    {105, "File name is too long"},
    {106, "New file header error"},
    {110, "No streams are available"},
    {201, "Invalid stream attribute (use: new, old, append, ro, etc)"},
    {202, "Unable to find file"},
    {203, "Unable to find directory/folder"},
    {204, "Unable to obtain read/write access"},
    {205, "Unable to obtain read access"},
    {206, "Unable to open image file"},
    {207, "Unable to read image header"},
    {208, "Unable to read image header (2)"},
    {209, "Unable to write image header"},
    {210, "Unable to read extended header"},
    {211, "Unable to write extended header"},
    {212, "Incorrect byte count during read"},
    {213, "Incorrect byte count during write"},
    {214, "Unable to swap bytes"},
    {301, "Error positioning stream pointer"},
    {302, "Stream position out of X range"},
    {303, "Stream position out of Y range"},
    {304, "Stream position out of Z range"},
    {305, "Stream position out of W range"},
    {306, "Stream position out of T range"},
    {307, "Stream position out of S range"},
    {401, "Too many titles"},
    {402, "Too many image columns"},
    {403, "Too many image rows"},
    {404, "Too many wavelength channels"},
    {501, "Invalid number of wavelengths"},
    {502, "Invalid pixel size"},
    {503, "Invalid pixel type"},
    {504, "Invalid stream name"},
    {505, "Invalid image sequence"},
    {506, "Unrecognized image file ID"},
    {507, "Time-stamp not available from image header"},
    {511, "Invalid number of data bits per pixel"},
    {512, "Undefined number of data bits per pixel"},
    {601, "Invalid section number"},
    {602, "Invalid section number"},
    {603, "Invalid wavelength number"},
    {604, "Invalid ZWTP coordinate"},
    {605, "Wavelength number too large"},
    {701, "Invalid extended header field"},
    {702, "Invalid extended header type"},
    {703, "Invalid symmetry information"},
    {704, "Extended header size too small"},
    {705, "Image file has symmetry bytes"},
    {706, "Nonexistent extended header"},
    {707, "Extended header overrun"},
    {708, "Extended header type mismatch"},
    {720, "Insufficient field header space"},
    {721, "Invalid field name"},
    {722, "Invalid field type"},
    {723, "Invalid field size"},
    {724, "Invalid field size parameter"},
    {725, "Invalid field byte count"},
    {726, "Invalid field contents"},
    {727, "Invalid field header type"},
    {728, "Invalid field byte length"},
    {729, "Invalid field number"},
    {730, "Field header empty"},
    {731, "Field header not found"},
    {732, "Field header memory alloc problem"},
    {733, "Mismatched field contents"},
    {734, "NULL field argument"},
    {735, "Fields not supported in image windows"},
    {736, "Field name is too long"},
    {801, "Invalid window number"},
    {802, "Too many windows"},
    {803, "Unable to open window"},
    {804, "Window not open"},
    {805, "Unable to change window size"},
    {806, "Display scale not supported"},
    {807, "Unable to write to window"},
    {808, "Unable to read from window"},
    {809, "Invalid header from window"},
    {810, "Window doesn't exist"},
    {811, "Window already exists"},
    {812, "Invalid dislay scale values"},  // spelling is the settled text
    {901, "Memory error"},
    {902, "Memory allocation error"},
    {903, "Function not yet implemented"},
    {904, "Unsupported function"},
    {905, "16-bit complex numbers not supported"},
    {906, "Swapped file error"},
    {907, "Support for IEEE floating-point only"},
    {908, "Incompatible computer architecture"},
};

// The one-time initialisation of the first open.
void initLibrary() {
  if (giLibNeedsInit != 1) return;
  if (std::getenv("IMSUBS_VERBOSE") != nullptr) IMAlVerboseMode(1);
  std::memset(gsStreams, 0, sizeof(gsStreams));
  giLibNeedsInit = 0;
}

// Frees a record that failed to open and clears its slot. A file handle that
// is already open stays open, as designed: nothing refers to it any more.
void discardRecord(IMStreamRecord* record) {
  int const iStream = record->iStream;
  std::free(record->pName);
  std::free(record->pHeader);
  iFreeExtHdr(record);
  iFreeFieldArrays(record);
  std::free(record);
  gsStreams[iStream] = nullptr;
}

// The attribute lower-cased, cut at a NUL or blank, at most 35 characters.
std::string normaliseAttribute(char const* attrib) {
  std::string out;
  if (attrib == nullptr) return out;
  for (int i = 0; i < kAttribMaxChars && attrib[i] != '\0' && attrib[i] != ' '; ++i) {
    out += static_cast<char>(std::tolower(static_cast<unsigned char>(attrib[i])));
  }
  return out;
}

// The open mode of an attribute, or -1 when no keyword matches.
int classifyAttribute(std::string const& attrib) {
  for (AttribKeyword const& keyword : kAttribKeywords) {
    if (attrib.compare(0, std::strlen(keyword.word), keyword.word) == 0) return keyword.openMode;
  }
  return -1;
}

// "_unbuffered" selects 2, then "_buffered" selects 1, so "_buffered" wins.
int fileModeFromAttribute(std::string const& attrib) {
  int fileMode = kFileModeBuffered;
  if (attrib.find("_unbuffered") != std::string::npos) fileMode = kFileModeUnbuffered;
  if (attrib.find("_buffered") != std::string::npos) fileMode = kFileModeBuffered;
  return fileMode;
}

bool isSeparator(char c) {
  return c == '/' || c == '\\';
}

// The directory part of a name, empty when there is none. A trailing
// separator cuts just itself; otherwise the last separator from the second
// last to the second character cuts there. The part has no length limit.
std::string directoryPart(char const* name) {
  std::size_t const length = std::strlen(name);
  if (length <= 1) return std::string();
  if (isSeparator(name[length - 1])) return std::string(name, length - 1);
  for (std::size_t i = length - 2; i >= 1; --i) {
    if (isSeparator(name[i])) return std::string(name, i);
  }
  return std::string();
}

// Access test of step 9; 0 or the code of the refusal.
int testAccess(int iStream, int openMode, char const* name) {
  if (openMode == kOpenNew) {
    std::string const directory = directoryPart(name);
    if (directory.empty() || access(directory.c_str(), R_OK | W_OK) == 0) return 0;
    if (errno == EACCES) {
      std::fprintf(stderr, "IMOpen %d: unable to obtain read/write access to\n%s\n", iStream,
                   directory.c_str());
      return 204;
    }
    if (errno == ENOENT) {
      std::fprintf(stderr, "IMOpen %d: unable to find directory:\n        %s\n", iStream,
                   directory.c_str());
      return 203;
    }
    return 0;  // other errors are passed over by design
  }
  if (openMode == kOpenOld || openMode == kOpenAppend) {
    if (access(name, R_OK | W_OK) == 0) return 0;
    if (errno == EACCES) {
      std::fprintf(stderr, "IMOpen %d: unable to obtain read/write access to\n%s\n", iStream, name);
      return 204;
    }
    if (errno == ENOENT) {
      std::fprintf(stderr, "IMOpen %d: unable to find file\n%s\n", iStream, name);
      return 202;
    }
  }
  return 0;
}

bool openBuffered(IMStreamRecord* record, int openMode) {
  char const* mode = nullptr;
  switch (openMode) {
    case kOpenNew:
      mode = "wb+";
      break;
    case kOpenReadOnly:
      mode = "rb";
      break;
    case kOpenOld:
    case kOpenAppend:
      mode = "rb+";
      break;
    default:
      std::fprintf(stderr, "iCreateBufferedIOModeArgs: %d is an invalid open mode.\n", openMode);
      return false;
  }
  std::snprintf(cOpenMode, sizeof(cOpenMode), "%s", mode);
  record->pFile = fopen64(record->pName, cOpenMode);
  if (record->pFile == nullptr) return false;
  // A null buffer leaves the allocation to the C library, as designed.
  setvbuf(record->pFile, nullptr, _IOFBF, kBufferedIOSize);
  return true;
}

bool openUnbuffered(IMStreamRecord* record, int openMode) {
  int flags = 0;
  switch (openMode) {
    case kOpenNew:
      flags = O_CREAT | O_RDWR;
      break;
    case kOpenReadOnly:
      flags = O_RDONLY;
      break;
    case kOpenOld:
    case kOpenAppend:
      flags = O_RDWR;
      break;
    default:
      std::fprintf(stderr, "iCreateUnbufferedIOModeArgs: %d is an invalid open mode.\n", openMode);
      return false;
  }
  int const fd = open64(record->pName, flags, kNewFilePermission);
  // Descriptor 0 is refused: 0 means "closed" in the record.
  if (fd < 1) {
    if (fd == 0) close(fd);
    return false;
  }
  record->iFileDesc = fd;
  return true;
}

bool openFile(IMStreamRecord* record, int openMode) {
  switch (record->iFileMode) {
    case kFileModeBuffered:
      return openBuffered(record, openMode);
    case kFileModeUnbuffered:
      return openUnbuffered(record, openMode);
    case kFileModeCompressed:
      std::fprintf(stderr, "iStreamFileOpen: compressed IO not supported.\n");
      return false;
    default:
      return false;
  }
}

// Steps 3 and 4 of IMOpen: the record in the slot, fresh or reused.
IMStreamRecord* prepareRecord(int iStream, char const* name) {
  IMStreamRecord* record = gsStreams[iStream];
  if (record != nullptr) {
    std::fprintf(stderr, "[%d] IMOpen %d: stream (name %s) is already open. Continuing...\n",
                 static_cast<int>(getpid()), iStream, name != nullptr ? name : "");
    // The old file handle is neither closed nor flushed: the record just
    // gets a new one, as designed.
    record->pFile = nullptr;
    record->iFileDesc = 0;
    std::free(record->pName);
    record->pName = nullptr;
    std::free(record->pHeader);
    record->pHeader = nullptr;
    iFreeExtHdr(record);
    // The parsed fields belong to the old file's extended header, which is
    // gone; kept, they would pass for the new file's own.
    iFreeFieldArrays(record);
    record->iSwapped = 0;  // the byte order is the new file's
  } else {
    record = static_cast<IMStreamRecord*>(std::calloc(1, sizeof(IMStreamRecord)));
    if (record == nullptr) {
      std::fprintf(stderr, "IMOpen %d: memory allocation error.\n", iStream);
      return nullptr;
    }
    gsStreams[iStream] = record;
  }
  record->iStream = iStream;
  record->iConvert = 1;
  record->iFileMode = kFileModeBuffered;
  record->iExtHdrSize = 0;
  record->iExtHdrType = 0;
  record->pName = strdup(name != nullptr ? name : "");
  record->iStreamType = IMRtStreamTypeFromName(name, &record->iWinID);
  record->iWinDisplayFlag = record->iStreamType == kStreamTypeWindow ? 1 : giWinDisplayFlag;
  return record;
}

// Step 12 of IMOpen: a stream without a header image gets one, or fails.
int ensureHeader(IMStreamRecord* record, int openMode) {
  int const iStream = record->iStream;
  if (record->pHeader != nullptr) return 0;
  if (record->iStreamType == kStreamTypeWindow) {
    std::fprintf(stderr, "IMOpen %d: error getting header information from window.\n", iStream);
    return 809;
  }
  if (openMode != kOpenNew) {
    std::fprintf(stderr, "IMOpen %d: critical SW error. Header is NULL.\n", iStream);
    return 106;
  }
  record->pHeader = static_cast<unsigned char*>(std::calloc(1, kHeaderBytes));
  if (record->pHeader == nullptr) {
    std::fprintf(stderr, "IMOpen %d: memory allocation error.\n", iStream);
    return 902;
  }
  IMCrHdr3(iStream, 1, 1, 1, 1, 1, 1, 2, 6);
  // A new stream drops the default block while iExtHdrSize keeps its size, as
  // designed; the block is released rather than leaked.
  iFreeExtHdr(record);
  return 0;
}

// The unbuffered transfer loop: at most 11 system calls.
template <typename Transfer>
int transferWithRetries(int size, int count, Transfer transfer, char const* retryMessage) {
  int32_t const total =
      static_cast<int32_t>(static_cast<uint32_t>(size) * static_cast<uint32_t>(count));
  if (total < 1) return 0;
  int32_t done = 0;
  int tries = 0;
  while (done < total && tries < kMaxIOTries) {
    ssize_t const moved = transfer(done, total - done);
    ++tries;
    if (moved > 0) done += static_cast<int32_t>(moved);
  }
  int const elements = done / size;
  // Printed after an eleventh call even when it completed the transfer.
  if (tries > kMaxIOTries - 1) std::fprintf(stderr, retryMessage, tries, elements);
  return elements;
}

bool usesDescriptor(IMStreamRecord const* record) {
  return record->iFileMode != kFileModeNone && record->iFileMode != kFileModeCompressed &&
         !iUsesBufferedHandle(record) && record->iFileDesc > 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Helpers shared with the other files.

bool iUsesBufferedHandle(IMStreamRecord const* record) {
  return record->iFileMode == kFileModeBuffered && record->pFile != nullptr;
}

void iSwitchDirection(IMStreamRecord* record, int nextOp) {
  if (!iUsesBufferedHandle(record)) return;
  bool const readAfterWrite = nextOp == kLastOpRead && record->iLastOp == kLastOpWrite;
  bool const writeAfterRead = nextOp == kLastOpWrite && record->iLastOp == kLastOpRead;
  if (readAfterWrite || writeAfterRead) fseeko64(record->pFile, 0, SEEK_CUR);
}

void iPrintPositionError(char const* caller, int iStream) {
  std::fprintf(stderr, "%s %d: error positioning stream.\n", caller, iStream);
}

void iFreeFieldArrays(IMStreamRecord* record) {
  for (int i = 0; i < record->iNumFields; ++i) {
    if (record->ppFieldNames != nullptr) std::free(record->ppFieldNames[i]);
    if (record->ppFieldContents != nullptr) std::free(record->ppFieldContents[i]);
  }
  std::free(record->ppFieldNames);
  std::free(record->ppFieldContents);
  std::free(record->pFieldTypes);
  std::free(record->pFieldSizes);
  record->ppFieldNames = nullptr;
  record->ppFieldContents = nullptr;
  record->pFieldTypes = nullptr;
  record->pFieldSizes = nullptr;
  record->iNumFields = 0;
  record->iFieldBytesUsed = 0;
}

void iFreeExtHdr(IMStreamRecord* record) {
  std::free(record->pExtHdr);
  record->pExtHdr = nullptr;
  record->pExtInts = nullptr;
  record->pExtFloats = nullptr;
  record->pFieldSection = nullptr;
}

// ---------------------------------------------------------------------------
// Low-level file steps.

int iStreamFileRead(IMStreamRecord* record, void* buffer, int size, int count) {
  if (iUsesBufferedHandle(record)) {
    if (size < 1 || count < 1) return 0;
    return static_cast<int>(std::fread(buffer, static_cast<std::size_t>(size),
                                       static_cast<std::size_t>(count), record->pFile));
  }
  if (record->iFileMode == kFileModeCompressed) {
    std::fprintf(stderr, "iStreamFileRead: compressed IO not supported.\n");
    return 0;
  }
  // A stream forced to buffered mode without a handle (IMCrHdr3 on an
  // unbuffered stream) goes on through its descriptor.
  if (!usesDescriptor(record)) return 0;
  int const fd = record->iFileDesc;
  char* const bytes = static_cast<char*>(buffer);
  return transferWithRetries(
      size, count,
      [&](int32_t done, int32_t missing) {
        return read(fd, bytes + done, static_cast<std::size_t>(missing));
      },
      "iStreamFileRead: too many retries (%d), only %d elements read...\n");
}

int iStreamFileWrite(IMStreamRecord* record, int size, int count, void const* buffer) {
  if (iUsesBufferedHandle(record)) {
    if (size < 1 || count < 1) return 0;
    return static_cast<int>(std::fwrite(buffer, static_cast<std::size_t>(size),
                                        static_cast<std::size_t>(count), record->pFile));
  }
  if (record->iFileMode == kFileModeCompressed) {
    std::fprintf(stderr, "iStreamFileWrite: compressed IO is unsupported.\n");
    return 0;
  }
  if (!usesDescriptor(record)) return 0;
  int const fd = record->iFileDesc;
  char const* const bytes = static_cast<char const*>(buffer);
  return transferWithRetries(
      size, count,
      [&](int32_t done, int32_t missing) {
        return write(fd, bytes + done, static_cast<std::size_t>(missing));
      },
      "iStreamFileWrite: too many retries (%d), only %d elements written...\n");
}

int iStreamFileSeek(IMStreamRecord* record, int64_t offset, int whence) {
  if (iUsesBufferedHandle(record)) return fseeko64(record->pFile, offset, whence);
  if (record->iFileMode == kFileModeCompressed) {
    std::fprintf(stderr, "iStreamFileSeek: compressed IO not supported.\n");
    return -1;
  }
  if (!usesDescriptor(record)) return -1;
  return lseek64(record->iFileDesc, offset, whence) < 0 ? -1 : 0;
}

double dStreamFileTell(IMStreamRecord* record) {
  if (iUsesBufferedHandle(record)) return static_cast<double>(ftello64(record->pFile));
  if (record->iFileMode == kFileModeCompressed) {
    std::fprintf(stderr, "dStreamFileTell: compressed IO not supported.\n");
    return -1.0;
  }
  if (!usesDescriptor(record)) return -1.0;
  return static_cast<double>(lseek64(record->iFileDesc, 0, SEEK_CUR));
}

int64_t iStreamBytesLeft(IMStreamRecord* record) {
  double const here = dStreamFileTell(record);
  if (here < 0.0 || iStreamFileSeek(record, 0, SEEK_END) < 0) return -1;
  double const end = dStreamFileTell(record);
  if (iStreamFileSeek(record, static_cast<int64_t>(here), SEEK_SET) < 0 || end < 0.0) return -1;
  return std::max<int64_t>(0, static_cast<int64_t>(end - here));
}

int iStreamFileEOF(IMStreamRecord* record) {
  if (iUsesBufferedHandle(record)) return std::feof(record->pFile) != 0 ? 1 : 0;
  if (record->iFileMode == kFileModeNone || record->iFileMode == kFileModeCompressed) return 0;
  std::fprintf(stderr, "iStreamFileEOF() is unavailable with unbuffered file IO.\n");
  return 0;
}

// ---------------------------------------------------------------------------
// Public stream calls.

int IMCheckStream(int iStream, char const* caller) {
  if (iStream < 1 || iStream > kMaxStreams) {
    std::fprintf(stderr, "%s %d: invalid stream number.\n", caller, iStream);
    return 1;
  }
  IMStreamRecord const* record = gsStreams[iStream];
  if (record == nullptr || record->iStream != iStream) {
    std::fprintf(stderr, "%s %d: internal stream numbering error.\n", caller, iStream);
    return 3;
  }
  return 0;
}

int IMRtStreamTypeFromName(char const* name, int* winId) {
  if (name == nullptr || name[0] == '\0') {
    std::fprintf(stderr, "IMRtStreamTypeFromName: invalid stream name.\n");
    return 504;
  }
  if (std::strlen(name) <= kShortWindowNameMax && name[0] != '0' && winId != nullptr) *winId = 0;
  return kStreamTypeFile;
}

int IMRtMaxNumStreams() {
  return kMaxStreams;
}

int IMOpen(int iStream, char const* name, char const* attrib) {
  initLibrary();
  if (iStream < 1 || iStream > kMaxStreams) {
    std::fprintf(stderr, "IMOpen %d: invalid stream number.\n", iStream);
    return 1;
  }
  IMStreamRecord* record = prepareRecord(iStream, name);
  if (record == nullptr) return 902;

  std::string const attribute = normaliseAttribute(attrib);
  int const openMode = classifyAttribute(attribute);
  if (openMode < 0) {
    std::fprintf(stderr, "IMOpen %d: %s is an invalid stream attribute.\n", iStream,
                 attribute.c_str());
    discardRecord(record);
    return 201;
  }
  record->iFileMode = fileModeFromAttribute(attribute);

  if (record->iStreamType == kStreamTypeFile) {
    int const accessCode = testAccess(iStream, openMode, record->pName);
    if (accessCode != 0) {
      discardRecord(record);
      return accessCode;
    }
    if (!openFile(record, openMode)) {
      std::fprintf(stderr, "IMOpen %d: unable to open file\n%s.\n", iStream, record->pName);
      discardRecord(record);
      return 206;
    }
  }

  if (openMode != kOpenNew) {
    int const readCode = IMRdHdr2(iStream);
    if (readCode != 0) {
      discardRecord(record);
      return readCode;
    }
  }

  int const headerCode = ensureHeader(record, openMode);
  if (headerCode == 106) return headerCode;  // the record stays in the table, as designed
  if (headerCode != 0) {
    discardRecord(record);
    return headerCode;
  }

  int result = 0;
  if (record->iExtHdrSize >= 1 && openMode != kOpenNew) {
    result = iLoadExtHdr(record, attribute.c_str());
    if (result != 0 && result != 210) return result;
  } else {
    iFreeExtHdr(record);
  }

  if (openMode == kOpenAppend) {
    IMPosn(iStream, record->iNumSecs - 1, 0);
  } else {
    IMPosn(iStream, 0, 0);
  }
  record->iLastOp = kLastOpPositioned;
  return result;
}

int IMOpen2(int* iStream, char const* name, char const* attrib) {
  initLibrary();
  if (iStream == nullptr) return 1;
  *iStream = 0;
  for (int candidate = kMaxStreams; candidate >= 1; --candidate) {
    if (gsStreams[candidate] == nullptr) {
      *iStream = candidate;
      return IMOpen(candidate, name, attrib);
    }
  }
  std::fprintf(stderr, "IMOpen2: no available streams. Max allowed is %d.\n", kMaxStreams);
  return 110;
}

int IMClose(int iStream) {
  int const check = IMCheckStream(iStream, "IMClose");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record == nullptr) return 104;
  std::free(record->pName);
  record->pName = nullptr;
  if (record->iStreamType == kStreamTypeFile) {
    // The results of fclose and close are not examined, by design.
    if (record->iFileMode == kFileModeCompressed) {
      std::fprintf(stderr, "iStreamFileClose: compressed IO not supported.\n");
      std::fprintf(stderr, "iStreamFileClose %d: an unopened file was requested to be closed.\n",
                   iStream);
    } else if (record->pFile != nullptr) {
      std::fclose(record->pFile);
      record->pFile = nullptr;
    } else if (record->iFileDesc > 0) {
      close(record->iFileDesc);
      record->iFileDesc = 0;
    } else {
      std::fprintf(stderr, "iStreamFileClose %d: an unopened file was requested to be closed.\n",
                   iStream);
    }
  }
  std::free(record->pHeader);
  record->pHeader = nullptr;
  iFreeExtHdr(record);
  iFreeFieldArrays(record);
  std::free(record);
  gsStreams[iStream] = nullptr;
  return 0;
}

int IMFileSync(int iStream) {
  int const check = IMCheckStream(iStream, "IMFileSync");
  if (check != 0) return check;
  IMStreamRecord* record = gsStreams[iStream];
  if (record->pFile == nullptr) return 1;
  int const fd = fileno(record->pFile);
  if (fd < 1) return 0;
  fdatasync(fd);
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  return 0;
}

int IMCheckFile(char const* path) {
  FILE* file = path != nullptr ? fopen64(path, "rb") : nullptr;
  if (file == nullptr) {
    if (path != nullptr && access(path, R_OK) == 0) return 206;
    if (errno == ENOENT) return 202;
    if (errno == EACCES) return 205;
    return 206;
  }
  int16_t id = 0;
  bool const haveId =
      fseeko64(file, kFileIDOffset, SEEK_SET) == 0 && std::fread(&id, sizeof(id), 1, file) == 1;
  std::fclose(file);
  int16_t const swappedId =
      static_cast<int16_t>(static_cast<uint16_t>((static_cast<uint16_t>(kFileIDHostOrder) >> 8) |
                                                 (static_cast<uint16_t>(kFileIDHostOrder) << 8)));
  if (haveId && (id == kFileIDHostOrder || id == swappedId)) return 0;
  return 506;
}

int IMRtHeaderID(char const* path) {
  FILE* file = path != nullptr ? fopen64(path, "rb") : nullptr;
  if (file == nullptr) return -1;
  int16_t id = 0;
  int result = -2;
  // A file too short to hold the id counts like a failed seek.
  if (fseeko64(file, kFileIDOffset, SEEK_SET) == 0 && std::fread(&id, sizeof(id), 1, file) == 1) {
    result = id;
  }
  std::fclose(file);
  return result;
}

char const* IMRtErrText(unsigned int code) {
  for (ErrorText const& entry : kErrorTexts) {
    if (entry.code == code) return entry.text;
  }
  return "Unspecified error";
}

double IMRtLibVersion() {
  return kLibVersion;
}

int IMRtLibBuild() {
  return kLibBuild;
}

int IMAlPrt(int level) {
  giVerboseMode = level;
  return 0;
}

int IMAlVerboseMode(int /*flag*/) {
  // Changes nothing whatever the flag: only IMAlPrt sets the verbosity.
  std::printf("IMAlVerboseMode: verbose mode is always on.\n");
  return 0;
}
