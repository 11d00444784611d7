// Section pixels: the type table, round trips over pixel type x sequence x
// byte order, the clamping rules of each write call against a reference,
// the line, part-line and rectangle calls, and refusals of bad files.
#include <cmath>
#include <limits>
#include <random>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

int bytesOf(int type) {
  switch (type) {
    case 0:
      return 1;
    case 1:
    case 6:
      return 2;
    case 4:
    case 8:
      return 8;
    default:
      return 4;
  }
}

// The bytes of pixel value v as a file of `type` stores it, in host or
// foreign order. Complex pixels hold (3v, 4v), so their magnitude is 5v.
std::vector<unsigned char> storedPixel(int type, double v, bool foreign) {
  std::vector<unsigned char> out;
  auto put = [&](auto value) { putBytes(out, out.size(), &value, sizeof(value), foreign); };
  switch (type) {
    case 0:
      out.push_back(static_cast<unsigned char>(v));
      break;
    case 1:
      put(static_cast<int16_t>(v));
      break;
    case 2:
      put(static_cast<float>(v));
      break;
    case 4:
      put(static_cast<float>(3 * v));
      put(static_cast<float>(4 * v));
      break;
    case 6:
      put(static_cast<uint16_t>(v));
      break;
    case 7:
      put(static_cast<int32_t>(v));
      break;
    default:
      put(v);
      break;
  }
  return out;
}

// What IMRdSec delivers for a stored value v: floats, magnitudes for complex
// pixels, and 8-byte floats as stored (never swapped) for type 8.
double deliveredValue(int type, double v, bool foreign) {
  if (type == 4) return 5 * v;
  if (type == 8 && foreign) {
    std::vector<unsigned char> const bytes = storedPixel(8, v, true);
    return hostValueAt<double>(bytes, 0);
  }
  return v;
}

// The caller's buffer of one section for IMWrSec, by type.
std::vector<unsigned char> writeBuffer(int type, std::vector<double> const& values) {
  std::vector<unsigned char> out;
  for (double v : values) {
    if (type == 4 || type == 8) {
      std::vector<unsigned char> const b = storedPixel(type, v, false);
      out.insert(out.end(), b.begin(), b.end());
    } else {
      float const f = static_cast<float>(v);
      putBytes(out, out.size(), &f, sizeof(f), false);
    }
  }
  return out;
}

class ImsubsPixels : public ImsubsTest {
 protected:
  // Stores one value in a 1 x 1 section of `type` with `write`, and returns
  // the stored integer with the verbose truncation line.
  template <typename Write>
  std::pair<int64_t, std::string> storeOne(int type, float value, Write write) {
    std::string const path = file("one");
    EXPECT_EQ(IMOpen(20, path.c_str(), "new"), 0);
    EXPECT_EQ(IMCrHdr2(20, 1, 1, 1, 1, 1, 2, type), 0);
    EXPECT_EQ(IMWrHdr2(20, 1), 0);
    int const ext = record(20)->iExtHdrSize;
    IMAlPrt(1);
    CaptureStderr();
    EXPECT_EQ(write(20, &value), 0);
    std::string const err = GetCapturedStderr();
    IMAlPrt(0);
    EXPECT_EQ(IMClose(20), 0);
    std::vector<unsigned char> const bytes = readBytes(path);
    std::size_t const at = 1024 + static_cast<std::size_t>(ext);
    int64_t stored = 0;
    switch (type) {
      case 0:
        stored = bytes.at(at);
        break;
      case 1:
        stored = hostValueAt<int16_t>(bytes, at);
        break;
      case 6:
        stored = hostValueAt<uint16_t>(bytes, at);
        break;
      default:
        stored = hostValueAt<int32_t>(bytes, at);
        break;
    }
    return {stored, err};
  }
};

