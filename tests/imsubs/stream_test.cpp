// Streams and file access: the status text table, stream numbers, the open
// attributes, file failures, and the file checks that work on paths.
#include <fcntl.h>

#include <csignal>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

TEST(ImsubsErrorText, TableGivesEveryDocumentedText) {
  struct Case {
    unsigned int code;
    char const* text;
  };
  Case const cases[] = {
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
      {708, "Extended header type mismatch"},
      {720, "Insufficient field header space"},
      {736, "Field name is too long"},
      {809, "Invalid header from window"},
      {812, "Invalid dislay scale values"},
      {905, "16-bit complex numbers not supported"},
      {908, "Incompatible computer architecture"},
      // Codes some functions return but the table doesn't know.
      {405, "Unspecified error"},
      {510, "Unspecified error"},
      {10000, "Unspecified error"},
      {909, "Unspecified error"},
      {4294967295u, "Unspecified error"},
      {100, "Unspecified error"},
  };
  for (Case const& c : cases) EXPECT_STREQ(IMRtErrText(c.code), c.text) << "code " << c.code;
}

TEST(ImsubsLibrary, VersionBuildAndVerboseSwitch) {
  EXPECT_DOUBLE_EQ(IMRtLibVersion(), 2.000011);
  EXPECT_EQ(IMRtLibBuild(), 11);
  EXPECT_EQ(IMRtMaxNumStreams(), 10000);
  CaptureStdout();
  EXPECT_EQ(IMAlVerboseMode(0), 0);
  EXPECT_EQ(GetCapturedStdout(), "IMAlVerboseMode: verbose mode is always on.\n");
  EXPECT_EQ(giVerboseMode, 0);  // only IMAlPrt sets it
  IMAlPrt(2);
  EXPECT_EQ(giVerboseMode, 2);
  IMAlPrt(0);
}

TEST(ImsubsStreamType, NamesGiveFileTypeAndWindowIds) {
  struct Case {
    char const* name;
    int result;
    int winIdAfter;  // starts at 7
    char const* err;
  };
  Case const cases[] = {
      {"abcd", 1, 0, ""},
      {"abcde", 1, 7, ""},
      {"0abc", 1, 7, ""},
      {"", 504, 7, "IMRtStreamTypeFromName: invalid stream name.\n"},
      {nullptr, 504, 7, "IMRtStreamTypeFromName: invalid stream name.\n"},
  };
  for (Case const& c : cases) {
    int winId = 7;
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMRtStreamTypeFromName(c.name, &winId), c.result); }),
              c.err);
    EXPECT_EQ(winId, c.winIdAfter) << (c.name ? c.name : "null");
  }
}

class ImsubsStream : public ImsubsTest {};

TEST_F(ImsubsStream, StreamNumbersAreCheckedWithExactMessages) {
  CaptureStderr();
  EXPECT_EQ(IMOpen(0, file("a").c_str(), "new"), 1);
  EXPECT_EQ(IMOpen(10001, file("a").c_str(), "new"), 1);
  EXPECT_EQ(GetCapturedStderr(),
            "IMOpen 0: invalid stream number.\nIMOpen 10001: invalid stream number.\n");
  EXPECT_EQ(IMOpen(10000, file("a").c_str(), "new"), 0);
  EXPECT_EQ(IMCheckStream(10000, "Caller"), 0);
  CaptureStderr();
  EXPECT_EQ(IMCheckStream(-4, "Caller"), 1);
  EXPECT_EQ(IMCheckStream(17, "Caller"), 3);
  EXPECT_EQ(IMClose(17), 3);
  EXPECT_EQ(GetCapturedStderr(),
            "Caller -4: invalid stream number.\nCaller 17: internal stream numbering error.\n"
            "IMClose 17: internal stream numbering error.\n");
  EXPECT_EQ(IMClose(10000), 0);
  EXPECT_EQ(gsStreams[10000], nullptr);
}

