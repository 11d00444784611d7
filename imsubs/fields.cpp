// Named field store: a small dictionary of typed fields kept as text in the
// field section, the part of the extended header behind the per-section
// records. IMOpen parses the section into the record's arrays
// (iReadAllFields); IMWrHdr2 rebuilds it from them (iWriteAllFields); the
// set and get calls work on the arrays in between.
//
// Section format, per field with no gap: name "," letter "," size "=" value
// line-feed; after the last field one carriage return, then zeros. The end of
// the data is found from the back, so a carriage return inside a value does
// no harm. A broken section costs the fields and nothing else.
#include <strings.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>

#include "imsubs/internal.h"

namespace {

constexpr unsigned char kSectionEnd = 13;  // carriage return after the last field
constexpr unsigned char kFieldEnd = 10;    // line feed after each value
constexpr int kMinEndIndex = 6;            // a terminator before this holds no field
constexpr int kMinHdrTextEnd = 5;          // IMRtFieldHdr's own, laxer, bound
constexpr int kNameChars = 64;             // a name this long is refused; one more is invalid
constexpr int kSizeChars = 64;             // the same for the size text
constexpr int kNumberTextBytes = 64;       // room for a number printed as a field value
constexpr int kFieldOverhead = 5;          // two commas, "=", line feed and the type letter
constexpr int kMinUsefulSpace = 6;

int digitsOf(int size) {
  char text[16];
  return std::snprintf(text, sizeof text, "%d", size);
}

// Bytes the rule counts for a field: name, size digits, 5, size.
int64_t countedBytes(char const* name, int size) {
  return static_cast<int64_t>(std::strlen(name)) + digitsOf(size) + kFieldOverhead + size;
}

// Bytes a rebuild actually writes for a field; a negative size writes no value.
int64_t writtenBytes(char const* name, int size) {
  return countedBytes(name, size) - size + std::max(size, 0);
}

// iFieldBytesUsed: 1 (the terminator) plus every field, or 0 with none.
int computeBytesUsed(IMStreamRecord const* r) {
  if (r->iNumFields <= 0) return 0;
  int64_t total = 1;
  for (int i = 0; i < r->iNumFields; ++i)
    if (r->ppFieldNames[i] != nullptr) total += countedBytes(r->ppFieldNames[i], r->pFieldSizes[i]);
  return static_cast<int>(std::clamp<int64_t>(total, INT32_MIN, INT32_MAX));
}

// Frees the names and values of entries [0, count) and clears them; the
// arrays themselves stay for reuse.
void releaseEntries(IMStreamRecord* r, int count) {
  for (int i = 0; i < count; ++i) {
    if (r->ppFieldNames != nullptr) {
      std::free(r->ppFieldNames[i]);
      r->ppFieldNames[i] = nullptr;
    }
    if (r->ppFieldContents != nullptr) {
      std::free(r->ppFieldContents[i]);
      r->ppFieldContents[i] = nullptr;
    }
  }
}

template <typename T>
bool resizeArray(T*& array, int length) {
  void* grown = std::realloc(array, sizeof(T) * static_cast<std::size_t>(length));
  if (grown == nullptr) return false;
  array = static_cast<T*>(grown);
  return true;
}

// Makes the four arrays `index` + 1 long with an empty entry at `index`.
bool growArrays(IMStreamRecord* r, int index) {
  int const length = index + 1;
  if (!resizeArray(r->ppFieldNames, length) || !resizeArray(r->ppFieldContents, length) ||
      !resizeArray(r->pFieldTypes, length) || !resizeArray(r->pFieldSizes, length))
    return false;
  r->ppFieldNames[index] = nullptr;
  r->ppFieldContents[index] = nullptr;
  r->pFieldTypes[index] = '\0';
  r->pFieldSizes[index] = 0;
  return true;
}

// The field section's place and room, brought in line with the record's
// current shape, so that both always describe the same bytes.
unsigned char* refreshSection(IMStreamRecord* r) {
  r->pFieldSection = cGetFieldSectionPtr(r->iStream);
  iCalcFieldBytesMax(r);
  return reinterpret_cast<unsigned char*>(r->pFieldSection);
}

// Index of the last carriage return in text[1 .. max-1], or -1.
int findSectionEnd(unsigned char const* text, int max) {
  for (int i = max - 1; i >= 1; --i)
    if (text[i] == kSectionEnd) return i;
  return -1;
}

// Reads characters up to `stop`, at most `limit` of them, into out (NUL
// ended). Returns the count, -1 at the end of the data, -2 past the limit.
int takeUntil(unsigned char const* text, int end, int* pos, unsigned char stop, int limit,
              char* out) {
  int n = 0;
  for (;;) {
    if (*pos >= end) return -1;
    unsigned char const c = text[*pos];
    if (c == stop) break;
    if (n == limit) return -2;
    out[n++] = static_cast<char>(c);
    ++*pos;
  }
  out[n] = '\0';
  ++*pos;  // past the delimiter
  return n;
}

// Parses the field that starts at *pos into entry `index`. 0 or the code;
// *grown tells whether the arrays were made to hold the entry.
int parseField(IMStreamRecord* r, unsigned char const* text, int end, int* pos, int index,
               bool* grown) {
  char name[kNameChars + 1];
  int const nameLength = takeUntil(text, end, pos, ',', kNameChars, name);
  if (nameLength < 0) return 721;
  if (nameLength == kNameChars) return 736;
  if (!growArrays(r, index)) return 724;
  *grown = true;
  r->ppFieldNames[index] = strdup(name);

  if (*pos >= end) return 722;
  char const type = static_cast<char>(text[(*pos)++]);
  r->pFieldTypes[index] = type;
  if (*pos >= end || text[*pos] != ',') return 722;
  ++*pos;

  if (*pos >= end) return 723;
  char sizeText[kSizeChars + 1];
  int const sizeLength = takeUntil(text, end, pos, '=', kSizeChars, sizeText);
  if (sizeLength < 0) return 723;
  if (sizeLength > kSizeChars - 1) return 736;
  int size = 0;
  if (std::sscanf(sizeText, "%d", &size) != 1) {
    std::fprintf(stderr, "Error parsing field size from %s\n", sizeText);
    return 724;
  }
  r->pFieldSizes[index] = size;

  // No value can be longer than the data left, so a size that claims more
  // costs no memory; the delimiter test below reports it.
  int const room = std::clamp(size, 0, end - *pos);
  char* value = static_cast<char*>(std::calloc(static_cast<std::size_t>(room) + 1, 1));
  if (value == nullptr) return 724;
  r->ppFieldContents[index] = value;
  int copied = 0;
  while (copied < size && *pos < end) {
    if (type != 'b' && text[*pos] == kFieldEnd) break;
    value[copied++] = static_cast<char>(text[(*pos)++]);
  }
  if (*pos >= end || text[*pos] != kFieldEnd) {
    std::fprintf(stderr,
                 "iReadAllFields: field size mismatch or delimiter problem:\nfield %d\n"
                 "field=\"%s\"\nfield size=%d\nlast char=%d/%d\npos=%d/%d\n",
                 index, name, size, text[*pos], kFieldEnd, *pos, end);
    return 723;
  }
  if (copied < size) return 725;
  ++*pos;
  return 0;
}

// Writes one field at out; returns the bytes written.
int writeField(char* out, char const* name, char type, int size, char const* value) {
  int pos = std::snprintf(out, static_cast<std::size_t>(kNameChars + kSizeChars + kFieldOverhead),
                          "%s,%c,%d=", name, type, size);
  if (size > 0) {
    std::memcpy(out + pos, value, static_cast<std::size_t>(size));
    pos += size;
  }
  out[pos++] = static_cast<char>(kFieldEnd);
  return pos;
}

// Stores a copy of `value` that is at least size + 1 bytes long, zeroed
// behind `length` copied bytes, so that later writes of `size` bytes stay
// inside it.
char* copyValue(char const* value, int length, int size) {
  std::size_t const bytes = static_cast<std::size_t>(std::max(length, size)) + 1;
  char* copy = static_cast<char*>(std::calloc(bytes, 1));
  if (copy != nullptr && length > 0) std::memcpy(copy, value, static_cast<std::size_t>(length));
  return copy;
}

}  // namespace