TEST_F(ImsubsPixels, DescriptionBytesPerPixelAndRangeOfEveryType) {
  ASSERT_EQ(IMOpen(1, file("t").c_str(), "new"), 0);
  struct Case {
    int type;
    char const* desc;
    int bytes;
    int result;  // of the size and range calls
    double min, max;
  };
  Case const cases[] = {
      {0, "1 byte integer", 1, 0, 0, 255},
      {1, "2 byte signed integer", 2, 0, -32767, 32767},
      {2, "4 byte floating-point", 4, 0, -1e38, 1e38},
      {3, "2 byte integer complex", 4, 905, 0, 0},
      {4, "4 byte floating-point complex", 8, 0, -1e38, 1e38},
      {5, nullptr, 2, 503, 0, 0},
      {6, "2 byte unsigned integer", 2, 0, 0, 65535},
      {7, "4 byte signed integer", 4, 0, -2147483647, 2147483647},
      {8, "8 byte floating-point", 8, 0, -1e38, 1e38},
      {9, nullptr, 2, 503, 0, 0},
      {12, nullptr, 2, 503, 0, 0},
      {-1, nullptr, 2, 503, 0, 0},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.type);
    char text[40] = {};
    EXPECT_EQ(IMRtDataTypeDesc(c.type, text, sizeof(text)), c.desc != nullptr ? 0 : 503);
    EXPECT_STREQ(text, c.desc != nullptr ? c.desc : "unknown");
    record(1)->iPixelType = c.type;
    int bytes = -1;
    double min = 0, max = 0;
    CaptureStderr();
    EXPECT_EQ(IMRtBytesPerPixel(1, &bytes), c.result);
    EXPECT_EQ(IMRtDataTypeMinMax(1, &min, &max), c.result);
    std::string const why = c.result == 905 ? "16 bit complex data not supported.\n"
                            : c.result != 0
                                ? std::to_string(c.type) + " is an invalid pixel data type.\n"
                                : "";
    EXPECT_EQ(GetCapturedStderr(),
              why.empty() ? "" : "IMRtBytesPerPix 1: " + why + "IMRtDataTypeMinMax 1: " + why);
    EXPECT_EQ(bytes, c.bytes);
    EXPECT_EQ(min, c.min);
    EXPECT_EQ(max, c.max);
  }
}