TEST_F(ImsubsStream, AttributesSelectOpenModeAndAccessPath) {
  std::string const path = file("stack");
  ASSERT_EQ(IMOpen(1, path.c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(1, 2, 2, 1, 1, 1, 2, 2), 0);
  ASSERT_EQ(IMWrHdr2(1, 1), 0);
  ASSERT_EQ(IMClose(1), 0);
  struct Case {
    char const* attrib;
    int result;
    int fileMode;  // expected iFileMode after the open
    bool buffered;
  };
  // IMCrHdr3 forces iFileMode 1 on a new stream, whatever the suffix.
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
    bool const creates = c.attrib[0] == 'n' || c.attrib[0] == 'N' || c.attrib[0] == 's';
    std::string const name = creates ? file("fresh") : path;
    CaptureStderr();
    int const result = IMOpen(2, name.c_str(), c.attrib);
    std::string const err = GetCapturedStderr();
    EXPECT_EQ(result, c.result) << c.attrib;
    if (c.result != 0) {
      std::string attribute = c.attrib;
      attribute = attribute.substr(0, attribute.find(' '));
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
}

TEST_F(ImsubsStream, FileFailuresGiveTheirMessageAndCode) {
  std::string const missing = file("missing");
  std::string const dir = scratch_.path();
  std::string const shortFile = file("short");
  testutil::writeFile(shortFile, std::string(100, 'x'));
  struct Case {
    std::string name;
    char const* attrib;
    int result;
    std::string err;
  };
  Case const cases[] = {
      {missing, "ro", 206, "IMOpen 3: unable to open file\n" + missing + ".\n"},
      {missing, "old", 202, "IMOpen 3: unable to find file\n" + missing + "\n"},
      {missing, "append", 202, "IMOpen 3: unable to find file\n" + missing + "\n"},
      {dir + "/nodir/x", "new", 203,
       "IMOpen 3: unable to find directory:\n        " + dir + "/nodir\n"},
      {dir, "ro", 207, "IMRdHdr2 3: only 0 bytes found in header.\n"},
      {shortFile, "ro", 207, "IMRdHdr2 3: only 100 bytes found in header.\n"},
  };
  for (Case const& c : cases) {
    CaptureStderr();
    EXPECT_EQ(IMOpen(3, c.name.c_str(), c.attrib), c.result) << c.name << " " << c.attrib;
    EXPECT_EQ(GetCapturedStderr(), c.err);
    EXPECT_EQ(gsStreams[3], nullptr);
  }
  EXPECT_EQ(IMCheckFile(missing.c_str()), 202);
  EXPECT_EQ(IMRtHeaderID(missing.c_str()), -1);
  EXPECT_EQ(IMCheckFile(shortFile.c_str()), 506);
  testutil::writeFile(file("tiny"), std::string(50, 'x'));
  EXPECT_EQ(IMRtHeaderID(file("tiny").c_str()), -2);  // too short to hold the id
  EXPECT_EQ(IMCheckFile(dir.c_str()), 506);
  // The short file was not touched by the failed reads.
  EXPECT_EQ(testutil::readFile(shortFile), std::string(100, 'x'));
}

TEST_F(ImsubsStream, UnreadableFileIsRefused) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads any file; permissions can't be tested";
  std::string const path = file("locked");
  RawHeader header;
  header.basic(1, 1, 1, 1, 1, 2, 100);
  writeBytes(path, header.bytes);
  chmod(path.c_str(), 0);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMOpen(4, path.c_str(), "old"), 204); }),
            "IMOpen 4: unable to obtain read/write access to\n" + path + "\n");
  EXPECT_EQ(IMCheckFile(path.c_str()), 205);
}

TEST_F(ImsubsStream, FileIdChecksOnPaths) {
  struct Case {
    bool foreign;
    int16_t id;
    int check;
    int headerId;
  };
  Case const cases[] = {
      {false, kFileIDHostOrder, 0, -16224},
      {true, kFileIDHostOrder, 0, -24384},
      {false, 1234, 506, 1234},
  };
  for (Case const& c : cases) {
    RawHeader header;
    header.foreign = c.foreign;
    header.basic(2, 2, 1, 1, 1, 2, 100).put<int16_t>(hdroff::gnImageFileID, c.id);
    writeBytes(file("id"), header.bytes);
    EXPECT_EQ(IMCheckFile(file("id").c_str()), c.check);
    EXPECT_EQ(IMRtHeaderID(file("id").c_str()), c.headerId);
  }
}

TEST_F(ImsubsStream, ReopeningAnOccupiedStreamWarnsAndGoesOn) {
  ASSERT_EQ(IMOpen(5, file("one").c_str(), "new"), 0);
  FILE* first = record(5)->pFile;
  CaptureStderr();
  EXPECT_EQ(IMOpen(5, file("two").c_str(), "new"), 0);
  EXPECT_EQ(GetCapturedStderr(), pidPrefix() + "IMOpen 5: stream (name " + file("two") +
                                     ") is already open. Continuing...\n");
  EXPECT_NE(record(5)->pFile, first);
  EXPECT_STREQ(record(5)->pName, file("two").c_str());
  std::fclose(first);  // the library leaves the earlier handle open by design
}

