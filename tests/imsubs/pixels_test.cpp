// Section pixels: the type table, round trips over pixel type x sequence x
// byte order against byte images built here, the clamping rules of each
// write call against a reference, the line, part-line and rectangle calls,
// and refusals of hostile headers, in bounded memory.
#include <sys/resource.h>

#include <cmath>
#include <limits>
#include <random>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

int bytesOf(int type) {
  return type == 0 ? 1 : type == 1 || type == 6 ? 2 : type == 4 || type == 8 ? 8 : 4;
}

// The bytes of pixel value v as a file of `type` stores it. Complex pixels
// hold (3v, 4v), so their magnitude is 5v.
Bytes storedPixel(int type, double v, bool foreign) {
  Bytes out;
  auto put = [&](auto value) { putBytes(out, out.size(), &value, sizeof(value), foreign); };
  if (type == 0) out.push_back(static_cast<unsigned char>(v));
  if (type == 1) put(static_cast<int16_t>(v));
  if (type == 2) put(static_cast<float>(v));
  if (type == 4) put(static_cast<float>(3 * v)), put(static_cast<float>(4 * v));
  if (type == 6) put(static_cast<uint16_t>(v));
  if (type == 7) put(static_cast<int32_t>(v));
  if (type == 8) put(v);
  return out;
}

// The integer a 1-pixel file of `type` holds at `at`.
int64_t storedInteger(Bytes const& bytes, int type, std::size_t at) {
  return type == 0   ? bytes.at(at)
         : type == 1 ? hostValueAt<int16_t>(bytes, at)
         : type == 6 ? hostValueAt<uint16_t>(bytes, at)
                     : hostValueAt<int32_t>(bytes, at);
}

class ImsubsPixels : public ImsubsTest {};

