// Fuzz target of the named field parser: any bytes placed in a field section
// must parse or fail with a code, never crash; a section that parses must
// survive a rebuild and a second parse unchanged; every get call must cope
// with whatever the parse left behind. A second phase stores fields chosen
// by the input into the same small block, so that rebuilds run over full
// and overfull sections.
//
// Built outside the main build by scripts/fuzz-build.sh with libFuzzer.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"
#include "imsubs/internal.h"

namespace {

constexpr int kStream = 1;
constexpr int kRecordBytes = 8;  // one section of type 1: one integer, one float

struct Field {
  std::string name;
  char type;
  int size;
  std::string value;
};

// One stream on a scratch file, opened once per process.
void openScratchStream() {
  static bool opened = false;
  if (opened) return;
  std::string const path = "/tmp/corvane-field-fuzz-" + std::to_string(getpid()) + ".img";
  if (IMOpen(kStream, path.c_str(), "new") != 0) std::abort();
  unlink(path.c_str());  // the open handle keeps it alive
  opened = true;
}

// Places `data` as the field section of a fresh block: one 8-byte record in
// front, one spare byte behind so that the whole input is searched.
void loadSection(uint8_t const* data, size_t size) {
  int const blockBytes = kRecordBytes + static_cast<int>(size) + 1;
  if (IMAlExHdrInfo(kStream, 1, blockBytes, 1, 1) != 0) std::abort();
  IMStreamRecord* r = gsStreams[kStream];
  if (size > 0) std::memcpy(r->pExtHdr + kRecordBytes, data, size);
}

std::vector<Field> snapshot() {
  IMStreamRecord const* r = gsStreams[kStream];
  std::vector<Field> fields;
  for (int i = 0; i < r->iNumFields; ++i) {
    int const size = r->pFieldSizes[i];
    std::string value(r->ppFieldContents[i], static_cast<size_t>(size > 0 ? size : 0));
    fields.push_back({r->ppFieldNames[i], r->pFieldTypes[i], size, value});
  }
  return fields;
}

// Every get call on every field; results are released again.
void exerciseGetCalls() {
  int const count = IMRtNumFields(kStream);
  for (int i = 0; i < count; ++i) {
    char* name = nullptr;
    char* value = nullptr;
    char type = 0;
    int size = 0;
    IMRtFieldNum(kStream, i, &name, &type, &size, &value);
    if (name != nullptr) {
      int index = -1;
      if (IMFindFieldNum(kStream, name, &index) != 0) std::abort();
      char* text = nullptr;
      char* data = nullptr;
      double d;
      float f;
      int n;
      IMRtFieldChar(kStream, name, &text);
      IMRtFieldBinary(kStream, name, &data, &size);
      IMRtFieldDouble(kStream, name, &d);
      IMRtFieldFloat(kStream, name, &f);
      IMRtFieldInt(kStream, name, &n);
      IMFreeFieldContentsPtr(text);
      IMFreeFieldContentsPtr(data);
    }
    IMFreeFieldContentsPtr(name);
    IMFreeFieldContentsPtr(value);
  }
  char* text = nullptr;
  int size = 0;
  IMRtFieldHdr(kStream, &text, &size);
  IMFreeFieldContentsPtr(text);
  IMRtFieldHdrSpace(kStream);
}

// Stores a few fields picked by the input, rebuilds the section and parses
// it again; only crashes and sanitizer reports count here.
void storeRebuildAndParse(uint8_t const* data, size_t size) {
  constexpr int kMaxStores = 8;
  constexpr size_t kMaxNameLength = 70;  // past the 63 a name may have
  constexpr size_t kMaxValueLength = 200;
  FuzzedDataProvider input(data, size);
  int const stores = input.ConsumeIntegralInRange(0, kMaxStores);
  for (int i = 0; i < stores; ++i) {
    std::string const name = input.ConsumeRandomLengthString(kMaxNameLength);
    switch (input.ConsumeIntegralInRange(0, 4)) {
      case 0: {
        std::string const bytes = input.ConsumeRandomLengthString(kMaxValueLength);
        IMAlFieldBinary(kStream, name.c_str(), bytes.data(), static_cast<int>(bytes.size()));
        break;
      }
      case 1:
        IMAlFieldChar(kStream, name.c_str(),
                      input.ConsumeRandomLengthString(kMaxValueLength).c_str());
        break;
      case 2:
        IMAlFieldDouble(kStream, name.c_str(), input.ConsumeFloatingPoint<double>());
        break;
      case 3:
        IMAlFieldFloat(kStream, name.c_str(), input.ConsumeFloatingPoint<float>());
        break;
      default:
        IMAlFieldInt(kStream, name.c_str(), input.ConsumeIntegral<int>());
        break;
    }
  }
  iWriteAllFields(gsStreams[kStream]);
  iReadAllFields(kStream, nullptr);
  exerciseGetCalls();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  constexpr size_t kMaxInput = 1 << 16;
  if (size > kMaxInput) return 0;
  openScratchStream();
  loadSection(data, size);
  int const parsed = iReadAllFields(kStream, nullptr);
  IMStreamRecord* r = gsStreams[kStream];
  if (parsed != 0 && r->iNumFields != 0) std::abort();  // a failed parse keeps no fields
  exerciseGetCalls();
  if (parsed != 0) {
    storeRebuildAndParse(data, size);
    return 0;
  }

  // A parsed section rebuilt in place must parse again to the same fields,
  // as long as the rebuilt text fits. It may not: a size text beyond the
  // integer range wraps to a negative size whose digits are longer than the
  // text read, and a section filled to its very last byte puts the
  // terminator where the parser doesn't look (the store warns of that).
  std::vector<Field> const before = snapshot();
  size_t rebuilt = 1;  // the terminator
  for (Field const& f : before)
    rebuilt += f.name.size() + std::to_string(f.size).size() + 5 + f.value.size();
  iWriteAllFields(r);
  if (rebuilt > static_cast<size_t>(r->iFieldBytesMax)) {
    storeRebuildAndParse(data, size);
    return 0;
  }
  if (iReadAllFields(kStream, nullptr) != 0) std::abort();
  std::vector<Field> const after = snapshot();
  if (before.size() != after.size()) std::abort();
  for (size_t i = 0; i < before.size(); ++i) {
    Field const& a = before[i];
    Field const& b = after[i];
    if (a.name != b.name || a.type != b.type || a.size != b.size || a.value != b.value)
      std::abort();
  }
  storeRebuildAndParse(data, size);
  return 0;
}
