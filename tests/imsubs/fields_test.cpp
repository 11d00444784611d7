// Named field store: the parser's failures as one table, the byte counting,
// the typed set and get calls with their refusals, the rebuild with its
// overrun warning, and files whose field section is broken, which must open
// with their pixels and without their fields.
#include <gmock/gmock.h>

#include <functional>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

using testing::HasSubstr;

constexpr int kRecordBytes = 8;  // one section of type 1 in front of the fields

class FieldsTest : public ImsubsTest {
 protected:
  // A stream whose field section holds exactly `text`, one spare byte behind.
  void openWithSection(std::string const& text) {
    ASSERT_EQ(IMOpen(1, file("f").c_str(), "new"), 0);
    int const size = kRecordBytes + static_cast<int>(text.size()) + 1;
    ASSERT_EQ(IMAlExHdrInfo(1, 1, size, 1, 1), 0);
    std::copy(text.begin(), text.end(), record(1)->pExtHdr + kRecordBytes);
  }
  // A new stack with the default extended header (type 4, 3 field blocks).
  void openStack() {
    ASSERT_EQ(IMOpen(1, file("stack").c_str(), "new"), 0);
    ASSERT_EQ(IMCrHdr2(1, 2, 2, 2, 1, 1, 0, 2), 0);
  }
};

struct ParseCase {
  char const* what;
  std::string section;
  int result;
  int fields;
  char const* message;  // "" for none
};

TEST_F(FieldsTest, ParserOutcomes) {
  std::string const name63(63, 'N');
  std::string const name64(64, 'N');
  std::vector<ParseCase> const cases = {
      {"one text field", "name,c,5=hello\n\r", 0, 1, ""},
      {"three fields", "a,c,1=x\nbb,i,3=-17\nccc,d,9=-2.000000\n\r", 0, 3, ""},
      {"binary holding breaks", std::string("blob,b,6=a\nb\rc\0\n\r", 17), 0, 1, ""},
      {"size zero", "empty,c,0=\n\r", 0, 1, ""},
      {"carriage return in a value", "v,c,3=a\rb\n\r", 0, 1, ""},
      {"name of 63", name63 + ",c,1=z\n\r", 0, 1, ""},
      {"all zeros", std::string(40, '\0'), 730, 0, ""},
      {"no terminator", "name,c,5=hello\n", 730, 0, ""},
      {"terminator too early", "abc\rdefgh", 730, 0, ""},
      {"name of 64", name64 + ",c,1=z\n\r", 736, 0, ""},
      {"name of 65", name64 + "N,c,1=z\n\r", 721, 0, ""},
      {"name without comma", "justtextnocomma\r", 721, 0, ""},
      {"no type", "abcdef,\r", 722, 0, ""},
      {"type without comma", "name,cc5=hello\n\r", 722, 0, ""},
      {"no size", "abcdef,c,\r", 723, 0, ""},
      {"size without equals", "abcd,c,12\r", 723, 0, ""},
      {"size text of 64", "n,c," + std::string(63, '0') + "1=z\n\r", 736, 0, ""},
      {"size text of 65", "n,c," + std::string(64, '0') + "1=z\n\r", 723, 0, ""},
      {"size text not a number", "name,c,x=hello\n\r", 724, 0, "Error parsing field size from x\n"},
      {"size past the data", "name,b,99=hello\n\r", 723, 0,
       "iReadAllFields: field size mismatch or delimiter problem:\nfield 0\nfield=\"name\"\n"
       "field size=99\nlast char=13/10\npos=16/16\n"},
      {"size short of the value", "name,c,3=hello\n\r", 723, 0,
       "iReadAllFields: field size mismatch or delimiter problem:\nfield 0\nfield=\"name\"\n"
       "field size=3\nlast char=108/10\npos=12/15\n"},
      {"text holding a line feed", "t,c,5=ab\ncd\n\r", 725, 0, ""},
      {"text shorter than its size", "name,c,99=hello\n\r", 725, 0, ""},
      {"good field then a broken one", "a,c,1=x\nb,c,9=y\n\r", 725, 0, nullptr},
  };
  for (ParseCase const& c : cases) {
    SCOPED_TRACE(c.what);
    openWithSection(c.section);
    CaptureStderr();
    EXPECT_EQ(iReadAllFields(1, nullptr), c.result);
    std::string const err = GetCapturedStderr();
    if (c.message != nullptr) {
      EXPECT_EQ(err, c.message);
    }
    EXPECT_EQ(record(1)->iNumFields, c.fields);
    EXPECT_EQ(IMRtNumFields(1), c.fields);
    IMClose(1);
  }
}