// ---------------------------------------------------------------------------
// Parse and rebuild.

int iReadAllFields(int iStream, void* /*unused*/) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "iReadAllFields", &code);
  if (r == nullptr) return code;
  releaseEntries(r, r->iNumFields);
  r->iNumFields = 0;
  unsigned char const* text = refreshSection(r);
  int const max = IMRtFieldHdrSizeMax(iStream);
  if (text == nullptr) return 730;
  int const end = findSectionEnd(text, max);
  if (end < kMinEndIndex) return 730;

  int count = 0;
  int pos = 0;
  while (pos < end) {
    bool grown = false;
    int const result = parseField(r, text, end, &pos, count, &grown);
    if (result != 0) {
      // The count stays 0; what was parsed is released, the arrays kept.
      releaseEntries(r, grown ? count + 1 : count);
      return result;
    }
    ++count;
  }
  r->iNumFields = count;
  r->iFieldBytesUsed = computeBytesUsed(r);
  if (giVerboseMode != 0) std::printf("iReadAllFields: found %d fields\n", count);
  return 0;
}

int iWriteAllFields(IMStreamRecord* r) {
  assert(r != nullptr);
  char* out = reinterpret_cast<char*>(refreshSection(r));
  r->iFieldBytesUsed = computeBytesUsed(r);
  if (out == nullptr) return 0;  // no room for fields: the block goes out as it stands
  int const max = r->iFieldBytesMax;
  int pos = 0;
  int written = 0;
  bool lastTooLarge = false;
  for (int i = 0; i < r->iNumFields; ++i) {
    char const* name = r->ppFieldNames[i];
    if (name == nullptr) break;
    int const size = r->pFieldSizes[i];
    // The size test looks at one field at a time, as designed ...
    if (countedBytes(name, size) > max) {
      lastTooLarge = true;
      break;
    }
    // ... and a field that would run past the section stops the rebuild
    // rather than write beyond the block.
    if (pos + writtenBytes(name, size) > max) break;
    pos += writeField(out + pos, name, r->pFieldTypes[i], size, r->ppFieldContents[i]);
    ++written;
  }
  out[pos++] = static_cast<char>(kSectionEnd);
  if (pos > r->iFieldBytesUsed || written < r->iNumFields || lastTooLarge) {
    std::fprintf(stderr, "IMWrHdr2 %d: field header overrun\n", r->iStream);
    std::fprintf(stderr, "  num fields=%d out of %d expected\n", written, r->iNumFields);
    // The unclosed bracket is the settled text.
    std::fprintf(stderr, "  num bytes stored=%d out of %d expected (max allowed=%d\n", pos,
                 r->iFieldBytesUsed, max);
  }
  if (pos < max) std::memset(out + pos, 0, static_cast<std::size_t>(max - pos));
  return 0;
}