TEST_F(ImsubsPixels, RoundTripOverTypeSequenceAndByteOrder) {
  int const nx = 3, ny = 2, extent = 2;  // Z, W, T and P of 2 each: 16 sections
  int const pixels = nx * ny;
  int const types[] = {0, 1, 2, 4, 6, 7, 8};
  auto valueAt = [&](int const coord[4], int i) {
    return double((coord[0] + 2 * coord[1] + 4 * coord[2] + 8 * coord[3]) * pixels + i);
  };
  for (int type : types) {
    for (int sequence = 0; sequence < 15; ++sequence) {
      for (bool foreign : {false, true}) {
        SCOPED_TRACE(testing::Message() << "type " << type << " sequence " << sequence
                                        << (foreign ? " foreign" : " host"));
        std::string const path = file("grid");
        std::string const order = IMRtImgSequenceText(sequence);
        auto sectionOf = [&](int const coord[4]) {
          int sec = 0;
          for (int k = 3; k >= 0; --k)
            sec = sec * extent + coord[std::string("ZWTP").find(order[k])];
          return sec;
        };
        int ext = 0;
        if (foreign) {
          // A foreign-order file made byte by byte; its 1024-byte extended
          // header holds no per-section words.
          RawHeader h;
          h.foreign = true;
          h.basic(nx, ny, extent, extent, extent, type, 100);
          h.put<int32_t>(hdroff::giNumSecs, 16).put<int16_t>(hdroff::gnImageSequence, sequence);
          h.put<int32_t>(hdroff::giExtHdrSize, 1024);
          h.foreign = false;  // bytes from 224 on are read as they stand
          h.put<int32_t>(hdroff::giNumP, extent);
          std::vector<unsigned char> bytes = h.bytes;
          bytes.resize(2048 + 16 * pixels * bytesOf(type));
          for (int c = 0; c < 16; ++c) {
            int const coord[4] = {c & 1, (c >> 1) & 1, (c >> 2) & 1, (c >> 3) & 1};
            for (int i = 0; i < pixels; ++i) {
              std::vector<unsigned char> const p = storedPixel(type, valueAt(coord, i), true);
              std::size_t const at =
                  2048 + (static_cast<std::size_t>(sectionOf(coord)) * pixels + i) * p.size();
              std::copy(p.begin(), p.end(), bytes.begin() + at);
            }
          }
          writeBytes(path, bytes);
          ext = 1024;
        } else {
          // Written through the library, sections in reverse coordinate order.
          char const* attrib = sequence % 2 == 0 ? "new" : "new_unbuffered";
          ASSERT_EQ(IMOpen(1, path.c_str(), attrib), 0);
          ASSERT_EQ(IMCrHdr3(1, nx, ny, extent, extent, extent, extent, sequence, type), 0);
          ASSERT_EQ(IMWrHdr2(1, 1), 0);
          ext = record(1)->iExtHdrSize;
          for (int c = 15; c >= 0; --c) {
            int const coord[4] = {c & 1, (c >> 1) & 1, (c >> 2) & 1, (c >> 3) & 1};
            std::vector<double> values;
            for (int i = 0; i < pixels; ++i) values.push_back(valueAt(coord, i));
            ASSERT_EQ(IMPosnZWTP(1, coord[0], coord[1], coord[2], coord[3]), 0);
            ASSERT_EQ(IMWrSec(1, reinterpret_cast<float const*>(writeBuffer(type, values).data())),
                      0);
          }
          ASSERT_EQ(IMClose(1), 0);
          // The stored bytes sit where the layout says.
          std::vector<unsigned char> const bytes = readBytes(path);
          ASSERT_EQ(bytes.size(), 1024u + ext + 16u * pixels * bytesOf(type));
          for (int c = 0; c < 16; ++c) {
            int const coord[4] = {c & 1, (c >> 1) & 1, (c >> 2) & 1, (c >> 3) & 1};
            std::vector<unsigned char> const p =
                storedPixel(type, valueAt(coord, pixels - 1), false);
            std::size_t const at = 1024 + ext + (sectionOf(coord) * pixels + pixels - 1) * p.size();
            EXPECT_TRUE(std::equal(p.begin(), p.end(), bytes.begin() + at)) << c;
          }
        }
        std::vector<unsigned char> const before = readBytes(path);
        char const* readAttrib = sequence % 3 == 0 ? "ro_unbuffered" : "ro";
        ASSERT_EQ(IMOpen(2, path.c_str(), readAttrib), 0);
        EXPECT_EQ(record(2)->iSwapped, foreign ? 1 : 0);
        for (int c = 0; c < 16; ++c) {
          int const coord[4] = {c & 1, (c >> 1) & 1, (c >> 2) & 1, (c >> 3) & 1};
          ASSERT_EQ(IMPosnZWTP(2, coord[0], coord[1], coord[2], coord[3]), 0);
          std::vector<double> wide(pixels);
          std::vector<float> narrow(pixels * 2);
          if (type == 8) {
            ASSERT_EQ(IMRdSec(2, wide.data()), 0);
          } else {
            ASSERT_EQ(IMRdSec(2, narrow.data()), 0);
            for (int i = 0; i < pixels; ++i) wide[i] = narrow[i];
          }
          for (int i = 0; i < pixels; ++i) {
            ASSERT_EQ(wide[i], deliveredValue(type, valueAt(coord, i), foreign)) << c << " " << i;
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

TEST_F(ImsubsPixels, SectionAndLineWritesClampAndRoundByTheirOwnRules) {
  auto writeSecl = [](int s, float const* b) { return IMWrSecl(s, b, 1); };
  auto writeLin = [](int s, float const* b) { return IMWrLin(s, b); };
  enum Call { kSec, kSecl, kLin };
  struct Case {
    Call call;
    int type;
    float value;
    int64_t stored;
    char const* counted;  // "hi", "lo" or ""
  };
  float const nan = std::numeric_limits<float>::quiet_NaN();
  Case const cases[] = {
      {kSec, 1, -32768.0f, -32767, "lo"},
      {kSec, 0, 255.9f, 255, "hi"},
      {kSec, 0, 254.9f, 254, ""},
      {kSec, 0, -0.5f, 0, "lo"},
      {kSec, 0, 0.99f, 0, ""},
      {kSec, 1, 32767.5f, 32767, "hi"},
      {kSec, 1, -3.7f, -3, ""},
      {kSec, 6, -1.0f, 0, "lo"},
      {kSec, 6, 65535.5f, 65535, "hi"},
      {kSec, 6, 40000.9f, 40000, ""},
      {kSec, 7, 2147483648.0f, INT32_MIN, ""},
      {kSec, 7, 3e9f, 2147483647, "hi"},
      {kSec, 7, -3e9f, INT32_MIN, "lo"},
      {kSec, 7, -123456.7f, -123456, ""},
      {kSec, 0, nan, 0, ""},
      {kSec, 1, nan, 0, ""},
      {kSecl, 0, 1.5f, 2, ""},
      {kSecl, 0, 254.6f, 255, "hi"},
      {kSecl, 0, -0.4f, 0, ""},
      {kSecl, 1, -3.7f, -3, ""},
      {kSecl, 1, 2.5f, 2, ""},
      {kLin, 0, 1.5f, 2, ""},
      {kLin, 0, -0.7f, 0, ""},
      {kLin, 0, 255.4f, 255, ""},
      {kLin, 0, 255.5f, 255, "hi"},
      {kLin, 1, -3.7f, -3, ""},
      {kLin, 1, 2.5f, 3, ""},
      {kLin, 6, 2.5f, 2, ""},
      {kLin, 7, 2147483648.0f, 2147483647, "hi"},
  };
  char const* const names[] = {"IMWrSec", "IMWrSecl", "IMWrLin"};
  for (Case const& c : cases) {
    SCOPED_TRACE(testing::Message() << names[c.call] << " " << c.type << " " << c.value);
    auto const [stored, err] = c.call == kSec    ? storeOne(c.type, c.value, IMWrSec)
                               : c.call == kSecl ? storeOne(c.type, c.value, writeSecl)
                                                 : storeOne(c.type, c.value, writeLin);
    EXPECT_EQ(stored, c.stored);
    std::string const counts = std::string(c.counted) == "hi"   ? "hi=1, lo=0"
                               : std::string(c.counted) == "lo" ? "hi=0, lo=1"
                                                                : "";
    EXPECT_EQ(err, counts.empty() ? ""
                                  : std::string(names[c.call]) + " 20: intensity truncation (" +
                                        counts + ").\n");
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
    std::string const path = file("fast");
    ASSERT_EQ(IMOpen(21, path.c_str(), "new"), 0);
    ASSERT_EQ(IMCrHdr2(21, nx, ny, 1, 1, 1, 2, type), 0);
    ASSERT_EQ(IMAlExHdrSize2(21, 0, 0, 1, 0), 0);
    ASSERT_EQ(IMWrHdr2(21, 1), 0);
    IMAlPrt(1);
    CaptureStderr();
    ASSERT_EQ(IMWrSec(21, values.data()), 0);
    std::string const err = GetCapturedStderr();
    IMAlPrt(0);
    ASSERT_EQ(IMClose(21), 0);
    std::vector<unsigned char> const bytes = readBytes(path);
    int hi = 0, lo = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
      int64_t const expected = referenceTruncating(type, values[i], hi, lo);
      std::size_t const at = 1024 + i * bytesOf(type);
      int64_t const got = type == 0   ? bytes[at]
                          : type == 1 ? hostValueAt<int16_t>(bytes, at)
                          : type == 6 ? hostValueAt<uint16_t>(bytes, at)
                                      : hostValueAt<int32_t>(bytes, at);
      ASSERT_EQ(got, expected) << i << " " << values[i];
    }
    EXPECT_EQ(err, "IMWrSec 21: intensity truncation (hi=" + std::to_string(hi) +
                       ", lo=" + std::to_string(lo) + ").\n");
  }
}

TEST_F(ImsubsPixels, TruncatedStackGives212) {
  RawHeader h;
  h.basic(4, 4, 3, 1, 1, 1, 100);
  h.writePadded(file("cut"), 1024 + 2 * 32 + 10);  // the third section is cut short
  ASSERT_EQ(IMOpen(3, file("cut").c_str(), "ro"), 0);
  std::vector<float> section(16);
  ASSERT_EQ(IMPosn(3, 2, 0), 0);
  CaptureStderr();
  EXPECT_EQ(IMRdSec(3, section.data()), 212);
  std::string const err = GetCapturedStderr();
  EXPECT_EQ(err.substr(0, err.find('\n') + 1), "IMRdSec 3: only 5 pixels read (EOF=1).\n");
  EXPECT_EQ(err.substr(err.find('\n') + 1, 8), "        ");
  EXPECT_EQ(record(3)->iLastOp, kLastOpPositioned);
}

TEST_F(ImsubsPixels, RawAndRefusedTypes) {
  // Conversion off: raw 16-bit pixels, swapped for a foreign file.
  RawHeader h;
  h.foreign = true;
  h.basic(2, 1, 1, 1, 1, 1, 100);
  std::vector<unsigned char> bytes = h.bytes;
  bytes.insert(bytes.end(), {0x01, 0x02, 0xFF, 0xFE});
  writeBytes(file("raw"), bytes);
  ASSERT_EQ(IMOpen(4, file("raw").c_str(), "ro"), 0);
  record(4)->iConvert = 0;
  int16_t raw[2] = {};
  ASSERT_EQ(IMRdSec(4, raw), 0);
  EXPECT_EQ(raw[0], 0x0102);
  EXPECT_EQ(raw[1], -2);
  ASSERT_EQ(IMClose(4), 0);

  // Type 3: refused both ways; on a foreign file the swap fails first.
  bytes[hdroff::giPixDataType + 3] = 3;
  writeBytes(file("raw"), bytes);
  CaptureStderr();
  ASSERT_EQ(IMOpen(4, file("raw").c_str(), "ro"), 0);
  float out[4] = {};
  EXPECT_EQ(IMRdSec(4, out), 214);
  EXPECT_EQ(GetCapturedStderr(),
            "IMRtBytesPerPix 4: 16 bit complex data not supported.\n"
            "IMSubs: internal error involving the number of bytes per pixel.\n"
            "IMRdSec 4: byte swap failed\n");
  record(4)->iSwapped = 0;
  ASSERT_EQ(IMPosn(4, 0, 0), 0);
  EXPECT_EQ(IMRdSec(4, out), 905);
  ASSERT_EQ(IMClose(4), 0);

  ASSERT_EQ(IMOpen(5, file("w").c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(5, 2, 2, 1, 1, 1, 2, 2), 0);
  ASSERT_EQ(IMAlExHdrSize2(5, 0, 0, 1, 0), 0);
  ASSERT_EQ(IMWrHdr2(5, 1), 0);
  float const four[4] = {1, 2, 3, 4};
  record(5)->iPixelType = 3;
  EXPECT_EQ(IMWrSec(5, four), 905);
  record(5)->iPixelType = 5;
  EXPECT_EQ(IMWrSec(5, four), 0);  // success with nothing written
  EXPECT_EQ(fileSize(file("w")), 1024);
  EXPECT_EQ(IMWrPal(5), 904);
}

TEST_F(ImsubsPixels, ReadsAndWritesAlternateOnOneBufferedStream) {
  ASSERT_EQ(IMOpen(6, file("alt").c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(6, 4, 4, 3, 1, 1, 2, 1), 0);
  ASSERT_EQ(IMWrHdr2(6, 1), 0);
  std::vector<float> a(16, 1.0f), b(16, 2.0f), c(16, 3.0f), got(16);
  ASSERT_EQ(IMWrSec(6, a.data()), 0);
  ASSERT_EQ(IMWrSec(6, a.data()), 0);
  ASSERT_EQ(IMWrSec(6, a.data()), 0);
  ASSERT_EQ(IMPosn(6, 0, 0), 0);
  ASSERT_EQ(IMRdSec(6, got.data()), 0);
  ASSERT_EQ(IMWrSec(6, b.data()), 0);    // read then write: section 1
  ASSERT_EQ(IMRdSec(6, got.data()), 0);  // write then read: section 2
  EXPECT_EQ(got, a);
  ASSERT_EQ(IMPosn(6, 1, 0), 0);
  ASSERT_EQ(IMRdSec(6, got.data()), 0);
  EXPECT_EQ(got, b);
  ASSERT_EQ(IMWrSec(6, c.data()), 0);
  ASSERT_EQ(IMPosn(6, 2, 0), 0);
  ASSERT_EQ(IMRdSec(6, got.data()), 0);
  EXPECT_EQ(got, c);
}

TEST_F(ImsubsPixels, PartLinesAndRectangles) {
  int const nx = 6, ny = 5;
  ASSERT_EQ(IMOpen(7, file("rect").c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(7, nx, ny, 2, 1, 1, 2, 1), 0);
  ASSERT_EQ(IMWrHdr2(7, 1), 0);
  std::vector<float> section(nx * ny);
  for (int i = 0; i < nx * ny; ++i) section[i] = static_cast<float>(i);
  ASSERT_EQ(IMWrSec(7, section.data()), 0);
  ASSERT_EQ(IMWrSec(7, section.data()), 0);

  // Part of line 0, then the whole of line 1.
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  float part[3];
  ASSERT_EQ(IMRdPal(7, part, 2, 4), 0);
  EXPECT_EQ(std::vector<float>(part, part + 3), (std::vector<float>{2, 3, 4}));
  EXPECT_EQ(record(7)->iLastOp, kLastOpPositioned);
  float line[6];
  ASSERT_EQ(IMRdLin(7, line), 0);
  EXPECT_EQ(line[0], 6.0f);
  ASSERT_EQ(IMRdPal(7, part, 3, 5), 0);
  EXPECT_EQ(part[2], 17.0f);
  EXPECT_EQ(record(7)->iLastOp, kLastOpRead);
  stderrOf([&] { EXPECT_EQ(IMRdPal(7, part, 4, 6), 302); });

  // A rectangle written into section 0 from a 4 x 3 array.
  std::vector<float> patch(12);
  for (int i = 0; i < 12; ++i) patch[i] = 100.0f + i;
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  ASSERT_EQ(IMWrPas(7, patch.data(), 4, 3, 1, 3, 2, 3), 0);
  EXPECT_EQ(record(7)->iLastOp, kLastOpPositioned);
  EXPECT_EQ(dStreamFileTell(record(7)), 1024.0 + record(7)->iExtHdrSize + nx * ny * 2);
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  std::vector<float> back(nx * ny);
  ASSERT_EQ(IMRdSec(7, back.data()), 0);
  std::vector<float> expected = section;
  for (int r = 2; r <= 3; ++r) {
    for (int col = 1; col <= 3; ++col) expected[r * nx + col] = patch[(r - 2) * 4 + (col - 1)];
  }
  EXPECT_EQ(back, expected);
  ASSERT_EQ(IMRdSec(7, back.data()), 0);
  EXPECT_EQ(back, section);  // section 1 untouched

  // The same rectangle read into a 5 x 4 array.
  std::vector<float> array(20, -1.0f);
  ASSERT_EQ(IMPosn(7, 0, 0), 0);
  ASSERT_EQ(IMRdPas(7, array.data(), 5, 4, 1, 3, 2, 3), 0);
  EXPECT_EQ(array[0], 100.0f);
  EXPECT_EQ(array[2], 102.0f);
  EXPECT_EQ(array[3], -1.0f);
  EXPECT_EQ(array[5], 104.0f);
  ASSERT_EQ(IMRdSec(7, back.data()), 0);
  EXPECT_EQ(back, section);  // the stream stood at section 1

  struct Refusal {
    int mx, my, c0, c1, r0, r1, result;
    char const* err;
  };
  Refusal const refusals[] = {
      {2, 3, 1, 3, 2, 3, 402, "IMWrPas 7: too many columns (3/2/6).\n"},
      {4, 3, 1, 6, 2, 3, 402, "IMWrPas 7: too many columns (6/4/6).\n"},
      {4, 1, 1, 3, 2, 3, 403, "IMWrPas 7: too many rows (2/1/5).\n"},
      {4, 9, 1, 3, 4, 5, 403, "IMWrPas 7: too many rows (2/9/5).\n"},
  };
  for (Refusal const& r : refusals) {
    CaptureStderr();
    EXPECT_EQ(IMWrPas(7, patch.data(), r.mx, r.my, r.c0, r.c1, r.r0, r.r1), r.result);
    EXPECT_EQ(GetCapturedStderr(), r.err);
  }
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMRdPas(7, array.data(), 2, 3, 1, 3, 2, 3), 402); }),
            "IMRdPas 7: too many columns (3/2/6).\n");
}

TEST_F(ImsubsPixels, HostileHeadersAreRefusedSafely) {
  struct Case {
    int nx, ny;
    int result;
    char const* err;
  };
  Case const cases[] = {
      {-4, 4, 402, "IMRdSec 8: invalid number of columns (-4).\n"},
      {4, -4, 403, "IMRdSec 8: invalid number of rows (-4).\n"},
      {65536, 65536, 403, "IMRdSec 8: invalid number of rows (65536).\n"},
  };
  for (Case const& c : cases) {
    RawHeader h;
    h.basic(c.nx, c.ny, 1, 1, 1, 2, 100);
    h.writePadded(file("bad"), 1024 + 64);
    ASSERT_EQ(IMOpen(8, file("bad").c_str(), "ro"), 0);
    float out[16];
    CaptureStderr();
    EXPECT_EQ(IMRdSec(8, out), c.result);
    EXPECT_EQ(IMWrSec(8, out), c.result);
    std::string const err = GetCapturedStderr();
    EXPECT_EQ(err.substr(0, err.find('\n') + 1), c.err);
    ASSERT_EQ(IMClose(8), 0);
  }
  // An extended header far larger than the file: 210, and the stream stays.
  RawHeader h;
  h.basic(2, 2, 1, 1, 1, 2, 100).put<int32_t>(hdroff::giExtHdrSize, 1 << 20);
  h.writePadded(file("bigext"), 1024 + 100);
  std::string const name = file("bigext");
  CaptureStderr();
  EXPECT_EQ(IMOpen(9, name.c_str(), "ro"), 210);
  EXPECT_EQ(GetCapturedStderr(),
            "IMOpen 9: error reading extended header (100,1048576,ro,\"" + name + "\").\n");
  ASSERT_NE(record(9), nullptr);
  float out[4];
  CaptureStderr();
  EXPECT_EQ(IMRdSec(9, out), 212);  // the pixels lie past the end
  GetCapturedStderr();
  // A negative extended header size puts the pixels before the file start.
  RawHeader n;
  n.basic(2, 2, 1, 1, 1, 2, 100).put<int32_t>(hdroff::giExtHdrSize, -5000);
  writeBytes(file("negext"), n.bytes);
  CaptureStderr();
  EXPECT_EQ(IMOpen(10, file("negext").c_str(), "ro"), 0);
  EXPECT_EQ(IMPosn(10, 0, 0), 301);
  GetCapturedStderr();
}

}  // namespace
}  // namespace imtest