TEST_F(FieldsTest, ParsedValuesAndRawText) {
  std::string const section("blob,b,6=a\nb\rc\0\nsize0,c,0=\nn,i,3=abc\n\r", 38);
  openWithSection(section);
  IMAlPrt(1);
  CaptureStdout();
  ASSERT_EQ(iReadAllFields(1, nullptr), 0);
  EXPECT_EQ(GetCapturedStdout(), "iReadAllFields: found 3 fields\n");
  IMAlPrt(0);
  char* data = nullptr;
  int size = 0;
  ASSERT_EQ(IMRtFieldBinary(1, "blob", &data, &size), 0);
  EXPECT_EQ(std::string(data, 6), std::string("a\nb\rc\0", 6));
  IMFreeFieldContentsPtr(data);
  ASSERT_EQ(IMRtFieldBinary(1, "size0", &data, &size), 733);
  char* text = nullptr;
  ASSERT_EQ(IMRtFieldChar(1, "size0", &text), 0);
  EXPECT_STREQ(text, "");
  IMFreeFieldContentsPtr(text);
  int n = 0;
  EXPECT_EQ(IMRtFieldInt(1, "n", &n), 726);  // "abc" is no integer

  char* raw = nullptr;
  ASSERT_EQ(IMRtFieldHdr(1, &raw, &size), 0);
  EXPECT_EQ(size, static_cast<int>(section.size()) - 1);
  EXPECT_EQ(std::string(raw, static_cast<std::size_t>(size)),
            section.substr(0, section.size() - 1));
  IMFreeFieldContentsPtr(raw);

  char* name = nullptr;
  char type = 0;
  char* value = nullptr;
  ASSERT_EQ(IMRtFieldNum(1, 2, &name, &type, &size, &value), 0);
  EXPECT_STREQ(name, "n");
  EXPECT_EQ(type, 'i');
  EXPECT_EQ(size, 3);
  EXPECT_STREQ(value, "abc");
  IMFreeFieldContentsPtr(name);
  IMFreeFieldContentsPtr(value);
  EXPECT_EQ(IMRtFieldNum(1, 3, &name, &type, &size, &value), 729);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(type, '0');
  EXPECT_EQ(IMRtFieldNum(1, -1, nullptr, nullptr, nullptr, nullptr), 729);
}

TEST_F(FieldsTest, NegativeSizesCountAsTheyStand) {
  // A negative size copies nothing and parses; the byte count follows the
  // rule literally, so the space left may exceed the room.
  std::string const section = "n,c,-2147483600=\n\r";
  openWithSection(section);
  ASSERT_EQ(iReadAllFields(1, nullptr), 0);
  EXPECT_EQ(record(1)->pFieldSizes[0], -2147483600);
  EXPECT_EQ(record(1)->iFieldBytesUsed, 1 + 1 + 11 + 5 - 2147483600);
  int const room = static_cast<int>(section.size());
  EXPECT_EQ(IMRtFieldHdrSpace(1), room + 2147483582);
  char* value = nullptr;
  ASSERT_EQ(IMRtFieldNum(1, 0, nullptr, nullptr, nullptr, &value), 0);
  EXPECT_STREQ(value, "");
  IMFreeFieldContentsPtr(value);
}

struct GetCase {
  char const* what;
  std::function<int(int)> call;
  int result;
};