int iReplaceOrAddCharField(IMStreamRecord* r, char const* name, char const* value, char type,
                           int size) {
  if (r == nullptr) return 1;
  if (r->iNumFields < 0) r->iNumFields = 0;
  if (value == nullptr) value = "";
  int found = -1;
  for (int i = 0; i < r->iNumFields && found < 0; ++i)
    if (r->ppFieldNames[i] != nullptr && std::strcmp(r->ppFieldNames[i], name) == 0) found = i;

  if (found >= 0) {
    if (giVerboseMode != 0) std::printf("Replacing existing field (%d)...\n", found);
    std::free(r->ppFieldContents[found]);
    // Copied as a string: a binary value is cut at its first NUL, as designed.
    int const length =
        static_cast<int>(strnlen(value, static_cast<std::size_t>(std::max(size, 0))));
    r->ppFieldContents[found] = copyValue(value, length, size);
    r->pFieldTypes[found] = type;
    r->pFieldSizes[found] = size;
    if (r->ppFieldContents[found] == nullptr) return 732;
  } else {
    int const index = r->iNumFields;
    if (giVerboseMode != 0) std::printf("Adding new field (%d)...\n", index);
    if (!growArrays(r, index)) return 732;
    r->ppFieldNames[index] = strdup(name);
    r->pFieldTypes[index] = type;
    r->pFieldSizes[index] = size;
    r->ppFieldContents[index] = copyValue(value, std::max(size, 0), size);
    r->iNumFields = index + 1;
    if (r->ppFieldNames[index] == nullptr || r->ppFieldContents[index] == nullptr) return 732;
    found = index;
  }
  r->iFieldBytesUsed = computeBytesUsed(r);
  if (r->iFieldBytesUsed > r->iFieldBytesMax) {
    std::fprintf(stderr,
                 "Stream %d out of field header space. (Field %d,size=%d,max allowed=%d,ext hdr "
                 "size=%d).\n",
                 r->iStream, found, r->iFieldBytesUsed, r->iFieldBytesMax, r->iExtHdrSize);
    return 720;  // the field stays; the rebuild decides what reaches the file
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Sizes and the raw section.

int IMRtFieldHdrSizeMax(int iStream) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMRtFieldHdrSizeMax", &code);
  if (r == nullptr) return code;
  return iCalcFieldBytesMax(r);
}

int IMRtFieldHdrSpace(int iStream) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtFieldHdrSpace", &code);
  if (r == nullptr) return code;
  // 64-bit: a parsed negative size can make the bytes used hugely negative.
  int64_t const space = int64_t{r->iFieldBytesMax} - r->iFieldBytesUsed;
  return space < kMinUsefulSpace ? 0 : static_cast<int>(std::min<int64_t>(space, INT32_MAX));
}

