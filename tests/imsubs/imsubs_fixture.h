// Shared helpers of the image stream library tests: a fixture that closes
// every stream a test left open, hand-made header images in either byte
// order, and a table runner for calls checked by code and message.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
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
using Bytes = std::vector<unsigned char>;
using Ints = std::vector<int>;
using Floats = std::vector<float>;

// Writes `width` bytes of `value` at `offset`, reversed when `foreign`.
inline void putBytes(Bytes& out, std::size_t offset, void const* value, std::size_t width,
                     bool foreign) {
  if (out.size() < offset + width) out.resize(offset + width);
  auto const* bytes = static_cast<unsigned char const*>(value);
  for (std::size_t i = 0; i < width; ++i) out[offset + i] = bytes[foreign ? width - 1 - i : i];
}

// A header image written byte by byte, in host or in the opposite order.
struct RawHeader {
  Bytes bytes = Bytes(kHeaderBytes, 0);
  bool foreign = false;
  template <typename T>
  RawHeader& put(int offset, T value) {
    putBytes(bytes, static_cast<std::size_t>(offset), &value, sizeof(T), foreign);
    return *this;
  }
  // The fields of a minimal valid header.
  RawHeader& basic(int nx, int ny, int nz, int nw, int nt, int pixelType, int fileType) {
    put<int32_t>(hdroff::giNumX, nx).put<int32_t>(hdroff::giNumY, ny);
    put<int32_t>(hdroff::giNumSecs, nz * nw * nt).put<int32_t>(hdroff::giPixDataType, pixelType);
    put<int16_t>(hdroff::gnImageFileID, kFileIDHostOrder);
    put<int16_t>(hdroff::gnImageFileType, static_cast<int16_t>(fileType));
    put<uint16_t>(hdroff::gwNumWaves, static_cast<uint16_t>(nw));
    put<uint16_t>(hdroff::gwNumTimes, static_cast<uint16_t>(nt));
    for (int i = 0; i < 3; ++i) put<int32_t>(hdroff::giXYZSampling + 4 * i, 1);
    return *this;
  }
  // Writes the header followed by zeros up to `size` bytes in all.
  void write(std::string const& path, std::size_t size = kHeaderBytes) const;
};

inline void writeBytes(std::string const& path, Bytes const& bytes) {
  testutil::writeFile(path, std::string(bytes.begin(), bytes.end()));
}
inline void RawHeader::write(std::string const& path, std::size_t size) const {
  Bytes padded = bytes;
  padded.resize(size);
  writeBytes(path, padded);
}
inline Bytes readBytes(std::string const& path) {
  std::string const s = testutil::readFile(path);
  return Bytes(s.begin(), s.end());
}
template <typename T>
T hostValueAt(Bytes const& bytes, std::size_t offset) {
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
// True when every call of the list returned 0; a braced list runs them in order.
inline bool allOk(std::initializer_list<int> codes) {
  for (int c : codes) {
    if (c != 0) return false;
  }
  return true;
}

// One library call with the code it must return and the exact text it must
// print on stderr.
struct CallCase {
  char const* what;
  std::function<int()> call;
  int code;
  std::string err;
};
// A CallCase named by the text of its call.
#define IM_CALL(expr, code, err)             \
  ::imtest::CallCase {                       \
#expr, [&] { return (expr); }, code, err \
  }
inline void expectCalls(std::vector<CallCase> const& cases) {
  for (CallCase const& c : cases) {
    int code = -1;
    EXPECT_EQ(stderrOf([&] { code = c.call(); }), c.err) << c.what;
    EXPECT_EQ(code, c.code) << c.what;
  }
}

// Closes whatever a test left open and restores the verbosity, so that
// tests stay independent of each other.
class ImsubsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (int i = 1; i <= kMaxStreams; ++i) {
      if (gsStreams[i] != nullptr) stderrOf([&] { IMClose(i); });
    }
    IMAlPrt(0);
  }
  IMStreamRecord* record(int iStream) { return gsStreams[iStream]; }
  std::string file(std::string const& name) const { return scratch_.file(name); }
  // A new stream on file `name` with IMCrHdr3's header of these extents.
  void create(int iStream, std::string const& name, int nx, int ny, int nz, int nw, int nt,
              int np = 1, int sequence = 0, int type = 2, char const* attrib = "new") {
    ASSERT_EQ(IMOpen(iStream, file(name).c_str(), attrib), 0);
    ASSERT_EQ(IMCrHdr3(iStream, nx, ny, nz, nw, nt, np, sequence, type), 0);
  }
  testutil::ScratchDir scratch_;
};

}  // namespace imtest