TEST_F(FieldsTest, TypedCallsAndTheirRefusals) {
  openStack();
  ASSERT_EQ(IMAlFieldInt(1, "Count", 17), 0);
  ASSERT_EQ(IMAlFieldDouble(1, "exposure", 0.25), 0);
  ASSERT_EQ(IMAlFieldFloat(1, "gain", 2.5f), 0);
  ASSERT_EQ(IMAlFieldChar(1, "lens", "60x"), 0);
  EXPECT_EQ(record(1)->ppFieldContents[1], std::string("0.250000"));
  EXPECT_EQ(record(1)->ppFieldContents[2], std::string("2.500000"));
  static int i;
  static double d;
  static float f;
  static char* text;
  std::vector<GetCase> const cases = {
      {"int by any case", [](int s) { return IMRtFieldInt(s, "COUNT", &i); }, 0},
      {"double", [](int s) { return IMRtFieldDouble(s, "exposure", &d); }, 0},
      {"float", [](int s) { return IMRtFieldFloat(s, "gain", &f); }, 0},
      {"int as double", [](int s) { return IMRtFieldDouble(s, "count", &d); }, 733},
      {"text as int", [](int s) { return IMRtFieldInt(s, "lens", &i); }, 733},
      {"missing", [](int s) { return IMRtFieldChar(s, "none", &text); }, 731},
      {"null name", [](int s) { return IMRtFieldInt(s, nullptr, &i); }, 734},
      {"null output", [](int s) { return IMRtFieldFloat(s, "gain", nullptr); }, 734},
      {"binary without size", [](int s) { return IMRtFieldBinary(s, "lens", &text, nullptr); },
       734},
      {"unknown type", [](int s) { return IMAlField(s, "x", "1", 'q', 1); }, 722},
      {"name of 64", [](int s) { return IMAlFieldInt(s, std::string(64, 'n').c_str(), 1); }, 736},
      {"null name stored", [](int s) { return IMAlFieldInt(s, nullptr, 1); }, 721},
  };
  for (GetCase const& c : cases) {
    SCOPED_TRACE(c.what);
    stderrOf([&] { EXPECT_EQ(c.call(1), c.result); });
  }
  EXPECT_EQ(i, 17);
  EXPECT_EQ(d, 0.25);
  EXPECT_EQ(f, 2.5f);
  EXPECT_EQ(record(1)->iNumFields, 4);

  // Lookup ignores case; storing does not, so a second field appears.
  int index = -1;
  ASSERT_EQ(IMFindFieldNum(1, "count", &index), 0);
  EXPECT_EQ(index, 0);
  ASSERT_EQ(IMAlFieldInt(1, "count", 3), 0);
  EXPECT_EQ(record(1)->iNumFields, 5);
  ASSERT_EQ(IMAlFieldInt(1, "count", 4), 0);  // replaces the exact name
  EXPECT_EQ(record(1)->iNumFields, 5);
  std::string const name63(63, 'L');
  ASSERT_EQ(IMAlFieldChar(1, name63.c_str(), "long"), 0);
  ASSERT_EQ(IMRtFieldChar(1, name63.c_str(), &text), 0);
  EXPECT_STREQ(text, "long");
  IMFreeFieldContentsPtr(text);
}

TEST_F(FieldsTest, ReadingTheFieldAgainForgetsUnwrittenStores) {
  openStack();
  ASSERT_EQ(IMAlFieldInt(1, "kept", 1), 0);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  ASSERT_EQ(IMAlFieldInt(1, "fresh", 2), 0);
  int value = 0;
  EXPECT_EQ(IMRtFieldInt(1, "fresh", &value), 0);
  EXPECT_EQ(value, 2);
  char* text = nullptr;
  char type = 0;
  int size = 0;
  EXPECT_EQ(IMRtField(1, "fresh", &text, &type, &size), 731);  // re-parses the section
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(type, '0');
  ASSERT_EQ(IMRtField(1, "KEPT", &text, &type, nullptr), 0);
  EXPECT_STREQ(text, "1");
  EXPECT_EQ(type, 'i');
  IMFreeFieldContentsPtr(text);
  EXPECT_EQ(IMRtFieldInt(1, "fresh", &value), 731);
}

// Reusing an open slot for another file must not show the first file's fields.
TEST_F(FieldsTest, ReopeningASlotForgetsTheEarlierFields) {
  openStack();
  ASSERT_EQ(IMAlFieldInt(1, "kept", 1), 0);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  ASSERT_EQ(IMRtNumFields(1), 1);
  RawHeader h;
  h.basic(2, 2, 1, 1, 1, 2, 100);
  writeBytes(file("plain"), h.bytes);
  CaptureStderr();
  ASSERT_EQ(IMOpen(1, file("plain").c_str(), "ro"), 0);
  GetCapturedStderr();
  EXPECT_EQ(IMRtNumFields(1), 0);
  int value = 0;
  EXPECT_NE(IMRtFieldInt(1, "kept", &value), 0);
  IMClose(1);
}

TEST_F(FieldsTest, ByteCounting) {
  openStack();
  // 2 sections of 40 words in a 4096-byte block.
  EXPECT_EQ(IMRtFieldHdrSizeMax(1), 4096 - 1 - 320);
  EXPECT_EQ(IMRtFieldHdrSpace(1), 4096 - 1 - 320);
  ASSERT_EQ(IMAlFieldFloat(1, "gain", 1.5f), 0);            // 4 + 1 + 5 + 8 = 18
  ASSERT_EQ(IMAlFieldBinary(1, "b", "0123456789", 10), 0);  // 1 + 2 + 5 + 10 = 18
  EXPECT_EQ(record(1)->iFieldBytesUsed, 1 + 18 + 18);
  EXPECT_EQ(IMRtFieldHdrSpace(1), 4096 - 1 - 320 - 37);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  char* raw = nullptr;
  int size = 0;
  ASSERT_EQ(IMRtFieldHdr(1, &raw, &size), 0);
  EXPECT_EQ(std::string(raw), "gain,f,8=1.500000\nb,b,10=0123456789\n");
  EXPECT_EQ(size + 1, record(1)->iFieldBytesUsed);
  IMFreeFieldContentsPtr(raw);
}

