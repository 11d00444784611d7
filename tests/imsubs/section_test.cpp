// Section addressing: the sequence codes, coordinate and section number as
// exact inverses, positioning arithmetic with an extended header, and a
// stack beyond 4 GiB in a sparse file.
#include <array>
#include <set>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

class ImsubsSection : public ImsubsTest {
 protected:
  // A new stream with the given extents, one float pixel per section.
  void makeStack(int iStream, int nz, int nw, int nt, int np, int sequence) {
    ASSERT_EQ(IMOpen(iStream, file("stack" + std::to_string(iStream)).c_str(), "new"), 0);
    ASSERT_EQ(IMCrHdr3(iStream, 1, 1, nz, nw, nt, np, sequence, 2), 0);
  }
};

TEST(ImsubsSequence, NamesOfEveryCode) {
  char const* const names[] = {"ZTWP", "WZTP", "ZWTP", "ZPWT", "ZWPT", "WZPT", "WPTZ", "PWTZ",
                               "PTWZ", "PZWT", "PWZT", "WPZT", "WTPZ", "TWPZ", "TPWZ"};
  for (int code = 0; code < 15; ++code) EXPECT_STREQ(IMRtImgSequenceText(code), names[code]);
  EXPECT_STREQ(IMRtImgSequenceText(15), "Undefined");
  EXPECT_STREQ(IMRtImgSequenceText(-1), "Undefined");
}

TEST_F(ImsubsSection, EveryCodeMapsCoordinatesOntoSectionsAndBack) {
  int const extents[4] = {3, 2, 5, 4};
  makeStack(1, extents[0], extents[1], extents[2], extents[3], 0);
  for (int code = 0; code < 15; ++code) {
    SCOPED_TRACE(IMRtImgSequenceText(code));
    ASSERT_EQ(IMAlImageSequence(1, code), 0);
    std::set<int> seen;
    std::string const order = IMRtImgSequenceText(code);
    for (int p = 0; p < 4; ++p) {
      for (int t = 0; t < 5; ++t) {
        for (int w = 0; w < 2; ++w) {
          for (int z = 0; z < 3; ++z) {
            int sec = -1;
            ASSERT_EQ(IMRtSecNum2(1, z, w, t, p, &sec), 0);
            // Independent reference: the axes of the name, fastest first.
            int const coord[4] = {z, w, t, p};
            int reference = 0;
            for (int k = 3; k >= 0; --k) {
              int const axis = std::string("ZWTP").find(order[k]);
              reference = reference * extents[axis] + coord[axis];
            }
            EXPECT_EQ(sec, reference);
            seen.insert(sec);
            int back[4] = {-1, -1, -1, -1};
            ASSERT_EQ(IMRtZWTPNum(1, &back[0], &back[1], &back[2], &back[3], sec), 0);
            EXPECT_EQ(std::vector<int>(back, back + 4), std::vector<int>(coord, coord + 4));
          }
        }
      }
    }
    EXPECT_EQ(seen.size(), 120u);
    EXPECT_EQ(*seen.begin(), 0);
    EXPECT_EQ(*seen.rbegin(), 119);
  }
}

TEST_F(ImsubsSection, CodesThatDifferOnlyInPGiveTheSameNumbersWithOneP) {
  makeStack(2, 3, 2, 5, 1, 2);
  for (int code : {3, 4, 9}) {
    for (int sec = 0; sec < 30; ++sec) {
      int z, w, t;
      ASSERT_EQ(IMAlImageSequence(2, 2), 0);
      ASSERT_EQ(IMRtZWTNum(2, &z, &w, &t, sec), 0);
      ASSERT_EQ(IMAlImageSequence(2, code), 0);
      int other = -1;
      ASSERT_EQ(IMRtSecNum(2, z, w, t, &other), 0);
      EXPECT_EQ(other, sec) << code;
    }
  }
}

TEST_F(ImsubsSection, BadCoordinatesAndCodesAreRefused) {
  makeStack(3, 3, 2, 5, 4, 2);
  int sec = 99;
  CaptureStderr();
  EXPECT_EQ(IMRtSecNum2(3, 0, 2, 0, 0, &sec), 604);
  EXPECT_EQ(GetCapturedStderr(), pidPrefix() +
                                     "IMRtSecNum2 3: invalid Z,W,T,P coordinate.\nRequested 0 2 0 "
                                     "0, Stream has 3 2 5 4.\n");
  EXPECT_EQ(sec, 0);
  int z = 9, w = 9, t = 9, p = 9;
  EXPECT_EQ(IMRtZWTPNum(3, &z, &w, &t, &p, 120), 601);
  EXPECT_EQ(std::vector<int>({z, w, t, p}), std::vector<int>({0, 0, 0, 0}));
  EXPECT_EQ(IMRtZWTPNum(3, nullptr, nullptr, &t, nullptr, -1), 601);
  ASSERT_EQ(IMAlImageSequence(3, 15), 0);
  sec = 99;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMRtSecNum2(3, 0, 0, 0, 0, &sec), 505); }),
            "IMRtSecNum2 3: invalid image sequence 15\n");
  EXPECT_EQ(sec, 0);
  z = 9;
  EXPECT_EQ(IMRtZWTPNum(3, &z, nullptr, nullptr, nullptr, 0), 505);
  EXPECT_EQ(z, 0);
  ASSERT_EQ(IMAlImageSequence(3, 2), 0);
  CaptureStderr();
  EXPECT_EQ(IMPosnZWT(3, 0, 2, 0), 301);
  EXPECT_EQ(GetCapturedStderr(), pidPrefix() +
                                     "IMRtSecNum2 3: invalid Z,W,T,P coordinate.\nRequested 0 2 0 "
                                     "0, Stream has 3 2 5 4.\n"
                                     "IMPosnZWTP 1 - invalid section number 3: error positioning "
                                     "stream.\n");
  int nz, nw, nt, np, seq;
  ASSERT_EQ(IMRtZWTP(3, &nz, &nw, &nt, &np, &seq), 0);
  EXPECT_EQ(std::vector<int>({nz, nw, nt, np, seq}), std::vector<int>({3, 2, 5, 4, 2}));
  EXPECT_EQ(IMRtZWT(3, nullptr, nullptr, nullptr, nullptr), 0);
}

