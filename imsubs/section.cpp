// Section addressing: the image sequence codes, the mapping between a
// Z, W, T, P coordinate and a section number, and positioning a stream at a
// section or line.
//
// Sections have no index in the file: a section's place is pure arithmetic
// on the header's dimensions. Offsets are computed in 8-byte floats so that
// stacks beyond 4 GiB address correctly.
#include <unistd.h>

#include <cmath>
#include <cstdint>

#include "imsubs/internal.h"

namespace {

constexpr int kNumSequences = 15;
constexpr int kAxes = 4;
// Guards the truncation of a byte delta computed in floating point.
constexpr double kTruncationGuard = 0.0001;
// Byte deltas beyond this can't be handed to a 64-bit seek.
constexpr double kMaxSeekDelta = 9.2e18;

// Axis names from the fastest varying to the slowest, by sequence code.
constexpr char const* kSequenceNames[kNumSequences] = {
    "ZTWP", "WZTP", "ZWTP", "ZPWT", "ZWPT", "WZPT", "WPTZ", "PWTZ",
    "PTWZ", "PZWT", "PWZT", "WPZT", "WTPZ", "TWPZ", "TPWZ",
};

// Index of an axis letter in the Z, W, T, P order.
int axisIndex(char letter) {
  switch (letter) {
    case 'Z':
      return 0;
    case 'W':
      return 1;
    case 'T':
      return 2;
    default:
      return 3;
  }
}

bool isKnownSequence(int code) {
  return static_cast<unsigned>(code) < kNumSequences;
}

// Extents in the Z, W, T, P order.
void extentsOf(IMStreamRecord const* record, int extents[kAxes]) {
  extents[0] = record->iNumZ;
  extents[1] = record->iNumW;
  extents[2] = record->iNumT;
  extents[3] = record->iNumP;
}

// Moves the stream by the difference between `target` and the position now,
// with the guard against a delta a hair below a whole byte. False on failure.
bool seekToTarget(IMStreamRecord* record, double target) {
  double delta = target - dStreamFileTell(record);
  delta += delta < 0 ? -kTruncationGuard : kTruncationGuard;
  if (!(std::fabs(delta) < kMaxSeekDelta)) return false;
  return iStreamFileSeek(record, static_cast<int64_t>(delta), SEEK_CUR) >= 0;
}

// The cursor of a window stream at a section and line.
void setWindowCursor(IMStreamRecord* record, int sec, int line) {
  record->iPosSec = sec;
  record->iPosX = 0;
  record->iPosY = line;
  IMRtZWTPNum(record->iStream, &record->iPosZ, &record->iPosW, &record->iPosT, &record->iPosP, sec);
}

}  // namespace

char const* IMRtImgSequenceText(int code) {
  return isKnownSequence(code) ? kSequenceNames[code] : "Undefined";
}

int IMRtZWTP(int iStream, int* nz, int* nw, int* nt, int* np, int* sequence) {
  int const check = IMCheckStream(iStream, "IMRtZWTP");
  if (check != 0) return check;
  IMStreamRecord const* record = gsStreams[iStream];
  if (nz != nullptr) *nz = record->iNumZ;
  if (nw != nullptr) *nw = record->iNumW;
  if (nt != nullptr) *nt = record->iNumT;
  if (np != nullptr) *np = record->iNumP;
  if (sequence != nullptr) *sequence = record->iImageSequence;
  return 0;
}

int IMRtZWT(int iStream, int* nz, int* nw, int* nt, int* sequence) {
  return IMRtZWTP(iStream, nz, nw, nt, nullptr, sequence);
}

int IMRtZWTP2(int iStream, int* nz, int* nw, int* nt, int* np) {
  return IMRtZWTP(iStream, nz, nw, nt, np, nullptr);
}

int IMRtZWT2(int iStream, int* nz, int* nw, int* nt) {
  return IMRtZWTP(iStream, nz, nw, nt, nullptr, nullptr);
}

int IMRtImageSequence(int iStream, int* sequence) {
  int const check = IMCheckStream(iStream, "IMRtImageSequence");
  if (check != 0) return check;
  if (sequence != nullptr) *sequence = gsStreams[iStream]->iImageSequence;
  return 0;
}

int IMAlImageSequence(int iStream, int sequence) {
  int const check = IMCheckStream(iStream, "IMAlImageSequence");
  if (check != 0) return check;
  gsStreams[iStream]->iImageSequence = sequence;  // no check, by design
  return 0;
}

int IMRtSecNum2(int iStream, int iz, int iw, int it, int ip, int* sec) {
  int const check = IMCheckStream(iStream, "IMRtSecNum2");
  if (check != 0) return check;
  IMStreamRecord const* record = gsStreams[iStream];
  int const coords[kAxes] = {iz, iw, it, ip};
  int extents[kAxes];
  extentsOf(record, extents);
  for (int axis = 0; axis < kAxes; ++axis) {
    if (coords[axis] < 0 || coords[axis] >= extents[axis]) {
      if (sec != nullptr) *sec = 0;
      std::fprintf(stderr,
                   "[%d] IMRtSecNum2 %d: invalid Z,W,T,P coordinate.\nRequested %d %d %d %d, "
                   "Stream has %d %d %d %d.\n",
                   static_cast<int>(getpid()), iStream, iz, iw, it, ip, extents[0], extents[1],
                   extents[2], extents[3]);
      return 604;
    }
  }
  int const code = record->iImageSequence;
  if (!isKnownSequence(code)) {
    if (sec != nullptr) *sec = 0;
    std::fprintf(stderr, "IMRtSecNum2 %d: invalid image sequence %d\n", iStream, code);
    return 505;
  }
  // a + A * (b + B * (c + C * d)) with the axes in the order of the name,
  // in 32-bit arithmetic that wraps.
  char const* name = kSequenceNames[code];
  uint32_t number = static_cast<uint32_t>(coords[axisIndex(name[kAxes - 1])]);
  for (int k = kAxes - 2; k >= 0; --k) {
    int const axis = axisIndex(name[k]);
    number = static_cast<uint32_t>(coords[axis]) + static_cast<uint32_t>(extents[axis]) * number;
  }
  int const result = static_cast<int32_t>(number);
  if (sec != nullptr) *sec = result;
  if (giVerboseMode != 0) {
    std::printf("IMRtSecNum2 %d: iz=%d, iw=%d, it=%d, ip=%d, sec=%d\n", iStream, iz, iw, it, ip,
                result);
  }
  return 0;
}

