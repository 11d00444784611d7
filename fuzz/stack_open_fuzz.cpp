// Fuzz target of opening a stack from bytes: the input, after one byte of
// choices, is the whole file. Opening decodes the header in either layout and
// byte order, loads the extended header and parses its named fields; then the
// attributes are read, a few sections are read and written back to a scratch
// stack with their extended header values. Nothing may crash, overflow or
// allocate far beyond what the file holds.
//
// The file lives in memory (memfd_create) and is opened by its /proc name, so
// that every run reaches the library's own open and read paths without disk.
// Built outside the main build by scripts/fuzz-build.sh with libFuzzer.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"

namespace {

constexpr int kInput = 1;
constexpr int kScratch = 2;
// Sections read per run, and the largest section buffer worth allocating: a
// section that big can't be in a fuzzer's input anyway.
constexpr int kMaxSectionReads = 3;
constexpr int64_t kMaxSectionBytes = 1 << 22;
constexpr int kMaxChannels = 12;
constexpr int kExtValueIds[] = {0, 1, 2, 5, 7, 20, 1000, 1004};
// A failed open leaves its file open and unowned, as designed: descriptors
// above the in-memory files are closed after every run so that they don't run
// out over millions of runs. A file shorter than its header always fails so,
// and leaks a buffered handle with its buffer each time; such inputs are
// skipped, the short header read being a path of a few lines.
constexpr int kLeakedDescriptorScan = 32;
constexpr size_t kHeaderBytes = 1024;

// One in-memory file, created once and rewritten for every input.
struct MemFile {
  int fd = -1;
  std::string path;
};

MemFile const& memFile(char const* name) {
  static MemFile files[2];
  MemFile& f = files[name[0] == 's' ? 1 : 0];
  if (f.fd < 0) {
    f.fd = memfd_create(name, 0);
    if (f.fd < 0) std::abort();
    f.path = "/proc/self/fd/" + std::to_string(f.fd);
  }
  return f;
}

void closeLeakedDescriptors() {
  int const highest = std::max(memFile("input").fd, memFile("scratch").fd);
  for (int fd = highest + 1; fd <= highest + kLeakedDescriptorScan; ++fd) close(fd);
}

void fill(MemFile const& f, uint8_t const* data, size_t size) {
  if (ftruncate(f.fd, 0) != 0) std::abort();
  if (size > 0 && pwrite(f.fd, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
}

void readAttributes() {
  int nx, ny, nz, nw, nt, seq, mode, lens, type, bits;
  float dx, dy, dz, ox, oy, oz, wave, mn, mx, mean;
  float cell[6];
  double stamp;
  IMRtXY(kInput, &nx, &ny);
  IMRtZWT(kInput, &nz, &nw, &nt, &seq);
  IMRtDel2(kInput, &dx, &dy, &dz);
  IMRtOrig(kInput, &ox, &oy, &oz);
  IMRtMode(kInput, &mode);
  IMRtLensID(kInput, &lens);
  IMRtCel(kInput, cell);
  IMRtFileType(kInput, &type);
  IMRtTimeStamp(kInput, &stamp);
  IMRtDataBitsPerPixel(kInput, &bits);
  for (int w = 0; w < kMaxChannels; ++w) {
    IMRtWav2(kInput, w, &wave);
    IMRtWavMMM(kInput, w, &mn, &mx, &mean);
  }
  char titles[10][80];
  int count = 0;
  IMRtLab(kInput, titles, &count);
}

void readFields() {
  IMRtFieldHdrSizeMax(kInput);
  int const count = IMRtNumFields(kInput);
  for (int i = 0; i < count && i < 16; ++i) {
    char* name = nullptr;
    char* value = nullptr;
    char type = 0;
    int size = 0;
    IMRtFieldNum(kInput, i, &name, &type, &size, &value);
    if (name != nullptr) {
      double d;
      IMRtFieldDouble(kInput, name, &d);
    }
    IMFreeFieldContentsPtr(name);
    IMFreeFieldContentsPtr(value);
  }
}

// A scratch stack of the input's shape and pixel type, for one section.
bool openScratch(int nx, int ny, int mode) {
  MemFile const& f = memFile("scratch");
  fill(f, nullptr, 0);
  if (IMOpen(kScratch, f.path.c_str(), "new") != 0) return false;
  return IMCrHdr2(kScratch, nx, ny, 1, 1, 1, 0, mode) == 0 && IMAlExHdrType(kScratch, 4, 1, 1) == 0;
}

// Reads up to three sections named by the choice byte and writes each back to
// the scratch stack with the extended header values of its place.
void readAndWriteSections(uint8_t choice) {
  int nx = 0, ny = 0, nz = 0, nw = 0, nt = 0, seq = 0, bytes = 0, mode = 0;
  if (IMRtXY(kInput, &nx, &ny) != 0 || IMRtZWT(kInput, &nz, &nw, &nt, &seq) != 0) return;
  IMRtBytesPerPixel(kInput, &bytes);
  IMRtMode(kInput, &mode);
  if (nx < 0 || ny < 0 || bytes < 0) return;
  int64_t const pixels = int64_t{nx} * ny;
  if (pixels > kMaxSectionBytes / std::max(4, bytes)) return;
  int64_t const size = pixels * std::max(4, bytes);
  std::vector<unsigned char> buffer(static_cast<size_t>(size) + 8);
  bool const scratch = openScratch(nx, ny, mode);
  for (int k = 0; k < kMaxSectionReads; ++k) {
    int const z = (choice >> (2 * k)) & 3;
    if (IMPosnZWT(kInput, z, k % std::max(nw, 1), 0) != 0) continue;
    if (IMRdSec(kInput, buffer.data()) != 0) continue;
    for (int id : kExtValueIds) {
      double value = 0.0;
      if (IMRtExHdrValueZWT(kInput, z, 0, 0, id, &value) == 0 && scratch) {
        IMAlExHdrValueZWT(kScratch, 0, 0, 0, id, value);
      }
    }
    if (scratch && IMPosn(kScratch, 0, 0) == 0) {
      IMWrSec(kScratch, reinterpret_cast<float const*>(buffer.data()));
    }
  }
  if (scratch) IMWrHdr2(kScratch, 1);
  IMClose(kScratch);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 1 + kHeaderBytes) return 0;
  uint8_t const choice = data[0];
  MemFile const& f = memFile("input");
  fill(f, data + 1, size - 1);
  // Bit 7 picks the unbuffered file path; the rest picks sections.
  char const* attrib = (choice & 0x80) != 0 ? "ro_unbuffered" : "ro";
  int const opened = IMOpen(kInput, f.path.c_str(), attrib);
  if (opened == 0 || opened == 210) {
    readAttributes();
    readFields();
    readAndWriteSections(choice);
  }
  // A failed open may leave its record in the table, as designed.
  if (IMCheckStream(kInput, "fuzz") == 0) IMClose(kInput);
  closeLeakedDescriptors();
  return 0;
}