TEST_F(ImsubsSection, PositioningFollowsTheFileLayout) {
  ASSERT_EQ(IMOpen(4, file("posn").c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr3(4, 6, 5, 3, 2, 1, 1, 2, 1), 0);
  ASSERT_EQ(IMAlExHdrSize2(4, 0, 0, 6, 4), 0);  // a 4096-byte block
  IMStreamRecord* r = record(4);
  ASSERT_EQ(r->iExtHdrSize, 4096);
  struct Case {
    int sec, line;
    double expected;
  };
  Case const cases[] = {
      {0, 0, 5120.0},
      {1, 0, 5120.0 + 60},
      {2, 3, 5120.0 + 2 * 60 + 3 * 12},
      {5, 4, 5120.0 + 5 * 60 + 4 * 12},
      {7, 0, 5120.0 + 7 * 60},  // past the end: a seek succeeds
      {0, 0, 5120.0},
  };
  for (Case const& c : cases) {
    r->iLastOp = kLastOpRead;
    ASSERT_EQ(IMPosn(4, c.sec, c.line), 0);
    EXPECT_EQ(dStreamFileTell(r), c.expected) << c.sec << " " << c.line;
    EXPECT_EQ(r->iLastOp, kLastOpPositioned);
  }
  // By coordinate, with sequence 2 (Z, W, T).
  ASSERT_EQ(IMPosnZWT(4, 1, 1, 0), 0);
  EXPECT_EQ(dStreamFileTell(r), 5120.0 + 4 * 60);
  r->iLastOp = kLastOpWrite;
  ASSERT_EQ(IMPosnZWTP(4, 1, 1, 0, 0), 0);  // a zero move still counts
  EXPECT_EQ(r->iLastOp, kLastOpPositioned);
  // A negative position can't be reached.
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMPosn(4, -100, 0), 301); }),
            "IMPosn 4: error positioning stream.\n");
}

TEST_F(ImsubsSection, StackBeyondFourGibibytesAddressesCorrectly) {
  // 1100 sections of 1024 x 1024 floats: 4.3 GiB, written sparsely.
  int const nx = 1024, ny = 1024, nz = 1100;
  std::string const path = file("huge");
  ASSERT_EQ(IMOpen(5, path.c_str(), "new"), 0);
  ASSERT_EQ(IMCrHdr2(5, nx, ny, nz, 1, 1, 2, 2), 0);
  ASSERT_EQ(IMWrHdr2(5, 1), 0);
  int const ext = record(5)->iExtHdrSize;
  std::vector<float> section(static_cast<std::size_t>(nx) * ny);
  for (std::size_t i = 0; i < section.size(); ++i) section[i] = static_cast<float>(i % 977);
  ASSERT_EQ(IMPosnZWT(5, nz - 1, 0, 0), 0);
  ASSERT_EQ(IMWrSec(5, section.data()), 0);
  ASSERT_EQ(IMClose(5), 0);
  long long const sectionBytes = 4LL * nx * ny;
  EXPECT_EQ(fileSize(path), 1024LL + ext + nz * sectionBytes);

  // An independent read at the computed offset.
  FILE* raw = std::fopen(path.c_str(), "rb");
  ASSERT_NE(raw, nullptr);
  long long const offset = 1024LL + ext + (nz - 1) * sectionBytes + 4LL * (nx * 7 + 3);
  ASSERT_EQ(fseeko64(raw, offset, SEEK_SET), 0);
  float value = -1;
  ASSERT_EQ(std::fread(&value, 4, 1, raw), 1u);
  std::fclose(raw);
  EXPECT_EQ(value, section[nx * 7 + 3]);

  ASSERT_EQ(IMOpen(5, path.c_str(), "ro"), 0);
  std::vector<float> back(section.size(), -1.0f);
  ASSERT_EQ(IMPosn(5, nz - 1, 0), 0);
  ASSERT_EQ(IMRdSec(5, back.data()), 0);
  EXPECT_EQ(back, section);
  ASSERT_EQ(IMPosn(5, nz - 2, ny - 1), 0);  // a backward move across 4 GiB
  std::vector<float> line(nx, -1.0f);
  ASSERT_EQ(IMRdLin(5, line.data()), 0);
  EXPECT_EQ(line, std::vector<float>(nx, 0.0f));
  ASSERT_EQ(IMRdLin(5, line.data()), 0);
  EXPECT_EQ(line, std::vector<float>(section.begin(), section.begin() + nx));
}

}  // namespace
}  // namespace imtest
