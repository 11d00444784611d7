// Streams and file access: the status texts, stream numbers, the open
// attributes and access paths, file failures, the retry rule, and the file
// checks that work on paths.
#include <csignal>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

TEST(ImsubsLibrary, TextsVersionAndVerbosity) {
  std::pair<unsigned, char const*> const texts[] = {
      {0, "No error"},
      {1, "Invalid stream number"},
      {3, "Internal stream numbering error"},
      {106, "New file header error"},
      {110, "No streams are available"},
      {201, "Invalid stream attribute (use: new, old, append, ro, etc)"},
      {206, "Unable to open image file"},
      {207, "Unable to read image header"},
      {208, "Unable to read image header (2)"},
      {212, "Incorrect byte count during read"},
      {214, "Unable to swap bytes"},
      {301, "Error positioning stream pointer"},
      {307, "Stream position out of S range"},
      {404, "Too many wavelength channels"},
      {505, "Invalid image sequence"},
      {512, "Undefined number of data bits per pixel"},
      {601, "Invalid section number"},
      {602, "Invalid section number"},
      {605, "Wavelength number too large"},
      {704, "Extended header size too small"},
      {708, "Extended header type mismatch"},
      {720, "Insufficient field header space"},
      {736, "Field name is too long"},
      {809, "Invalid header from window"},
      {812, "Invalid dislay scale values"},
      {905, "16-bit complex numbers not supported"},
      {908, "Incompatible computer architecture"},
      {100, "Unspecified error"},
      {405, "Unspecified error"},
      {510, "Unspecified error"},
      {909, "Unspecified error"},
      {4294967295u, "Unspecified error"}};
  for (auto const& [code, text] : texts) EXPECT_STREQ(IMRtErrText(code), text) << code;
  EXPECT_DOUBLE_EQ(IMRtLibVersion(), 2.000011);
  EXPECT_EQ(IMRtLibBuild(), 11);
  EXPECT_EQ(IMRtMaxNumStreams(), 10000);
  CaptureStdout();
  EXPECT_EQ(IMAlVerboseMode(1), 0);
  EXPECT_EQ(GetCapturedStdout(), "IMAlVerboseMode: verbose mode is always on.\n");
  EXPECT_EQ(giVerboseMode, 0);  // only IMAlPrt sets it
  int winId = 7;
  EXPECT_EQ(IMRtStreamTypeFromName("abcd", &winId), 1);
  EXPECT_EQ(winId, 0);
  winId = 7;
  EXPECT_EQ(IMRtStreamTypeFromName("0abcde", &winId), 1);
  EXPECT_EQ(winId, 7);
  for (char const* bad : {"", static_cast<char const*>(nullptr)}) {
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMRtStreamTypeFromName(bad, &winId), 504); }),
              "IMRtStreamTypeFromName: invalid stream name.\n");
  }
}

class ImsubsStream : public ImsubsTest {};