int IMRtFieldHdr(int iStream, char** text, int* size) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMRtFieldHdr", &code);
  if (r == nullptr) return code;
  unsigned char const* section = refreshSection(r);
  if (text == nullptr || section == nullptr) return 730;
  *text = nullptr;
  if (size != nullptr) *size = 0;
  int const end = findSectionEnd(section, IMRtFieldHdrSizeMax(iStream));
  if (end < kMinHdrTextEnd) return 730;
  char* copy = static_cast<char*>(std::calloc(static_cast<std::size_t>(end) + 1, 1));
  if (copy == nullptr) return 0;  // as designed: no code, a null text
  std::memcpy(copy, section, static_cast<std::size_t>(end));
  *text = copy;
  if (size != nullptr) *size = end;
  return 0;
}

int IMRtNumFields(int iStream) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtNumFields", &code);
  if (r == nullptr) return code;
  if (r->iStreamType == kStreamTypeWindow) {
    std::fprintf(stderr, "IMRtNumFields %d: Fields not supported in image windows.\n", iStream);
    return 0;
  }
  int count = 0;
  for (int i = 0; i < r->iNumFields; ++i)
    if (IMRtFieldNum(iStream, i, nullptr, nullptr, nullptr, nullptr) == 0) ++count;
  return count;
}

// ---------------------------------------------------------------------------
// Lookup and get calls.

int IMFindFieldNum(int iStream, char const* name, int* index) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMFindFieldNum", &code);
  if (r == nullptr) return code;
  *index = 0;
  if (name == nullptr) {
    std::fprintf(stderr, "IMFindFieldNum: NULL field name requested.\n");
    return 734;
  }
  for (int i = 0; i < r->iNumFields; ++i) {
    if (r->ppFieldNames[i] == nullptr) return 721;
    if (strcasecmp(r->ppFieldNames[i], name) == 0) {
      *index = i;
      return 0;
    }
  }
  return 731;
}

int IMRtField(int iStream, char const* name, char** value, char* type, int* size) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMRtField", &code);
  if (r == nullptr) return code;
  *value = nullptr;
  *type = '0';
  if (name == nullptr) {
    std::fprintf(stderr, "IMRtField: NULL field name requested.\n");
    return 734;
  }
  if (r->iStreamType == kStreamTypeWindow) {
    std::fprintf(stderr,
                 "IMRtField %d: field %s not found. Fields not supported in image windows.\n",
                 iStream, name);
    return 735;
  }
  // Re-reads the section: fields stored since the last write are forgotten,
  // as designed. No other get call re-reads.
  iReadAllFields(iStream, nullptr);
  int index;
  int const found = IMFindFieldNum(iStream, name, &index);
  if (found != 0) return found;
  if (r->ppFieldContents[index] == nullptr) return 726;
  *value = strdup(r->ppFieldContents[index]);
  if (*value == nullptr) return 732;
  *type = r->pFieldTypes[index];
  if (size != nullptr) *size = r->pFieldSizes[index];
  return 0;
}