int IMRtSecNum(int iStream, int iz, int iw, int it, int* sec) {
  return IMRtSecNum2(iStream, iz, iw, it, 0, sec);
}

int IMRtZWTPNum(int iStream, int* iz, int* iw, int* it, int* ip, int sec) {
  int const check = IMCheckStream(iStream, "IMRtZWTPNum");
  if (check != 0) return check;
  IMStreamRecord const* record = gsStreams[iStream];
  int* const outputs[kAxes] = {iz, iw, it, ip};
  int extents[kAxes];
  extentsOf(record, extents);
  int64_t const total = int64_t{extents[0]} * extents[1] * extents[2] * extents[3];
  int const code = record->iImageSequence;
  if (sec < 0 || sec >= total || !isKnownSequence(code)) {
    for (int* out : outputs) {
      if (out != nullptr) *out = 0;
    }
    return sec < 0 || sec >= total ? 601 : 505;
  }
  // Every extent is non-zero here, since their product is positive.
  char const* name = kSequenceNames[code];
  int64_t stride = 1;
  for (int k = 0; k < kAxes; ++k) {
    int const axis = axisIndex(name[k]);
    if (outputs[axis] != nullptr) {
      int64_t const quotient = sec / stride;
      *outputs[axis] = static_cast<int>(k < kAxes - 1 ? quotient % extents[axis] : quotient);
    }
    stride *= extents[axis];
  }
  return 0;
}

int IMRtZWTNum(int iStream, int* iz, int* iw, int* it, int sec) {
  return IMRtZWTPNum(iStream, iz, iw, it, nullptr, sec);
}

int IMPosn(int iStream, int sec, int line) {
  // No stream check by design; a missing record is still refused quietly.
  IMStreamRecord* record = iRecord(iStream);
  if (record == nullptr) return 1;
  if (record->iStreamType == kStreamTypeWindow) {
    setWindowCursor(record, sec, line);
    return 0;
  }
  if (record->iStreamType != kStreamTypeFile) return 0;
  if (dStreamFileTell(record) < 0) {
    iPrintPositionError("IMPosn", iStream);
    return 301;
  }
  double const pixels = static_cast<double>(sec) * record->iNumX * record->iNumY +
                        static_cast<double>(line) * record->iNumX;
  // The extended header sum is 32-bit, as stored.
  int32_t const dataStart = static_cast<int32_t>(static_cast<uint32_t>(record->iExtHdrSize) +
                                                 static_cast<uint32_t>(kHeaderBytes));
  double const target = static_cast<double>(dataStart) + record->iBytesPerPixel * pixels;
  if (!seekToTarget(record, target)) {
    iPrintPositionError("IMPosn", iStream);
    return 301;
  }
  record->iLastOp = kLastOpPositioned;
  return 0;
}

int IMPosnZWTP(int iStream, int iz, int iw, int it, int ip) {
  IMStreamRecord* record = iRecord(iStream);
  if (record == nullptr) return 1;
  if (record->iStreamType == kStreamTypeWindow) {
    int sec = 0;
    IMRtSecNum2(iStream, iz, iw, it, ip, &sec);
    record->iPosX = 0;
    record->iPosY = 0;
    record->iPosSec = sec;
    int back[kAxes] = {0, 0, 0, 0};
    IMRtZWTPNum(iStream, &back[0], &back[1], &back[2], &back[3], sec);
    if (back[0] != iz || back[1] != iw || back[2] != it || back[3] != ip) {
      std::fprintf(stderr, "IMPosnZWTP %d: internal calculation error.\n", iStream);
    }
    record->iPosZ = iz;
    record->iPosW = iw;
    record->iPosT = it;
    record->iPosP = ip;
    return 0;
  }
  if (record->iStreamType != kStreamTypeFile) return 0;
  if (dStreamFileTell(record) < 0) {
    iPrintPositionError("IMPosnZWTP - current position is invalid.", iStream);
    return 301;
  }
  int sec = 0;
  if (IMRtSecNum2(iStream, iz, iw, it, ip, &sec) != 0) {
    iPrintPositionError("IMPosnZWTP 1 - invalid section number", iStream);
    return 301;
  }
  double const sectionBytes =
      static_cast<double>(record->iNumX) * record->iNumY * record->iBytesPerPixel;
  double const target =
      (record->iExtHdrSize + static_cast<double>(kHeaderBytes)) + sec * sectionBytes;
  if (!seekToTarget(record, target)) {
    iPrintPositionError("IMPosnZWTP - unable to seek to new position", iStream);
    return 301;
  }
  record->iLastOp = kLastOpPositioned;
  return 0;
}

int IMPosnZWT(int iStream, int iz, int iw, int it) {
  return IMPosnZWTP(iStream, iz, iw, it, 0);
}