TEST_F(ImsubsPixels, RoundTripOverTypeSequenceAndByteOrder) {
  int const nx = 3, ny = 2, pixels = nx * ny, sections = 16;            // Z, W, T and P of 2 each
  auto valueAt = [&](int c, int i) { return double(c * pixels + i); };  // c: coordinate bits
  for (int type : {0, 1, 2, 4, 6, 7, 8}) {
    for (int sequence = 0; sequence < 15; ++sequence) {
      std::string const order = IMRtImgSequenceText(sequence);
      auto sectionOf = [&](int c) {
        int sec = 0;
        for (int k = 3; k >= 0; --k) sec = sec * 2 + (c >> std::string("ZWTP").find(order[k]) & 1);
        return sec;
      };
      for (bool foreign : {false, true}) {
        SCOPED_TRACE(testing::Message()
                     << "type " << type << " " << order << (foreign ? " foreign" : ""));
        Bytes image(static_cast<std::size_t>(sections) * pixels *
                    bytesOf(type));  // in layout order
        for (int c = 0; c < sections; ++c) {
          for (int i = 0; i < pixels; ++i) {
            Bytes const p = storedPixel(type, valueAt(c, i), foreign);
            std::copy(p.begin(), p.end(), image.begin() + (sectionOf(c) * pixels + i) * p.size());
          }
        }
        std::string const path = file("grid");
        if (foreign) {  // a 1024-byte extended header holding no per-section words
          RawHeader h;
          h.foreign = true;
          h.basic(nx, ny, 2, 2, 2, type, 100).put<int32_t>(hdroff::giNumSecs, sections);
          h.put<int16_t>(hdroff::gnImageSequence, static_cast<int16_t>(sequence));
          h.put<int32_t>(hdroff::giExtHdrSize, 1024);
          h.foreign = false;  // bytes from 224 on are read as they stand
          h.put<int32_t>(hdroff::giNumP, 2);
          Bytes bytes = h.bytes;
          bytes.resize(2048);
          bytes.insert(bytes.end(), image.begin(), image.end());
          writeBytes(path, bytes);
        } else {  // through the library, sections in reverse coordinate order
          create(1, "grid", nx, ny, 2, 2, 2, 2, sequence, type,
                 sequence % 2 ? "new_unbuffered" : "new");
          ASSERT_EQ(IMWrHdr2(1, 1), 0);
          int const ext = record(1)->iExtHdrSize;
          for (int c = sections - 1; c >= 0; --c) {
            Bytes buffer;  // floats, but complex and 8-byte pixels as stored
            for (int i = 0; i < pixels; ++i) {
              Bytes const p = type == 4 || type == 8 ? storedPixel(type, valueAt(c, i), false)
                                                     : storedPixel(2, valueAt(c, i), false);
              buffer.insert(buffer.end(), p.begin(), p.end());
            }
            ASSERT_EQ(IMPosnZWTP(1, c & 1, c >> 1 & 1, c >> 2 & 1, c >> 3 & 1), 0);
            ASSERT_EQ(IMWrSec(1, reinterpret_cast<float const*>(buffer.data())), 0);
          }
          ASSERT_EQ(IMClose(1), 0);
          Bytes const bytes = readBytes(path);
          ASSERT_EQ(bytes.size(), 1024u + ext + image.size());
          EXPECT_TRUE(std::equal(image.begin(), image.end(), bytes.begin() + 1024 + ext));
        }
        Bytes const before = readBytes(path);
        ASSERT_EQ(IMOpen(2, path.c_str(), sequence % 3 == 0 ? "ro_unbuffered" : "ro"), 0);
        EXPECT_EQ(record(2)->iSwapped, foreign ? 1 : 0);
        for (int c = 0; c < sections; ++c) {
          ASSERT_EQ(IMPosnZWTP(2, c & 1, c >> 1 & 1, c >> 2 & 1, c >> 3 & 1), 0);
          std::vector<double> wide(pixels);
          std::vector<float> narrow(pixels * 2);
          ASSERT_EQ(IMRdSec(2, type == 8 ? static_cast<void*>(wide.data()) : narrow.data()), 0);
          for (int i = 0; i < pixels; ++i) {
            double v =
                valueAt(c, i);  // complex reads give magnitudes; 8-byte floats are never swapped
            if (type == 4) v *= 5;
            if (type == 8 && foreign) v = hostValueAt<double>(storedPixel(8, v, true), 0);
            ASSERT_EQ(type == 8 ? wide[i] : narrow[i], v) << c << " " << i;
          }
        }
        ASSERT_EQ(IMClose(2), 0);
        EXPECT_EQ(readBytes(path), before);  // a read never modifies the file
      }
    }
  }
}

// The straightforward truncating rule of a section write, for a reference.
int64_t referenceTruncating(int type, float v, int& hi, int& lo) {
  double const floor = type == 1 ? -32767 : type == 7 ? -2147483648.0 : 0;
  double const ceiling = type == 0 ? 255 : type == 1 ? 32767 : type == 6 ? 65535 : 2147483648.0;
  int64_t const stored = type == 7 ? 2147483647 : static_cast<int64_t>(ceiling);
  if (v < floor) return ++lo, static_cast<int64_t>(floor);
  if (v > ceiling) return ++hi, stored;
  if (std::isnan(v) || v >= 2147483648.0) return type == 7 ? INT32_MIN : 0;
  return static_cast<int64_t>(v);
}