int IMRtFieldNum(int iStream, int index, char** name, char* type, int* size, char** value) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, "IMRtFieldNum", &code);
  if (r == nullptr) return code;
  if (name != nullptr) *name = nullptr;
  if (type != nullptr) *type = '0';
  if (size != nullptr) *size = 0;
  if (value != nullptr) *value = nullptr;
  if (index < 0 || index > r->iNumFields - 1) return 729;
  char const* stored = r->ppFieldContents[index];
  if (stored == nullptr) return 726;
  int const fieldSize = r->pFieldSizes[index];
  char const* storedName = r->ppFieldNames[index];
  if (name != nullptr && storedName != nullptr) *name = strdup(storedName);
  if (type != nullptr) *type = r->pFieldTypes[index];
  if (size != nullptr) *size = fieldSize;
  if (value != nullptr) {
    // size + 1 stored bytes (the value and its NUL) and one more NUL.
    int64_t const bytes = std::max<int64_t>(int64_t{fieldSize} + 1, 0);
    char* copy = static_cast<char*>(std::calloc(static_cast<std::size_t>(bytes) + 1, 1));
    if (copy == nullptr) return 732;
    std::memcpy(copy, stored, static_cast<std::size_t>(bytes));
    *value = copy;
  }
  return 0;
}

namespace {

// The common start of the typed get calls: the field `name` of type `want`.
// On success *index names it; otherwise the code to return.
int findTypedField(int iStream, char const* name, void const* out, char want, char const* caller,
                   IMStreamRecord const** record, int* index) {
  int code;
  IMStreamRecord const* r = iCheckedRecord(iStream, caller, &code);
  if (r == nullptr) return code;
  if (name == nullptr || out == nullptr) return 734;
  int const found = IMFindFieldNum(iStream, name, index);
  if (found != 0) return found;
  *record = r;
  if (r->ppFieldContents[*index] == nullptr) return 726;
  if (r->pFieldTypes[*index] != want) return 733;
  return 0;
}

}  // namespace

int IMRtFieldBinary(int iStream, char const* name, char** data, int* size) {
  IMStreamRecord const* r = nullptr;
  int index = 0;
  if (size == nullptr) data = nullptr;  // both outputs are required
  int const found = findTypedField(iStream, name, data, 'b', "IMRtFieldBinary", &r, &index);
  if (found != 0) return found;
  int const bytes = r->pFieldSizes[index];
  *data = nullptr;
  *size = bytes;
  if (bytes > 0) {
    char* copy = static_cast<char*>(std::calloc(static_cast<std::size_t>(bytes) + 1, 1));
    if (copy == nullptr) return 732;
    std::memcpy(copy, r->ppFieldContents[index], static_cast<std::size_t>(bytes));
    *data = copy;
  }
  if (giVerboseMode != 0)
    std::printf("IMRtFieldBinary: \"%s\" resolved binary field containing %d bytes\n", name, bytes);
  return 0;
}

int IMRtFieldChar(int iStream, char const* name, char** text) {
  IMStreamRecord const* r = nullptr;
  int index = 0;
  int const found = findTypedField(iStream, name, text, 'c', "IMRtFieldChar", &r, &index);
  if (found == 726 && giVerboseMode != 0)
    std::printf("IMRtFieldChar: \"%s\" resolved %s\n", name, "NULL");
  if (found != 0) return found;
  *text = strdup(r->ppFieldContents[index]);
  if (*text == nullptr) return 732;
  if (giVerboseMode != 0) std::printf("IMRtFieldChar: \"%s\" resolved %s\n", name, *text);
  return 0;
}

