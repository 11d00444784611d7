// Section addressing: the sequence codes, coordinate and section number as
// exact inverses against a reference built from the code's name, the
// refusals and the positioning arithmetic.
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
      int back[4] = {-1, -1, -1, -1};
      ASSERT_EQ(IMRtZWTPNum(1, &back[0], &back[1], &back[2], &back[3], sec), 0);
      ASSERT_EQ(std::vector<int>(back, back + 4), std::vector<int>(coord, coord + 4)) << order;
      if (coord[3] == 0) {
        ASSERT_EQ(IMRtSecNum(1, coord[0], coord[1], coord[2], &sec), 0);
        ASSERT_EQ(sec, reference);
      }
    }
  }
  // Refusals: a section number out of range, a coordinate out of range, an
  // unknown code; every output is zeroed.
  int z = 9, w = 9, t = 9, p = 9, sec = 9;
  EXPECT_EQ(IMRtZWTPNum(1, &z, &w, &t, &p, 120), 601);
  EXPECT_EQ(IMRtZWTPNum(1, nullptr, nullptr, &t, nullptr, -1), 601);
  EXPECT_EQ(std::vector<int>({z, w, t, p}), std::vector<int>({0, 0, 0, 0}));
  std::string const err = stderrOf([&] { EXPECT_EQ(IMRtSecNum2(1, 0, 2, 0, 0, &sec), 604); });
  EXPECT_NE(err.find("Requested 0 2 0 0, Stream has 3 2 5 4.\n"), std::string::npos);
  ASSERT_EQ(IMAlImageSequence(1, 15), 0);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(IMRtSecNum2(1, 0, 0, 0, 0, &sec), 505); }),
            "IMRtSecNum2 1: invalid image sequence 15\n");
  z = 9;
  EXPECT_EQ(IMRtZWTPNum(1, &z, nullptr, nullptr, nullptr, 0), 505);
  EXPECT_EQ(std::vector<int>({z, sec}), std::vector<int>({0, 0}));
}

}  // namespace
}  // namespace imtest