TEST_F(ImsubsPixels, WritesClampAndRoundByTheirOwnRules) {
  enum Call { kSec, kSecl, kLin };
  struct Case {
    Call call;
    int type;
    float value;
    int64_t stored;
    char const* counted;  // "hi=1, lo=0", "hi=0, lo=1" or ""
  };
  char const *hi = "hi=1, lo=0", *lo = "hi=0, lo=1";
  float const nan = std::numeric_limits<float>::quiet_NaN();
  // clang-format off
  Case const cases[] = {
      {kSec, 1, -32768.0f, -32767, lo}, {kSec, 0, 255.9f, 255, hi}, {kSec, 0, 254.9f, 254, ""},
      {kSec, 0, -0.5f, 0, lo}, {kSec, 0, 0.99f, 0, ""}, {kSec, 1, 32767.5f, 32767, hi},
      {kSec, 1, -3.7f, -3, ""}, {kSec, 6, -1.0f, 0, lo}, {kSec, 6, 65535.5f, 65535, hi},
      {kSec, 6, 40000.9f, 40000, ""}, {kSec, 7, 2147483648.0f, INT32_MIN, ""},
      {kSec, 7, 3e9f, 2147483647, hi}, {kSec, 7, -3e9f, INT32_MIN, lo},
      {kSec, 7, -123456.7f, -123456, ""}, {kSec, 0, nan, 0, ""}, {kSec, 1, nan, 0, ""},
      {kSecl, 0, 1.5f, 2, ""}, {kSecl, 0, 254.6f, 255, hi}, {kSecl, 0, -0.4f, 0, ""},
      {kSecl, 1, -3.7f, -3, ""}, {kSecl, 1, 2.5f, 2, ""}, {kLin, 0, 1.5f, 2, ""},
      {kLin, 0, -0.7f, 0, ""}, {kLin, 0, 255.4f, 255, ""}, {kLin, 0, 255.5f, 255, hi},
      {kLin, 1, -3.7f, -3, ""}, {kLin, 1, 2.5f, 3, ""}, {kLin, 6, 2.5f, 2, ""},
      {kLin, 7, 2147483648.0f, 2147483647, hi}};
  // clang-format on
  char const* const names[] = {"IMWrSec", "IMWrSecl", "IMWrLin"};
  for (Case const& c : cases) {
    SCOPED_TRACE(testing::Message() << names[c.call] << " " << c.type << " " << c.value);
    create(20, "one", 1, 1, 1, 1, 1, 1, 2, c.type);
    ASSERT_EQ(IMWrHdr2(20, 1), 0);
    std::size_t const at = 1024 + static_cast<std::size_t>(record(20)->iExtHdrSize);
    IMAlPrt(1);
    CaptureStderr();
    EXPECT_EQ(c.call == kSec    ? IMWrSec(20, &c.value)
              : c.call == kSecl ? IMWrSecl(20, &c.value, 1)
                                : IMWrLin(20, &c.value),
              0);
    std::string const err = GetCapturedStderr();
    IMAlPrt(0);
    ASSERT_EQ(IMClose(20), 0);
    EXPECT_EQ(storedInteger(readBytes(file("one")), c.type, at), c.stored);
    EXPECT_EQ(err, *c.counted ? std::string(names[c.call]) + " 20: intensity truncation (" +
                                    c.counted + ").\n"
                              : "");
  }
}

TEST_F(ImsubsPixels, ChunkedFastPathMatchesTheReference) {
  // A section larger than one staging chunk for every type, with special
  // values around each limit.
  int const nx = 700, ny = 300;
  std::mt19937 random(5);
  std::uniform_real_distribution<float> spread(-80000.0f, 80000.0f);
  std::vector<float> values(static_cast<std::size_t>(nx) * ny);
  for (float& v : values) v = spread(random);
  float const specials[] = {
      -0.5f,         0.0f,           255.0f,   255.5f,   -32767.0f,
      -32767.5f,     32767.9f,       65535.0f, 65535.1f, std::numeric_limits<float>::quiet_NaN(),
      2147483648.0f, -2147483904.0f, 1e30f,    -1e30f};
  for (std::size_t i = 0; i < std::size(specials); ++i) values[i * 997] = specials[i];
  for (int type : {0, 1, 6, 7}) {
    SCOPED_TRACE(type);
    create(21, "fast", nx, ny, 1, 1, 1, 1, 2, type);
    ASSERT_EQ(IMAlExHdrSize2(21, 0, 0, 1, 0), 0);
    ASSERT_EQ(IMWrHdr2(21, 1), 0);
    IMAlPrt(1);
    CaptureStderr();
    ASSERT_EQ(IMWrSec(21, values.data()), 0);
    std::string const err = GetCapturedStderr();
    IMAlPrt(0);
    ASSERT_EQ(IMClose(21), 0);
    Bytes const bytes = readBytes(file("fast"));
    int hi = 0, lo = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
      int64_t const expected = referenceTruncating(type, values[i], hi, lo);
      ASSERT_EQ(storedInteger(bytes, type, 1024 + i * bytesOf(type)), expected)
          << i << " " << values[i];
    }
    EXPECT_EQ(err, "IMWrSec 21: intensity truncation (hi=" + std::to_string(hi) +
                       ", lo=" + std::to_string(lo) + ").\n");
  }
}

