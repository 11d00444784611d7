// The second linkage: every IM function under its lower-case name with
// scalar arguments by address. The plain wrappers are generated from
// second_linkage_table.h; the few that do more are written out here.
#include "imsubs/second_linkage.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "imsubs/internal.h"

#define IM_LINK(n, alias, fn)                                                  \
  extern "C" imlink::ResultOf<&fn> alias(IM_LINK_P##n(&fn)) {                  \
    static_assert(imlink::Signature<decltype(&fn)>::arity == n, #fn " arity"); \
    return imlink::Signature<decltype(&fn)>::call<&fn>(IM_LINK_A##n);          \
  }
#include "imsubs/second_linkage_table.h"
#undef IM_LINK

namespace {

constexpr int kOpenNameBytes = 2048;  // allocation for the copied name
constexpr int kMaxOpenNameLength = 2040;
constexpr int kMaxAttribLength = 34;
constexpr int kAttribChars = 35;  // attribute characters kept
constexpr int kClassicWaves = 5;  // wavelengths of the classic copy call

#define IM_LINK(n, alias, fn) {#alias, #fn},
imlink::Entry const kEntries[] = {
#include "imsubs/second_linkage_table.h"
    {"imopen_", "IMOpen"},        {"iwrhdr_", "IMWrHdr"},       {"iwrhdrc_", "IMWrHdr"},
    {"ialnumlab_", "IMAlNumLab"}, {"iclden_", "IMCalcDen"},     {"ialdel2_", "IMAlDel2"},
    {"ialzwt_", "IMAlZWT"},       {"itrexhdr2_", "IMTrExHdr2"},
};
#undef IM_LINK

}  // namespace

imlink::Entry const* imlink::entries(int* count) {
  *count = static_cast<int>(sizeof kEntries / sizeof kEntries[0]);
  return kEntries;
}

extern "C" {

int imopen_(int* iStream, char const* name, char const* attrib, int nameLength, int attribLength) {
  if (nameLength > kMaxOpenNameLength || attribLength > kMaxAttribLength) {
    std::fprintf(stderr, "IMOpen_ %d: file name is too long.\n", *iStream);
    return 105;
  }
  char* nameCopy = static_cast<char*>(std::calloc(kOpenNameBytes, 1));
  if (nameCopy == nullptr) {
    std::fprintf(stderr, "IMOpen_ %d: unable to allocate memory.\n", *iStream);
    return 902;
  }
  for (int i = 0; i < nameLength && name[i] != '\0'; ++i) nameCopy[i] = name[i];
  char attribCopy[kAttribChars + 1] = {};
  int const attribLimit = std::min(attribLength, kAttribChars);
  for (int i = 0; i < attribLimit && attrib[i] != '\0' && attrib[i] != ' '; ++i)
    attribCopy[i] = attrib[i];
  if (giVerboseMode > 1) {
    std::printf("IMOpen_ %d: string lengths = %d, %d\n", *iStream, nameLength, attribLength);
    std::printf("> name: %s.\n> attrib: %s.\n", nameCopy, attribCopy);
  }
  int const result = IMOpen(*iStream, nameCopy, attribCopy);
  std::free(nameCopy);
  return result;
}

void iwrhdr_(int* iStream, char const* title, int* titleMode, float* min, float* max, float* mean) {
  char copy[kTitleBytes] = {};
  std::strncpy(copy, title, kTitleBytes - 1);
  IMWrHdr(*iStream, copy, *titleMode, *min, *max, *mean);
}

void iwrhdrc_(int* iStream, char const* title, int* titleMode, float* min, float* max,
              float* mean) {
  iwrhdr_(iStream, title, titleMode, min, max, mean);
}

int ialnumlab_(int* iStream, int* /*ignored*/, int* count) {
  return IMAlNumLab(*iStream, *count);
}

int iclden_(float const* image, int* width, int* height, int* firstColumn, int* lastColumn,
            int* firstRow, int* lastRow, float* min, float* max, float* mean) {
  return IMCalcDen(image, *width, *height, *firstColumn - 1, *lastColumn - 1, *firstRow - 1,
                   *lastRow - 1, min, max, mean);
}

int ialdel2_(int* iStream, float* dx, float* dy, float* dz) {
  float const pixelSize[3] = {*dx, *dy, *dz};
  return IMAlDel(*iStream, pixelSize);
}

int ialzwt_(int* iStream, int* nz, int* nw, int* nt, int* sequence) {
  return IMAlZWTP(*iStream, *nz, *nw, *nt, 1, *sequence);
}

int itrexhdr2_(int* dst, int* src, int* zFirst, int* zLast, int* zStep, int const* waveFlags,
               int* tFirst, int* tLast, int* tStep) {
  std::fprintf(stderr, "itrexhdr2: switch to itrexhdr3. Backwards compatibility enabled...\n");
  return IMTrExHdr4(*dst, *src, *zFirst, *zLast, *zStep, waveFlags, kClassicWaves, *tFirst, *tLast,
                    *tStep, 0, 0);
}

}  // extern "C"
