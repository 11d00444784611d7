// Named field store: the parser's outcomes as one table, the byte counting,
// the typed set and get calls with their refusals, and the rebuild with its
// overrun warning.
#include "imsubs_fixture.h"

namespace imtest {
namespace {

constexpr int kRecordBytes = 8;  // one section of type 1 in front of the fields

class FieldsTest : public ImsubsTest {
 protected:
  // A stream whose field section holds exactly `text`, one spare byte behind.
  void openWithSection(std::string const& text) {
    ASSERT_EQ(IMOpen(1, file("f").c_str(), "new"), 0);
    ASSERT_EQ(IMAlExHdrInfo(1, 1, kRecordBytes + static_cast<int>(text.size()) + 1, 1, 1), 0);
    std::copy(text.begin(), text.end(), record(1)->pExtHdr + kRecordBytes);
  }
};

TEST_F(FieldsTest, ParserOutcomes) {
  std::string const n63(63, 'N'), n64(64, 'N');
  std::string const mismatch =
      "iReadAllFields: field size mismatch or delimiter problem:\nfield 0\n";
  struct Case {
    std::string section;
    int result, fields;
    std::string message;  // "?": not checked
  };
  // clang-format off
  Case const cases[] = {
      {"name,c,5=hello\n\r", 0, 1, ""}, {"a,c,1=x\nbb,i,3=-17\nccc,d,9=-2.000000\n\r", 0, 3, ""},
      {std::string("blob,b,6=a\nb\rc\0\n\r", 17), 0, 1, ""}, {"empty,c,0=\n\r", 0, 1, ""},
      {"v,c,3=a\rb\n\r", 0, 1, ""}, {n63 + ",c,1=z\n\r", 0, 1, ""},
      {std::string(40, '\0'), 730, 0, ""}, {"name,c,5=hello\n", 730, 0, ""},
      {"abc\rdefgh", 730, 0, ""}, {n64 + ",c,1=z\n\r", 736, 0, ""},
      {n64 + "N,c,1=z\n\r", 721, 0, ""}, {"justtextnocomma\r", 721, 0, ""},
      {"abcdef,\r", 722, 0, ""}, {"name,cc5=hello\n\r", 722, 0, ""},
      {"abcdef,c,\r", 723, 0, ""}, {"abcd,c,12\r", 723, 0, ""},
      {"n,c," + std::string(63, '0') + "1=z\n\r", 736, 0, ""},
      {"n,c," + std::string(64, '0') + "1=z\n\r", 723, 0, ""},
      {"name,c,x=hello\n\r", 724, 0, "Error parsing field size from x\n"},
      {"name,b,99=hello\n\r", 723, 0,
       (mismatch + "field=\"name\"\nfield size=99\nlast char=13/10\npos=16/16\n")},
      {"name,c,3=hello\n\r", 723, 0,
       (mismatch + "field=\"name\"\nfield size=3\nlast char=108/10\npos=12/15\n")},
      {"t,c,5=ab\ncd\n\r", 725, 0, ""},
      {"name,c,99=hello\n\r", 725, 0, ""},
      {"a,c,1=x\nb,c,9=y\n\r", 725, 0, "?"},
  };
  // clang-format on
  for (Case const& c : cases) {
    openWithSection(c.section);
    std::string const err =
        stderrOf([&] { EXPECT_EQ(iReadAllFields(1, nullptr), c.result) << c.section; });
    if (c.message != "?") {
      EXPECT_EQ(err, c.message) << c.section;
    }
    EXPECT_EQ(record(1)->iNumFields, c.fields);
    EXPECT_EQ(IMRtNumFields(1), c.fields);
    IMClose(1);
  }
}

TEST_F(FieldsTest, TypedCallsCountingAndTheirRefusals) {
  create(1, "stack", 2, 2, 2, 1, 1);  // type 4: 2 sections of 40 words in 4096 bytes
  EXPECT_EQ(IMRtFieldHdrSizeMax(1), 4096 - 1 - 320);
  ASSERT_TRUE(allOk({IMAlFieldFloat(1, "gain", 2.5f), IMAlFieldBinary(1, "b", "0123456789", 10)}));
  EXPECT_EQ(record(1)->iFieldBytesUsed, 1 + 18 + 18);  // name, type, size and value with marks
  EXPECT_EQ(IMRtFieldHdrSpace(1), 4096 - 1 - 320 - 37);
  ASSERT_TRUE(allOk({IMAlFieldInt(1, "Count", 17), IMAlFieldDouble(1, "exposure", 0.25),
                     IMAlFieldChar(1, "lens", "60x"), IMWrHdr2(1, 1)}));
  char* raw = nullptr;
  int size = 0;
  ASSERT_EQ(IMRtFieldHdr(1, &raw, &size), 0);
  EXPECT_EQ(std::string(raw),
            "gain,f,8=2.500000\nb,b,10=0123456789\nCount,i,2=17\n"
            "exposure,d,8=0.250000\nlens,c,3=60x\n");
  EXPECT_EQ(size + 1, record(1)->iFieldBytesUsed);
  IMFreeFieldContentsPtr(raw);
  int i = 0;
  double d = 0;
  float f = 0;
  char* text = nullptr;
  expectCalls({
      IM_CALL(IMRtFieldInt(1, "COUNT", &i), 0, ""),
      IM_CALL(IMRtFieldDouble(1, "exposure", &d), 0, ""),
      IM_CALL(IMRtFieldFloat(1, "gain", &f), 0, ""),
      IM_CALL(IMRtFieldDouble(1, "count", &d), 733, ""),
      IM_CALL(IMRtFieldChar(1, "none", &text), 731, ""),
      IM_CALL(IMRtFieldInt(1, nullptr, &i), 734, ""),
      IM_CALL(IMRtFieldBinary(1, "lens", &text, nullptr), 734, ""),
      IM_CALL(IMAlField(1, "x", "1", 'q', 1), 722, "IMAlField: unrecognized field type (q).\n"),
      IM_CALL(IMAlFieldInt(1, std::string(64, 'n').c_str(), 1), 736, ""),
      IM_CALL(IMAlFieldInt(1, nullptr, 1), 721, ""),
  });
  EXPECT_EQ(std::vector<double>({double(i), d, f}), std::vector<double>({17, 0.25, 2.5}));
  // Lookup ignores case; storing does not, so a second field appears.
  int index = -1;
  ASSERT_EQ(IMFindFieldNum(1, "count", &index), 0);
  EXPECT_EQ(index, 2);
  ASSERT_TRUE(allOk({IMAlFieldInt(1, "count", 3), IMAlFieldInt(1, "count", 4)}));
  EXPECT_EQ(record(1)->iNumFields, 6);
  EXPECT_EQ(record(1)->ppFieldContents[5], std::string("4"));
  // Reading a field again re-parses the section, forgetting unwritten stores.
  ASSERT_TRUE(allOk({IMAlFieldInt(1, "fresh", 2), IMRtFieldInt(1, "fresh", &i)}));
  EXPECT_EQ(i, 2);
  char type = 0;
  EXPECT_EQ(IMRtField(1, "fresh", &text, &type, &size), 731);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(type, '0');
  ASSERT_EQ(IMRtField(1, "LENS", &text, &type, nullptr), 0);
  EXPECT_STREQ(text, "60x");
  EXPECT_EQ(type, 'c');
  IMFreeFieldContentsPtr(text);
  // A binary value replaced is cut at its first NUL, and written with zeros.
  ASSERT_TRUE(
      allOk({IMAlFieldBinary(1, "b", "xy\0zw!", 6), IMRtFieldBinary(1, "b", &text, &size)}));
  EXPECT_EQ(std::string(text, size), std::string("xy\0\0\0\0", 6));
  IMFreeFieldContentsPtr(text);
  ASSERT_TRUE(allOk({IMWrHdr2(1, 1), iReadAllFields(1, nullptr)}));
  EXPECT_EQ(record(1)->pFieldSizes[1], 6);
  // Reusing the slot for another file must not show the first file's fields.
  RawHeader().basic(2, 2, 1, 1, 1, 2, 100).write(file("plain"));
  stderrOf([&] { ASSERT_EQ(IMOpen(1, file("plain").c_str(), "ro"), 0); });
  EXPECT_EQ(IMRtNumFields(1), 0);
  EXPECT_NE(IMRtFieldInt(1, "gain", &i), 0);
}

TEST_F(FieldsTest, OverfullStoreWarnsAndTheRebuildWritesWhatFits) {
  create(1, "tight", 2, 2, 1, 1, 1);
  ASSERT_EQ(IMAlExHdrInfo(1, 1, kRecordBytes + 31, 1, 1), 0);  // 30 bytes for fields
  EXPECT_EQ(IMRtFieldHdrSizeMax(1), 30);
  ASSERT_EQ(IMAlFieldChar(1, "a", "0123456789"), 0);
  EXPECT_EQ(record(1)->iFieldBytesUsed, 19);  // 18 bytes and the terminator
  expectCalls(
      {IM_CALL(IMAlFieldChar(1, "b", "0123456789"), 720,
               "Stream 1 out of field header space. (Field 1,size=37,max allowed=30,ext hdr "
               "size=39).\n")});
  EXPECT_EQ(record(1)->iNumFields, 2);  // kept in the arrays
  expectCalls({IM_CALL(IMWrHdr2(1, 1), 0,
                       "IMWrHdr2 1: field header overrun\n  num fields=1 out of 2 expected\n"
                       "  num bytes stored=19 out of 37 expected (max allowed=30\n")});
  ASSERT_EQ(iReadAllFields(1, nullptr), 0);
  EXPECT_EQ(record(1)->iNumFields, 1);
}

}  // namespace
}  // namespace imtest
