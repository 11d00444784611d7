// Section addressing: the sequence codes, coordinate and section number as
// exact inverses against a reference built from the code's name, the
// refusals, positioning arithmetic, and a stack beyond 4 GiB in a sparse file.
#include <set>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

class ImsubsSection : public ImsubsTest {};

TEST_F(ImsubsSection, EveryCodeMapsCoordinatesOntoSectionsAndBack) {
  char const* const names[] = {"ZTWP", "WZTP", "ZWTP", "ZPWT", "ZWPT", "WZPT", "WPTZ", "PWTZ",
                               "PTWZ", "PZWT", "PWZT", "WPZT", "WTPZ", "TWPZ", "TPWZ"};
  EXPECT_STREQ(IMRtImgSequenceText(15), "Undefined");
  EXPECT_STREQ(IMRtImgSequenceText(-1), "Undefined");
  int const extents[4] = {3, 2, 5, 4};
  create(1, "stack", 1, 1, 3, 2, 5, 4);
  for (int code = 0; code < 15; ++code) {
    std::string const order = IMRtImgSequenceText(code);
    ASSERT_EQ(order, names[code]);
    ASSERT_EQ(IMAlImageSequence(1, code), 0);
    std::set<int> seen;
    for (int c = 0; c < 120; ++c) {
      int const coord[4] = {c % 3, c / 3 % 2, c / 6 % 5, c / 30};
      int reference = 0;  // the axes of the name, fastest first
      for (int k = 3; k >= 0; --k) {
        int const axis = static_cast<int>(std::string("ZWTP").find(order[k]));
        reference = reference * extents[axis] + coord[axis];
      }
      int sec = -1;
      ASSERT_EQ(IMRtSecNum2(1, coord[0], coord[1], coord[2], coord[3], &sec), 0);
      ASSERT_EQ(sec, reference) << order << " " << c;
      seen.insert(sec);
      int back[4] = {-1, -1, -1, -1};
      ASSERT_EQ(IMRtZWTPNum(1, &back[0], &back[1], &back[2], &back[3], sec), 0);
      ASSERT_EQ(std::vector<int>(back, back + 4), std::vector<int>(coord, coord + 4)) << order;
      if (coord[3] == 0) {
        ASSERT_EQ(IMRtSecNum(1, coord[0], coord[1], coord[2], &sec), 0);
        ASSERT_EQ(sec, reference);
      }
    }
    EXPECT_EQ(seen.size(), 120u);
    EXPECT_EQ(*seen.rbegin(), 119);
  }
}

TEST_F(ImsubsSection, BadCoordinatesAndCodesAreRefused) {
  create(3, "stack", 1, 1, 3, 2, 5, 4, 2);
  int sec = 99, z = 9, w = 9, t = 9, p = 9;
  std::string const badCoordinate = pidPrefix() +
                                    "IMRtSecNum2 3: invalid Z,W,T,P coordinate.\nRequested 0 2 0 "
                                    "0, Stream has 3 2 5 4.\n";
  expectCalls({
      {"W out of range", [&] { return IMRtSecNum2(3, 0, 2, 0, 0, &sec); }, 604, badCoordinate},
      {"section past the end", [&] { return IMRtZWTPNum(3, &z, &w, &t, &p, 120); }, 601, ""},
      {"negative section", [&] { return IMRtZWTPNum(3, nullptr, nullptr, &t, nullptr, -1); }, 601,
       ""},
      {"position out of range", [] { return IMPosnZWT(3, 0, 2, 0); }, 301,
       badCoordinate + "IMPosnZWTP 1 - invalid section number 3: error positioning stream.\n"},
      {"counts", [&] { return IMRtZWTP(3, &z, &w, &t, &p, &sec); }, 0, ""},
  });
  EXPECT_EQ(std::vector<int>({z, w, t, p, sec}), std::vector<int>({3, 2, 5, 4, 2}));
  EXPECT_EQ(IMRtZWT(3, nullptr, nullptr, nullptr, nullptr), 0);
  z = w = t = p = 9;
  EXPECT_EQ(IMRtZWTPNum(3, &z, &w, &t, &p, 120), 601);
  EXPECT_EQ(std::vector<int>({z, w, t, p}), std::vector<int>({0, 0, 0, 0}));
  ASSERT_EQ(IMAlImageSequence(3, 15), 0);
  sec = z = 99;
  expectCalls({
      {"bad code", [&] { return IMRtSecNum2(3, 0, 0, 0, 0, &sec); }, 505,
       "IMRtSecNum2 3: invalid image sequence 15\n"},
      {"bad code back", [&] { return IMRtZWTPNum(3, &z, nullptr, nullptr, nullptr, 0); }, 505, ""},
  });
  EXPECT_EQ(sec, 0);
  EXPECT_EQ(z, 0);
}