TEST_F(ImsubsStream, Open2TakesTheHighestFreeNumber) {
  int a = -1;
  int b = -1;
  ASSERT_EQ(IMOpen2(&a, file("a").c_str(), "new"), 0);
  ASSERT_EQ(IMOpen2(&b, file("b").c_str(), "new"), 0);
  EXPECT_EQ(a, 10000);
  EXPECT_EQ(b, 9999);
}

TEST_F(ImsubsStream, NewStreamHasOnePixelHeaderAndNoBlock) {
  ASSERT_EQ(IMOpen(6, file("n").c_str(), "new"), 0);
  IMStreamRecord* r = record(6);
  EXPECT_EQ(r->iNumX, 1);
  EXPECT_EQ(r->iNumSecs, 1);
  EXPECT_EQ(r->iImageSequence, 2);
  EXPECT_EQ(r->iPixelType, 6);
  EXPECT_EQ(r->iExtHdrSize, 4096);
  EXPECT_EQ(r->pExtHdr, nullptr);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMWrHdr2(6, 1), 706); }),
            "IMWrHdr2 6: ext header buffer is NULL, size is 4096.\n");
  EXPECT_EQ(IMWrHdr2(6, 0), 0);
  EXPECT_EQ(fileSize(file("n")), 1024);
}

TEST_F(ImsubsStream, UnbufferedStreamForcedToBufferedModeKeepsWorking) {
  // IMCrHdr3 sets iFileMode 1 on a stream with no stdio handle; transfers go
  // on through its descriptor.
  ASSERT_EQ(IMOpen(7, file("u").c_str(), "new_unbuffered"), 0);
  ASSERT_EQ(IMCrHdr2(7, 4, 2, 3, 1, 1, 2, 2), 0);
  EXPECT_EQ(record(7)->iFileMode, 1);
  EXPECT_EQ(record(7)->pFile, nullptr);
  EXPECT_GT(record(7)->iFileDesc, 0);
  ASSERT_EQ(IMAlExHdrSize2(7, 0, 0, 3, 0), 0);  // no block: pixels at 1024
  ASSERT_EQ(IMWrHdr2(7, 1), 0);
  std::vector<float> section(8);
  for (int s = 0; s < 3; ++s) {
    for (int i = 0; i < 8; ++i) section[i] = static_cast<float>(10 * s + i);
    ASSERT_EQ(IMWrSec(7, section.data()), 0);
  }
  EXPECT_EQ(fileSize(file("u")), 1024 + 3 * 32);
  ASSERT_EQ(IMPosn(7, 1, 1), 0);
  std::vector<float> line(4);
  ASSERT_EQ(IMRdLin(7, line.data()), 0);
  EXPECT_EQ(line, (std::vector<float>{14, 15, 16, 17}));
}