TEST_F(FieldsTest, OverfullStoreWarnsAndTheRebuildWritesWhatFits) {
  // A block whose field section holds 30 bytes.
  ASSERT_EQ(IMOpen(1, file("tight").c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(1, 2, 2, 1, 1, 1, 0, 2), 0);
  ASSERT_EQ(IMAlExHdrInfo(1, 1, kRecordBytes + 31, 1, 1), 0);
  EXPECT_EQ(IMRtFieldHdrSizeMax(1), 30);
  ASSERT_EQ(IMAlFieldChar(1, "a", "0123456789"), 0);  // 1 + 2 + 5 + 10 = 18, used 19
  CaptureStderr();
  EXPECT_EQ(IMAlFieldChar(1, "b", "0123456789"), 720);
  EXPECT_EQ(GetCapturedStderr(),
            "Stream 1 out of field header space. (Field 1,size=37,max allowed=30,ext hdr "
            "size=39).\n");
  EXPECT_EQ(record(1)->iNumFields, 2);  // kept in the arrays
  CaptureStderr();
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  EXPECT_EQ(GetCapturedStderr(),
            "IMWrHdr2 1: field header overrun\n  num fields=1 out of 2 expected\n"
            "  num bytes stored=19 out of 37 expected (max allowed=30\n");
  ASSERT_EQ(iReadAllFields(1, nullptr), 0);
  EXPECT_EQ(record(1)->iNumFields, 1);
}

TEST_F(FieldsTest, ReplacingABinaryValueCutsItAtItsFirstNul) {
  openStack();
  ASSERT_EQ(IMAlFieldBinary(1, "blob", "abcdef", 6), 0);
  ASSERT_EQ(IMAlFieldBinary(1, "blob", "xy\0zw!", 6), 0);
  char* data = nullptr;
  int size = 0;
  ASSERT_EQ(IMRtFieldBinary(1, "blob", &data, &size), 0);
  EXPECT_EQ(size, 6);
  EXPECT_EQ(std::string(data, 6), std::string("xy\0\0\0\0", 6));
  IMFreeFieldContentsPtr(data);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);  // writes six bytes, the rest of them zeros
  ASSERT_EQ(iReadAllFields(1, nullptr), 0);
  EXPECT_EQ(record(1)->pFieldSizes[0], 6);
}

struct BrokenFileCase {
  char const* what;
  std::string section;
};

TEST_F(FieldsTest, BrokenFieldSectionCostsTheFieldsNotThePixels) {
  std::vector<BrokenFileCase> const cases = {
      {"missing terminator", "name,c,5=hello\n"},
      {"bad size text", "name,c,five=hello\n\r"},
      {"size past the data", "name,c,4000=hello\n\r"},
      {"name of 64", std::string(64, 'n') + ",c,1=z\n\r"},
      {"no comma at all", std::string(3000, 'x') + "\r"},
  };
  constexpr int kExtHdrSize = 4096;
  constexpr int kSections = 2;
  for (BrokenFileCase const& c : cases) {
    SCOPED_TRACE(c.what);
    RawHeader h;
    h.basic(3, 2, kSections, 1, 1, 2, 100);
    h.put<int32_t>(hdroff::giExtHdrSize, kExtHdrSize);
    h.put<int16_t>(hdroff::gnNumExtHdrInts, 1);
    h.put<int16_t>(hdroff::gnNumExtHdrFloats, 1);
    std::vector<unsigned char> bytes = h.bytes;
    bytes.resize(kHeaderBytes + kExtHdrSize, 0);
    std::copy(c.section.begin(), c.section.end(), bytes.begin() + kHeaderBytes + 8 * kSections);
    for (int i = 0; i < 3 * 2 * kSections; ++i) {
      float const pixel = 10.0f + i;
      putBytes(bytes, bytes.size(), &pixel, 4, false);
    }
    std::string const path = file("broken");
    writeBytes(path, bytes);
    stderrOf([&] { EXPECT_EQ(IMOpen(1, path.c_str(), "ro"), 0); });
    EXPECT_EQ(IMRtNumFields(1), 0);
    std::vector<float> pixels(6);
    ASSERT_EQ(IMPosn(1, 1, 0), 0);
    ASSERT_EQ(IMRdSec(1, pixels.data()), 0);
    EXPECT_EQ(pixels[5], 21.0f);
    IMClose(1);
  }
}

}  // namespace
}  // namespace imtest