int IMRtFieldDouble(int iStream, char const* name, double* value) {
  IMStreamRecord const* r = nullptr;
  int index = 0;
  int const found = findTypedField(iStream, name, value, 'd', "IMRtFieldDouble", &r, &index);
  if (found != 0) return found;
  if (std::sscanf(r->ppFieldContents[index], "%lf", value) != 1) return 726;
  if (giVerboseMode != 0) std::printf("IMRtFieldDouble: \"%s\" resolved %lf\n", name, *value);
  return 0;
}

int IMRtFieldFloat(int iStream, char const* name, float* value) {
  IMStreamRecord const* r = nullptr;
  int index = 0;
  int const found = findTypedField(iStream, name, value, 'f', "IMRtFieldFloat", &r, &index);
  if (found != 0) return found;
  if (std::sscanf(r->ppFieldContents[index], "%f", value) != 1) return 726;
  if (giVerboseMode != 0) std::printf("IMRtFieldFloat: \"%s\" resolved %f\n", name, *value);
  return 0;
}

int IMRtFieldInt(int iStream, char const* name, int* value) {
  IMStreamRecord const* r = nullptr;
  int index = 0;
  int const found = findTypedField(iStream, name, value, 'i', "IMRtFieldInt", &r, &index);
  if (found != 0) return found;
  if (std::sscanf(r->ppFieldContents[index], "%d", value) != 1) return 726;
  if (giVerboseMode != 0) std::printf("IMRtFieldInt: \"%s\" resolved %d\n", name, *value);
  return 0;
}

// ---------------------------------------------------------------------------
// Set calls.

int IMAlField(int iStream, char const* name, void const* value, char type, int size) {
  int code;
  IMStreamRecord* r = iCheckedRecord(iStream, "IMAlField", &code);
  if (r == nullptr) return code;
  if (name == nullptr) return 721;
  if (r->iStreamType == kStreamTypeWindow) {
    std::fprintf(stderr, "IMAlField %d: field %s not set. Fields not supported in image windows.\n",
                 iStream, name);
    return 735;
  }
  if (std::strlen(name) >= static_cast<std::size_t>(kNameChars)) return 736;
  bool const needsValue = type != 'b' || size > 0;
  if (value == nullptr && needsValue) return 734;
  char number[kNumberTextBytes];
  switch (type) {
    case 'b':
      return iReplaceOrAddCharField(r, name, static_cast<char const*>(value), 'b', size);
    case 'c': {
      char const* text = static_cast<char const*>(value);
      return iReplaceOrAddCharField(r, name, text, 'c', static_cast<int>(std::strlen(text)));
    }
    case 'd':
      std::snprintf(number, sizeof number, "%lf", *static_cast<double const*>(value));
      break;
    case 'f':
      std::snprintf(number, sizeof number, "%f",
                    static_cast<double>(*static_cast<float const*>(value)));
      break;
    case 'i':
      std::snprintf(number, sizeof number, "%d", *static_cast<int const*>(value));
      break;
    default:
      std::fprintf(stderr, "IMAlField: unrecognized field type (%c).\n", type);
      return 722;
  }
  // A number too long for the text is cut there, rather than overrun it.
  return iReplaceOrAddCharField(r, name, number, type, static_cast<int>(std::strlen(number)));
}

int IMAlFieldBinary(int iStream, char const* name, void const* data, int size) {
  return IMAlField(iStream, name, data, 'b', size);
}

int IMAlFieldChar(int iStream, char const* name, char const* text) {
  return IMAlField(iStream, name, text, 'c', 0);
}

int IMAlFieldInt(int iStream, char const* name, int value) {
  return IMAlField(iStream, name, &value, 'i', 0);
}

int IMAlFieldDouble(int iStream, char const* name, double value) {
  return IMAlField(iStream, name, &value, 'd', 0);
}

int IMAlFieldFloat(int iStream, char const* name, float value) {
  return IMAlField(iStream, name, &value, 'f', 0);
}

int IMFreeFieldContentsPtr(void* pointer) {
  std::free(pointer);
  return 0;
}