TEST_F(ImsubsPixels, LinesPartLinesRectanglesAndAlternation) {
  int const nx = 6, ny = 5;
  create(7, "rect", nx, ny, 3, 1, 1, 1, 2, 1);
  ASSERT_EQ(IMWrHdr2(7, 1), 0);
  std::vector<float> section(nx * ny), back(nx * ny), ones(nx * ny, 1.0f);
  for (int i = 0; i < nx * ny; ++i) section[i] = static_cast<float>(i);
  ASSERT_TRUE(
      allOk({IMWrSec(7, section.data()), IMWrSec(7, section.data()), IMWrSec(7, section.data())}));
  // Reads and writes alternate on one buffered stream.
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  ASSERT_TRUE(allOk({IMRdSec(7, back.data()), IMWrSec(7, ones.data()), IMRdSec(7, back.data())}));
  EXPECT_EQ(back, section);  // section 2
  ASSERT_TRUE(allOk({IMPosn(7, 1, 0), IMRdSec(7, back.data()), IMWrSec(7, ones.data())}));
  EXPECT_EQ(back, ones);  // section 1, then section 2 written
  ASSERT_TRUE(allOk({IMPosn(7, 2, 0), IMRdSec(7, back.data())}));
  EXPECT_EQ(back, ones);
  ASSERT_TRUE(allOk({IMPosn(7, 1, 0), IMWrSec(7, section.data())}));

  // Part of line 0, then the whole of line 1, then part of line 2.
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  float part[3], line[6];
  ASSERT_EQ(IMRdPal(7, part, 2, 4), 0);
  EXPECT_EQ(std::vector<float>(part, part + 3), (std::vector<float>{2, 3, 4}));
  EXPECT_EQ(record(7)->iLastOp, kLastOpPositioned);
  ASSERT_EQ(IMRdLin(7, line), 0);
  EXPECT_EQ(line[0], 6.0f);
  ASSERT_EQ(IMRdPal(7, part, 3, 5), 0);
  EXPECT_EQ(part[2], 17.0f);
  EXPECT_EQ(record(7)->iLastOp, kLastOpRead);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMRdSecl(7, back.data(), 2), 0); }), "");
  EXPECT_EQ(back[0], 18.0f);
  stderrOf([&] { EXPECT_EQ(IMRdPal(7, part, 4, 6), 302); });

  // A rectangle written into section 0 from a 4 x 3 array, read into 5 x 4.
  std::vector<float> patch(12), array(20, -1.0f);
  for (int i = 0; i < 12; ++i) patch[i] = 100.0f + i;
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  ASSERT_EQ(IMWrPas(7, patch.data(), 4, 3, 1, 3, 2, 3), 0);
  EXPECT_EQ(record(7)->iLastOp, kLastOpPositioned);
  EXPECT_EQ(dStreamFileTell(record(7)), 1024.0 + record(7)->iExtHdrSize + nx * ny * 2);
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  ASSERT_EQ(IMRdSec(7, back.data()), 0);
  std::vector<float> expected = section;
  for (int r = 2; r <= 3; ++r) {
    for (int col = 1; col <= 3; ++col) expected[r * nx + col] = patch[(r - 2) * 4 + (col - 1)];
  }
  EXPECT_EQ(back, expected);
  ASSERT_EQ(IMRdSec(7, back.data()), 0);
  EXPECT_EQ(back, section);  // section 1 untouched
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  ASSERT_EQ(IMRdPas(7, array.data(), 5, 4, 1, 3, 2, 3), 0);
  EXPECT_EQ(std::vector<float>(array.begin(), array.begin() + 6),
            (std::vector<float>{100, 101, 102, -1, -1, 104}));
  ASSERT_EQ(IMRdSec(7, back.data()), 0);
  EXPECT_EQ(back, section);  // the stream stood at section 1
  expectCalls({
      IM_CALL(IMWrPas(7, patch.data(), 4, 3, 1, 6, 2, 3), 402,
              "IMWrPas 7: too many columns (6/4/6).\n"),
      IM_CALL(IMWrPas(7, patch.data(), 4, 9, 1, 3, 4, 5), 403,
              "IMWrPas 7: too many rows (2/9/5).\n"),
      IM_CALL(IMRdPas(7, array.data(), 2, 3, 1, 3, 2, 3), 402,
              "IMRdPas 7: too many columns (3/2/6).\n"),
  });
}

long peakKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST_F(ImsubsPixels, HostileHeadersAreRefusedSafely) {
  int const cases[][3] = {{-4, 4, 402}, {4, -4, 403}, {65536, 65536, 403}};
  for (auto const& c : cases) {
    RawHeader h;
    h.basic(c[0], c[1], 1, 1, 1, 2, 100).write(file("bad"), 1024 + 64);
    ASSERT_EQ(IMOpen(8, file("bad").c_str(), "ro"), 0);
    float out[16];
    CaptureStderr();
    EXPECT_EQ(IMRdSec(8, out), c[2]);
    EXPECT_EQ(IMWrSec(8, out), c[2]);
    std::string const err = GetCapturedStderr();
    EXPECT_EQ(err.substr(0, err.find('\n') + 1),
              "IMRdSec 8: invalid number of " + std::string(c[2] == 402 ? "columns (" : "rows (") +
                  std::to_string(c[2] == 402 ? c[0] : c[1]) + ").\n");
    ASSERT_EQ(IMClose(8), 0);
  }
  // An extended header claimed far beyond the file fails as the short read it
  // is, with memory bounded by the file and not by the claim; the stream
  // stays, as after any short read, but holds no block.
  struct Claim {
    int32_t size;
    int16_t ints, floats;
  } const claims[] = {{1400000000, 1, 1}, {INT32_MAX, 8, 32}, {1 << 28, 0, 2}};
  for (Claim const& c : claims) {
    RawHeader h;
    h.basic(2, 2, 1, 1, 1, 2, 100).put<int32_t>(hdroff::giExtHdrSize, c.size);
    h.put<int16_t>(hdroff::gnNumExtHdrInts, c.ints)
        .put<int16_t>(hdroff::gnNumExtHdrFloats, c.floats);
    h.write(file("claim"), 1339);
    long const before = peakKb();
    std::string const err =
        stderrOf([&] { EXPECT_EQ(IMOpen(1, file("claim").c_str(), "ro"), 210); });
    EXPECT_NE(err.find("IMOpen 1: error reading extended header (315," + std::to_string(c.size) +
                       ",ro,\"" + file("claim") + "\").\n"),
              std::string::npos)
        << err;
    EXPECT_LT(peakKb() - before, 64 * 1024) << c.size;
    ASSERT_NE(record(1), nullptr);
    EXPECT_EQ(record(1)->pExtHdr, nullptr);
    float section[4];
    stderrOf([&] { EXPECT_EQ(IMRdSec(1, section), 212); });
    EXPECT_EQ(IMClose(1), 0);
  }
}

}  // namespace
}  // namespace imtest
