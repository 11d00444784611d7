// Shared helpers of the image stream library tests: a fixture that closes
// every stream a test left open, a hand-made header image in either byte
// order, and small file utilities.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"
#include "imsubs/internal.h"
#include "support/testutil.h"

namespace imtest {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

// True when bytes must be reversed to reach the file's order.
inline void putBytes(std::vector<unsigned char>& out, std::size_t offset, void const* value,
                     std::size_t width, bool foreign) {
  if (out.size() < offset + width) out.resize(offset + width);
  unsigned char const* bytes = static_cast<unsigned char const*>(value);
  for (std::size_t i = 0; i < width; ++i) {
    out[offset + i] = foreign ? bytes[width - 1 - i] : bytes[i];
  }
}

// A header image written byte by byte, in host or in the opposite order.
struct RawHeader {
  std::vector<unsigned char> bytes = std::vector<unsigned char>(kHeaderBytes, 0);
  bool foreign = false;

  template <typename T>
  RawHeader& put(int offset, T value) {
    putBytes(bytes, static_cast<std::size_t>(offset), &value, sizeof(T), foreign);
    return *this;
  }
  // The usual fields of a minimal valid header.
  RawHeader& basic(int nx, int ny, int nz, int nw, int nt, int pixelType, int fileType) {
    put<int32_t>(hdroff::giNumX, nx);
    put<int32_t>(hdroff::giNumY, ny);
    put<int32_t>(hdroff::giNumSecs, nz * nw * nt);
    put<int32_t>(hdroff::giPixDataType, pixelType);
    put<int16_t>(hdroff::gnImageFileID, kFileIDHostOrder);
    put<int16_t>(hdroff::gnImageFileType, static_cast<int16_t>(fileType));
    put<uint16_t>(hdroff::gwNumWaves, static_cast<uint16_t>(nw));
    put<uint16_t>(hdroff::gwNumTimes, static_cast<uint16_t>(nt));
    for (int i = 0; i < 3; ++i) put<int32_t>(hdroff::giXYZSampling + 4 * i, 1);
    return *this;
  }
  // Writes the header followed by zeros up to `size` bytes in all.
  void writePadded(std::string const& path, std::size_t size) const;
};

inline void writeBytes(std::string const& path, std::vector<unsigned char> const& bytes) {
  testutil::writeFile(path, std::string(bytes.begin(), bytes.end()));
}

inline void RawHeader::writePadded(std::string const& path, std::size_t size) const {
  std::vector<unsigned char> padded = bytes;
  padded.resize(size);
  writeBytes(path, padded);
}

inline std::vector<unsigned char> readBytes(std::string const& path) {
  std::string const s = testutil::readFile(path);
  return std::vector<unsigned char>(s.begin(), s.end());
}

inline long long fileSize(std::string const& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

template <typename T>
T hostValueAt(std::vector<unsigned char> const& bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

// What `action` printed on stderr.
template <typename Action>
std::string stderrOf(Action action) {
  CaptureStderr();
  action();
  return GetCapturedStderr();
}

inline std::string pidPrefix() {
  return "[" + std::to_string(getpid()) + "] ";
}

// Closes whatever a test left open and restores the verbosity, so that
// tests stay independent of each other.
class ImsubsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (int i = 1; i <= kMaxStreams; ++i) {
      if (gsStreams[i] != nullptr) {
        CaptureStderr();
        IMClose(i);
        GetCapturedStderr();
      }
    }
    IMAlPrt(0);
  }
  IMStreamRecord* record(int iStream) { return gsStreams[iStream]; }
  std::string file(std::string const& name) const { return scratch_.file(name); }

  testutil::ScratchDir scratch_;
};

}  // namespace imtest