TEST_F(ImsubsSection, PositioningFollowsTheFileLayout) {
  create(4, "posn", 6, 5, 3, 2, 1, 1, 2, 1);
  ASSERT_EQ(IMAlExHdrSize2(4, 0, 0, 6, 4), 0);  // a 4096-byte block
  IMStreamRecord* r = record(4);
  ASSERT_EQ(r->iExtHdrSize, 4096);
  int const cases[][3] = {
      {0, 0, 0},      {1, 0, 60}, {2, 3, 2 * 60 + 3 * 12}, {5, 4, 5 * 60 + 4 * 12},
      {7, 0, 7 * 60},  // past the end: a seek succeeds
      {0, 0, 0}};
  for (auto const& c : cases) {
    r->iLastOp = kLastOpRead;
    ASSERT_EQ(IMPosn(4, c[0], c[1]), 0);
    EXPECT_EQ(dStreamFileTell(r), 5120.0 + c[2]) << c[0] << " " << c[1];
    EXPECT_EQ(r->iLastOp, kLastOpPositioned);
  }
  ASSERT_EQ(IMPosnZWT(4, 1, 1, 0), 0);  // sequence 2: Z, W, T
  EXPECT_EQ(dStreamFileTell(r), 5120.0 + 4 * 60);
  r->iLastOp = kLastOpWrite;
  ASSERT_EQ(IMPosnZWTP(4, 1, 1, 0, 0), 0);  // a zero move still counts
  EXPECT_EQ(r->iLastOp, kLastOpPositioned);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMPosn(4, -100, 0), 301); }),
            "IMPosn 4: error positioning stream.\n");
}

TEST_F(ImsubsSection, StackBeyondFourGibibytesAddressesCorrectly) {
  // 1100 sections of 1024 x 1024 floats: 4.3 GiB, written sparsely.
  int const nx = 1024, ny = 1024, nz = 1100;
  std::string const path = file("huge");
  create(5, "huge", nx, ny, nz, 1, 1, 1, 2);
  ASSERT_EQ(IMWrHdr2(5, 1), 0);
  long long const start = 1024LL + record(5)->iExtHdrSize, sectionBytes = 4LL * nx * ny;
  std::vector<float> section(static_cast<std::size_t>(nx) * ny);
  for (std::size_t i = 0; i < section.size(); ++i) section[i] = static_cast<float>(i % 977);
  ASSERT_EQ(IMPosnZWT(5, nz - 1, 0, 0), 0);
  ASSERT_EQ(IMWrSec(5, section.data()), 0);
  ASSERT_EQ(IMClose(5), 0);
  FILE* raw = std::fopen(path.c_str(), "rb");  // an independent read
  ASSERT_NE(raw, nullptr);
  ASSERT_EQ(fseeko64(raw, 0, SEEK_END), 0);
  EXPECT_EQ(ftello64(raw), start + nz * sectionBytes);
  ASSERT_EQ(fseeko64(raw, start + (nz - 1) * sectionBytes + 4LL * (nx * 7 + 3), SEEK_SET), 0);
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