TEST_F(ImsubsStream, StreamNumbersAndFileFailures) {
  std::string const missing = file("missing"), dir = scratch_.path(), shortFile = file("short");
  testutil::writeFile(shortFile, std::string(100, 'x'));
  std::string const a = file("a");
  expectCalls({
      {"stream 0", [&] { return IMOpen(0, a.c_str(), "new"); }, 1,
       "IMOpen 0: invalid stream number.\n"},
      {"stream 10001", [&] { return IMOpen(10001, a.c_str(), "new"); }, 1,
       "IMOpen 10001: invalid stream number.\n"},
      {"stream 10000", [&] { return IMOpen(10000, a.c_str(), "new"); }, 0, ""},
      {"check open", [] { return IMCheckStream(10000, "Caller"); }, 0, ""},
      {"check -4", [] { return IMCheckStream(-4, "Caller"); }, 1,
       "Caller -4: invalid stream number.\n"},
      {"check closed", [] { return IMCheckStream(17, "Caller"); }, 3,
       "Caller 17: internal stream numbering error.\n"},
      {"close closed", [] { return IMClose(17); }, 3,
       "IMClose 17: internal stream numbering error.\n"},
      {"close", [] { return IMClose(10000); }, 0, ""},
      {"ro missing", [&] { return IMOpen(3, missing.c_str(), "ro"); }, 206,
       "IMOpen 3: unable to open file\n" + missing + ".\n"},
      {"old missing", [&] { return IMOpen(3, missing.c_str(), "old"); }, 202,
       "IMOpen 3: unable to find file\n" + missing + "\n"},
      {"append missing", [&] { return IMOpen(3, missing.c_str(), "append"); }, 202,
       "IMOpen 3: unable to find file\n" + missing + "\n"},
      {"no directory", [&] { return IMOpen(3, (dir + "/nodir/x").c_str(), "new"); }, 203,
       "IMOpen 3: unable to find directory:\n        " + dir + "/nodir\n"},
      {"directory", [&] { return IMOpen(3, dir.c_str(), "ro"); }, 207,
       "IMRdHdr2 3: only 0 bytes found in header.\n"},
      {"short file", [&] { return IMOpen(3, shortFile.c_str(), "ro"); }, 207,
       "IMRdHdr2 3: only 100 bytes found in header.\n"},
      {"check missing", [&] { return IMCheckFile(missing.c_str()); }, 202, ""},
      {"check short", [&] { return IMCheckFile(shortFile.c_str()); }, 506, ""},
      {"check directory", [&] { return IMCheckFile(dir.c_str()); }, 506, ""},
      {"id of missing", [&] { return IMRtHeaderID(missing.c_str()); }, -1, ""},
      {"id of short", [&] { return IMRtHeaderID(shortFile.c_str()); }, 30840, ""},
      {"nameless", [] { return IMOpen(11, "", "ro"); }, 106,
       "IMRtStreamTypeFromName: invalid stream name.\n"
       "IMOpen 11: critical SW error. Header is NULL.\n"},
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

TEST_F(ImsubsStream, AttributesSelectOpenModeAndAccessPath) {
  create(1, "stack", 2, 2, 1, 1, 1);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  ASSERT_EQ(IMClose(1), 0);
  struct Case {
    char const* attrib;
    int result, fileMode;  // iFileMode after the open, -1 when refused
    bool buffered;
  };
  // A new stream always has iFileMode 1 (IMCrHdr3 sets it), whatever the suffix.
  Case const cases[] = {
      {"new", 0, 1, true},
      {"NEW", 0, 1, true},
      {"New_Unbuffered", 0, 1, false},
      {"new_unbuffered_buffered", 0, 1, true},
      {"newer", 0, 1, true},
      {"scratch", 0, 1, true},
      {"ro", 0, 1, true},
      {"RO_unbuffered", 0, 2, false},
      {"old", 0, 1, true},
      {"old   padded", 0, 1, true},
      {"append_unbuffered", 0, 2, false},
      {"ne", 201, -1, false},
      {"nwe", 201, -1, false},
      {" new", 201, -1, false},
      {"", 201, -1, false},
  };
  for (Case const& c : cases) {
    bool const creates = std::strchr("nNs", c.attrib[0]) != nullptr && c.attrib[0] != '\0';
    std::string const name = creates ? file("fresh") : file("stack");
    std::string const err =
        stderrOf([&] { EXPECT_EQ(IMOpen(2, name.c_str(), c.attrib), c.result); });
    if (c.result != 0) {
      std::string const attribute =
          std::string(c.attrib).substr(0, std::string(c.attrib).find(' '));
      EXPECT_EQ(err, "IMOpen 2: " + attribute + " is an invalid stream attribute.\n");
      EXPECT_EQ(gsStreams[2], nullptr);
      continue;
    }
    EXPECT_EQ(err, "");
    EXPECT_EQ(record(2)->iFileMode, c.fileMode) << c.attrib;
    EXPECT_EQ(record(2)->pFile != nullptr, c.buffered) << c.attrib;
    EXPECT_EQ(record(2)->iLastOp, kLastOpPositioned);
    EXPECT_EQ(IMClose(2), 0);
  }
  // IMOpen2 takes the highest free numbers.
  int a = -1, b = -1;
  ASSERT_EQ(IMOpen2(&a, file("a").c_str(), "new"), 0);
  ASSERT_EQ(IMOpen2(&b, file("b").c_str(), "new"), 0);
  EXPECT_EQ(a, 10000);
  EXPECT_EQ(b, 9999);
}

TEST_F(ImsubsStream, NewStreamsReopeningAndAppend) {
  // A bare new stream: a one-pixel header and no extended header block.
  ASSERT_EQ(IMOpen(5, file("one").c_str(), "new"), 0);
  IMStreamRecord* r = record(5);
  EXPECT_EQ(std::vector<int>({r->iNumX, r->iNumSecs, r->iImageSequence, r->iPixelType}),
            std::vector<int>({1, 1, 2, 6}));
  EXPECT_EQ(r->iExtHdrSize, 4096);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMWrHdr2(5, 1), 706); }),
            "IMWrHdr2 5: ext header buffer is NULL, size is 4096.\n");
  EXPECT_EQ(IMWrHdr2(5, 0), 0);
  EXPECT_EQ(testutil::readFile(file("one")).size(), 1024u);
  // Reopening an occupied stream warns and goes on with the new file.
  FILE* first = r->pFile;
  EXPECT_EQ(
      stderrOf([&] { EXPECT_EQ(IMOpen(5, file("two").c_str(), "new"), 0); }),
      pidPrefix() + "IMOpen 5: stream (name " + file("two") + ") is already open. Continuing...\n");
  EXPECT_NE(record(5)->pFile, first);
  EXPECT_STREQ(record(5)->pName, file("two").c_str());
  std::fclose(first);  // the library leaves the earlier handle open by design

  // Append stands at the last section.
  create(8, "ap", 2, 1, 3, 1, 1, 1, 2);
  ASSERT_EQ(IMWrHdr2(8, 1), 0);
  float const pixels[6] = {1, 2, 3, 4, 5, 6};
  for (int s = 0; s < 3; ++s) ASSERT_EQ(IMWrSec(8, pixels + 2 * s), 0);
  ASSERT_EQ(IMClose(8), 0);
  ASSERT_EQ(IMOpen(8, file("ap").c_str(), "append"), 0);
  EXPECT_DOUBLE_EQ(dStreamFileTell(record(8)), 1024.0 + record(8)->iExtHdrSize + 2 * 8);
  float const replacement[2] = {9, 9};
  ASSERT_EQ(IMWrSec(8, replacement), 0);
  ASSERT_EQ(IMPosn(8, 0, 0), 0);
  float back[6];
  for (int s = 0; s < 3; ++s) ASSERT_EQ(IMRdSec(8, back + 2 * s), 0);
  EXPECT_EQ(std::vector<float>(back, back + 6), (std::vector<float>{1, 2, 3, 4, 9, 9}));

  // An unbuffered stream forced to mode 1 by the creator goes on through its descriptor.
  create(7, "u", 4, 2, 3, 1, 1, 1, 2, 2, "new_unbuffered");
  EXPECT_EQ(record(7)->iFileMode, 1);
  EXPECT_EQ(record(7)->pFile, nullptr);
  ASSERT_EQ(IMAlExHdrSize2(7, 0, 0, 3, 0), 0);  // no block: pixels at 1024
  ASSERT_EQ(IMWrHdr2(7, 1), 0);
  std::vector<float> section(8);
  for (int s = 0; s < 3; ++s) {
    for (int i = 0; i < 8; ++i) section[i] = static_cast<float>(10 * s + i);
    ASSERT_EQ(IMWrSec(7, section.data()), 0);
  }
  EXPECT_EQ(testutil::readFile(file("u")).size(), 1024u + 3 * 32);
  ASSERT_EQ(IMPosn(7, 1, 1), 0);
  ASSERT_EQ(IMRdLin(7, section.data()), 0);
  EXPECT_EQ(std::vector<float>(section.begin(), section.begin() + 4),
            (std::vector<float>{14, 15, 16, 17}));
}