TEST_F(ImsubsStream, AppendStandsAtTheLastSection) {
  ASSERT_EQ(IMOpen(8, file("ap").c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(8, 2, 1, 3, 1, 1, 2, 2), 0);
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
}

TEST_F(ImsubsStream, RetryRuleCountsElevenCalls) {
  // A descriptor on a pipe whose reader is gone fails every write: all
  // eleven tries are used and the message tells so.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  IMStreamRecord fake{};
  fake.iStream = 1;
  fake.iFileMode = kFileModeUnbuffered;
  fake.iFileDesc = fds[1];
  signal(SIGPIPE, SIG_IGN);
  char data[8] = {};
  CaptureStderr();
  EXPECT_EQ(iStreamFileWrite(&fake, 2, 4, data), 0);
  EXPECT_EQ(GetCapturedStderr(),
            "iStreamFileWrite: too many retries (11), only 0 elements written...\n");
  close(fds[1]);
  // No handle at all: nothing is transferred, nothing is printed.
  IMStreamRecord none{};
  CaptureStderr();
  EXPECT_EQ(iStreamFileRead(&none, data, 1, 8), 0);
  EXPECT_EQ(dStreamFileTell(&none), -1.0);
  EXPECT_LT(iStreamFileSeek(&none, 0, SEEK_SET), 0);
  none.iFileMode = kFileModeCompressed;
  EXPECT_EQ(iStreamFileRead(&none, data, 1, 8), 0);
  EXPECT_EQ(GetCapturedStderr(), "iStreamFileRead: compressed IO not supported.\n");
}

TEST_F(ImsubsStream, VerboseVariableIsAnnouncedOnceAtTheFirstOpen) {
  std::string const out = file("stdout");
  std::string const stack = file("v");
  // In a child process, so that the first open of the process can be had.
  EXPECT_EXIT(
      {
        std::freopen(out.c_str(), "w", stdout);
        setenv("IMSUBS_VERBOSE", "0", 1);
        giLibNeedsInit = 1;
        IMOpen(1, stack.c_str(), "new");
        IMOpen(2, stack.c_str(), "new");
        std::fflush(stdout);
        std::string const text = testutil::readFile(out);
        bool const once = text == "IMAlVerboseMode: verbose mode is always on.\n";
        std::_Exit(once && giVerboseMode == 0 ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(ImsubsStream, NamelessStreamHasNoHeaderAndStaysInTheTable) {
  CaptureStderr();
  EXPECT_EQ(IMOpen(11, "", "ro"), 106);
  EXPECT_EQ(GetCapturedStderr(),
            "IMRtStreamTypeFromName: invalid stream name.\n"
            "IMOpen 11: critical SW error. Header is NULL.\n");
  ASSERT_NE(record(11), nullptr);
  EXPECT_EQ(record(11)->iStreamType, 504);
  float pixel = 0;
  EXPECT_EQ(IMRdSec(11, &pixel), 0);  // not a file: nothing to do
  EXPECT_EQ(IMPosn(11, 3, 0), 0);
}

TEST_F(ImsubsStream, ReadOnlyFileIsNeverModified) {
  RawHeader h;
  h.basic(2, 2, 2, 1, 1, 2, 100);
  std::vector<unsigned char> bytes = h.bytes;
  for (int i = 0; i < 32; ++i) bytes.push_back(static_cast<unsigned char>(i));
  writeBytes(file("ro"), bytes);
  for (char const* attrib : {"ro", "ro_unbuffered"}) {
    ASSERT_EQ(IMOpen(12, file("ro").c_str(), attrib), 0);
    float pixels[4] = {9, 9, 9, 9};
    CaptureStderr();
    EXPECT_EQ(IMWrHdr2(12, 0), 209);
    EXPECT_EQ(IMPosn(12, 1, 0), 0);
    EXPECT_EQ(IMWrSec(12, pixels), 213);
    std::string const err = GetCapturedStderr();
    EXPECT_NE(err.find("IMWrHdr2 12: only 0 bytes written to header.\n"), std::string::npos);
    EXPECT_NE(err.find("IMWrSec 12: incorrect number of pixels written.\n"), std::string::npos);
    EXPECT_EQ(IMFileSync(12), attrib[2] == '\0' ? 0 : 1);
    ASSERT_EQ(IMClose(12), 0);
    EXPECT_EQ(readBytes(file("ro")), bytes) << attrib;
  }
}

TEST_F(ImsubsStream, ShortReadsTellTheEndOfFileByAccessPath) {
  RawHeader h;
  h.basic(4, 1, 2, 1, 1, 2, 100);
  h.writePadded(file("end"), 1024 + 16 + 6);
  struct Case {
    char const* attrib;
    std::string firstLines;
  };
  Case const cases[] = {
      {"ro", "IMRdSec 13: only 1 pixels read (EOF=1).\n"},
      {"ro_unbuffered",
       "iStreamFileRead: too many retries (11), only 1 elements read...\n"
       "iStreamFileEOF() is unavailable with unbuffered file IO.\n"
       "IMRdSec 13: only 1 pixels read (EOF=0).\n"},
  };
  for (Case const& c : cases) {
    ASSERT_EQ(IMOpen(13, file("end").c_str(), c.attrib), 0);
    ASSERT_EQ(IMPosn(13, 1, 0), 0);
    float section[4];
    CaptureStderr();
    EXPECT_EQ(IMRdSec(13, section), 212);
    std::string const err = GetCapturedStderr();
    EXPECT_EQ(err.substr(0, c.firstLines.size()), c.firstLines) << c.attrib;
    EXPECT_EQ(err.substr(c.firstLines.size(), 8), "        ");
    ASSERT_EQ(IMClose(13), 0);
  }
}

}  // namespace
}  // namespace imtest
