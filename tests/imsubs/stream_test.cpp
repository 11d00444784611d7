// Streams and file access: the status texts, stream numbers, file failures
// and the checks that work on paths, and read-only streams on either access
// path.
#include <algorithm>
#include <iterator>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

TEST(ImsubsLibrary, TextsVersionAndVerbosity) {
  char const* const unspecified = "Unspecified error";
  // clang-format off
  std::pair<unsigned, char const*> const texts[] = {
      {0, "No error"}, {3, "Internal stream numbering error"},
      {201, "Invalid stream attribute (use: new, old, append, ro, etc)"},
      {602, "Invalid section number"}, {704, "Extended header size too small"},
      {812, "Invalid dislay scale values"}, {908, "Incompatible computer architecture"},
      {909, unspecified}, {100, unspecified}, {4294967295u, unspecified}};
  // clang-format on
  for (auto const& [code, text] : texts) EXPECT_STREQ(IMRtErrText(code), text) << code;
  EXPECT_DOUBLE_EQ(IMRtLibVersion(), 2.000011);
  EXPECT_EQ(IMRtLibBuild(), 11);
  EXPECT_EQ(IMRtMaxNumStreams(), 10000);
  CaptureStdout();
  EXPECT_EQ(IMAlVerboseMode(1), 0);
  EXPECT_EQ(GetCapturedStdout(), "IMAlVerboseMode: verbose mode is always on.\n");
  EXPECT_EQ(giVerboseMode, 0);  // only IMAlPrt sets it
  int winId = 7;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMRtStreamTypeFromName(nullptr, &winId), 504); }),
            "IMRtStreamTypeFromName: invalid stream name.\n");
}

class ImsubsStream : public ImsubsTest {};

TEST_F(ImsubsStream, StreamNumbersAndFileFailures) {
  std::string const missing = file("missing"), dir = scratch_.path(), shortFile = file("short");
  testutil::writeFile(shortFile, std::string(100, 'x'));
  std::string const a = file("a");
  expectCalls({
      IM_CALL(IMOpen(0, a.c_str(), "new"), 1, "IMOpen 0: invalid stream number.\n"),
      IM_CALL(IMOpen(10001, a.c_str(), "new"), 1, "IMOpen 10001: invalid stream number.\n"),
      IM_CALL(IMOpen(10000, a.c_str(), "new"), 0, ""),
      IM_CALL(IMCheckStream(10000, "Caller"), 0, ""),
      IM_CALL(IMCheckStream(-4, "Caller"), 1, "Caller -4: invalid stream number.\n"),
      IM_CALL(IMCheckStream(17, "Caller"), 3, "Caller 17: internal stream numbering error.\n"),
      IM_CALL(IMClose(10000), 0, ""),
      IM_CALL(IMOpen(3, missing.c_str(), "ro"), 206,
              "IMOpen 3: unable to open file\n" + missing + ".\n"),
      IM_CALL(IMOpen(3, missing.c_str(), "old"), 202,
              "IMOpen 3: unable to find file\n" + missing + "\n"),
      IM_CALL(IMOpen(3, (dir + "/nodir/x").c_str(), "new"), 203,
              "IMOpen 3: unable to find directory:\n        " + dir + "/nodir\n"),
      IM_CALL(IMOpen(3, dir.c_str(), "ro"), 207, "IMRdHdr2 3: only 0 bytes found in header.\n"),
      IM_CALL(IMOpen(3, shortFile.c_str(), "ro"), 207,
              "IMRdHdr2 3: only 100 bytes found in header.\n"),
      IM_CALL(IMCheckFile(missing.c_str()), 202, ""),
      IM_CALL(IMCheckFile(shortFile.c_str()), 506, ""),
      IM_CALL(IMCheckFile(dir.c_str()), 506, ""),
      IM_CALL(IMRtHeaderID(missing.c_str()), -1, ""),
      IM_CALL(IMRtHeaderID(shortFile.c_str()), 30840, ""),
      IM_CALL(IMOpen(11, "", "ro"), 106,
              "IMRtStreamTypeFromName: invalid stream name.\n"
              "IMOpen 11: critical SW error. Header is NULL.\n"),
  });
  EXPECT_EQ(gsStreams[10000], nullptr);
  EXPECT_EQ(gsStreams[3], nullptr);
  EXPECT_EQ(testutil::readFile(shortFile), std::string(100, 'x'));
  testutil::writeFile(file("tiny"), std::string(50, 'x'));
  EXPECT_EQ(IMRtHeaderID(file("tiny").c_str()), -2);  // too short to hold the id
  // A nameless stream stays in the table as no file: calls do nothing.
  ASSERT_NE(record(11), nullptr);
  EXPECT_EQ(record(11)->iStreamType, 504);
  float pixel = 0;
  EXPECT_EQ(IMRdSec(11, &pixel), 0);
  EXPECT_EQ(IMPosn(11, 3, 0), 0);
  for (bool foreign : {false, true}) {
    RawHeader h;
    h.foreign = foreign;
    h.basic(2, 2, 1, 1, 1, 2, 100).write(file("id"));
    EXPECT_EQ(IMCheckFile(file("id").c_str()), 0);
    EXPECT_EQ(IMRtHeaderID(file("id").c_str()), foreign ? -24384 : -16224);
  }
}

TEST_F(ImsubsStream, ReadOnlyFilesAreNeverModifiedAndShortReadsAreTold) {
  RawHeader h;
  h.basic(4, 1, 2, 1, 1, 2, 100);
  h.write(file("ro"), 1024 + 22);  // the second section is 6 bytes short
  Bytes const before = readBytes(file("ro"));
  for (char const* attrib : {"ro", "ro_unbuffered"}) {
    SCOPED_TRACE(attrib);
    ASSERT_EQ(IMOpen(12, file("ro").c_str(), attrib), 0);
    float pixels[4] = {9, 9, 9, 9};
    CaptureStderr();
    EXPECT_EQ(IMWrHdr2(12, 0), 209);
    EXPECT_EQ(IMPosn(12, 1, 0), 0);
    EXPECT_EQ(IMWrSec(12, pixels), 213);
    EXPECT_EQ(IMPosn(12, 1, 0), 0);
    EXPECT_EQ(IMRdSec(12, pixels), 212);
    std::string const err = GetCapturedStderr();
    for (char const* line : {"IMWrHdr2 12: only 0 bytes written to header.\n",
                             "IMWrSec 12: incorrect number of pixels written.\n",
                             "IMRdSec 12: only 1 pixels read (EOF="}) {
      EXPECT_NE(err.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(IMFileSync(12), attrib[2] == '\0' ? 0 : 1);  // 1: no buffered handle
    ASSERT_EQ(IMClose(12), 0);
    EXPECT_EQ(readBytes(file("ro")), before);
  }
}

}  // namespace
}  // namespace imtest