TEST_F(ImsubsStream, RetryRuleAndMissingHandles) {
  // A pipe whose reader is gone fails every write: all eleven tries are used.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  IMStreamRecord fake{};
  fake.iStream = 1;
  fake.iFileMode = kFileModeUnbuffered;
  fake.iFileDesc = fds[1];
  signal(SIGPIPE, SIG_IGN);
  char data[8] = {};
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(iStreamFileWrite(&fake, 2, 4, data), 0); }),
            "iStreamFileWrite: too many retries (11), only 0 elements written...\n");
  close(fds[1]);
  IMStreamRecord none{};  // no handle: nothing moves, nothing is printed
  CaptureStderr();
  EXPECT_EQ(iStreamFileRead(&none, data, 1, 8), 0);
  EXPECT_EQ(dStreamFileTell(&none), -1.0);
  EXPECT_LT(iStreamFileSeek(&none, 0, SEEK_SET), 0);
  none.iFileMode = kFileModeCompressed;
  EXPECT_EQ(iStreamFileRead(&none, data, 1, 8), 0);
  EXPECT_EQ(GetCapturedStderr(), "iStreamFileRead: compressed IO not supported.\n");
}

TEST_F(ImsubsStream, VerboseVariableIsAnnouncedOnceAtTheFirstOpen) {
  std::string const out = file("stdout"), stack = file("v");
  // In a child process, so that the first open of the process can be had.
  EXPECT_EXIT(
      {
        std::freopen(out.c_str(), "w", stdout);
        setenv("IMSUBS_VERBOSE", "0", 1);
        giLibNeedsInit = 1;
        IMOpen(1, stack.c_str(), "new");
        IMOpen(2, stack.c_str(), "new");
        std::fflush(stdout);
        bool const once =
            testutil::readFile(out) == "IMAlVerboseMode: verbose mode is always on.\n";
        std::_Exit(once && giVerboseMode == 0 ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(ImsubsStream, ReadOnlyFilesAreNeverModifiedAndShortReadsAreTold) {
  RawHeader h;
  h.basic(4, 1, 2, 1, 1, 2, 100);
  Bytes bytes = h.bytes;
  for (int i = 0; i < 22; ++i) bytes.push_back(static_cast<unsigned char>(i));
  writeBytes(file("ro"), bytes);  // the second section is 6 bytes short
  struct Case {
    char const* attrib;
    std::string shortRead;
  };
  Case const cases[] = {
      {"ro", "IMRdSec 12: only 1 pixels read (EOF=1).\n"},
      {"ro_unbuffered",
       "iStreamFileRead: too many retries (11), only 1 elements read...\n"
       "iStreamFileEOF() is unavailable with unbuffered file IO.\n"
       "IMRdSec 12: only 1 pixels read (EOF=0).\n"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.attrib);
    ASSERT_EQ(IMOpen(12, file("ro").c_str(), c.attrib), 0);
    float pixels[4] = {9, 9, 9, 9};
    CaptureStderr();
    EXPECT_EQ(IMWrHdr2(12, 0), 209);
    EXPECT_EQ(IMPosn(12, 1, 0), 0);
    EXPECT_EQ(IMWrSec(12, pixels), 213);
    std::string const err = GetCapturedStderr();
    EXPECT_NE(err.find("IMWrHdr2 12: only 0 bytes written to header.\n"), std::string::npos);
    EXPECT_NE(err.find("IMWrSec 12: incorrect number of pixels written.\n"), std::string::npos);
    EXPECT_EQ(IMPosn(12, 1, 0), 0);
    CaptureStderr();
    EXPECT_EQ(IMRdSec(12, pixels), 212);
    std::string const readErr = GetCapturedStderr();
    EXPECT_EQ(readErr.substr(0, c.shortRead.size()), c.shortRead);
    EXPECT_EQ(readErr.substr(c.shortRead.size(), 8), "        ");
    EXPECT_EQ(record(12)->iLastOp, kLastOpPositioned);
    EXPECT_EQ(IMFileSync(12), c.attrib[2] == '\0' ? 0 : 1);
    ASSERT_EQ(IMClose(12), 0);
    EXPECT_EQ(readBytes(file("ro")), bytes);
  }
}

}  // namespace
}  // namespace imtest
