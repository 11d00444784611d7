// The second linkage: its naming rule and listed exceptions, that every IM
// function has a second name, that scalars arrive by address while arrays,
// strings and outputs pass unchanged, and the wrappers that do more.
#include "imsubs/second_linkage.h"

#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "imsubs_fixture.h"

namespace imtest {
namespace {

// The names that don't follow the plain rule.
std::map<std::string, std::string> const kExceptions = {
    {"IMOpen", "imopen_"},
    {"IMClose", "imclose_"},
    {"IMPosn", "imposn_"},
    {"IMPosnZWT", "imposn_zwt_"},
    {"IMPosnZWTP", "imposn_zwtp_"},
    {"IMCheckStream", "imcheckstream_"},
    {"IMReportInfo", "imreportinfo_"},
    {"IMAlVerboseMode", "imalverbosemode_"},
    {"IMGetHdr", "imgethdr_"},
    {"IMPutHdr", "imputhdr_"},
    {"IMInterp", "iminterp_"},
    {"IMClLim", "imcllim_"},
    {"IMTrExHdr", "imtrexhdr_"},
    {"IMRtOrig", "irtorg_"},
    {"IMAlOrig", "ialorg_"},
    {"IMRtMode", "irtmod_"},
    {"IMAlMode", "ialmod_"},
    {"IMCalcDen", "iclden_"},
    {"IMRtWavMMM", "irtwav_mmm_"},
    {"IMRtWavMM", "irtwav_mm_"},
    {"IMAlWavMMM", "ialwav_mmm_"},
    {"IMAlWavMM", "ialwav_mm_"},
    {"IMRtExHdrType", "irtexhdr_type_"},
    {"IMRtExHdrInfo", "irtexhdr_info_"},
    {"IMRtExHdrSize", "irtexhdr_size_"},
    {"IMRtExHdrZWT", "irtexhdr_zwt_"},
    {"IMRtExHdrValueZWT", "irtexhdr_valuezwt_"},
    {"IMAlExHdrType", "ialexhdr_type_"},
    {"IMAlExHdrInfo", "ialexhdr_info_"},
    {"IMAlExHdrSize", "ialexhdr_size_"},
    {"IMAlExHdrSize2", "ialexhdr_size2_"},
    {"IMAlExHdrZWT", "ialexhdr_zwt_"},
    {"IMAlExHdrValueZWT", "ialexhdr_valuezwt_"},
};

std::string plainRule(std::string const& name) {
  std::string alias = "i";
  for (char c : name.substr(2)) alias += static_cast<char>(std::tolower(c));
  return alias + "_";
}

std::vector<imlink::Entry> allEntries() {
  int count = 0;
  imlink::Entry const* entries = imlink::entries(&count);
  return std::vector<imlink::Entry>(entries, entries + count);
}

TEST(SecondLinkageNames, FollowTheRuleOrAListedException) {
  std::set<std::string> aliases;
  for (imlink::Entry const& e : allEntries()) {
    SCOPED_TRACE(e.name);
    auto const exception = kExceptions.find(e.name);
    std::string const expected = exception != kExceptions.end()       ? exception->second
                                 : std::string(e.alias) == "iwrhdrc_" ? "iwrhdrc_"
                                                                      : plainRule(e.name);
    EXPECT_EQ(e.alias, expected);
    EXPECT_TRUE(aliases.insert(e.alias).second) << "duplicate " << e.alias;
  }
  for (auto const& [name, alias] : kExceptions) EXPECT_EQ(aliases.count(alias), 1u) << alias;
  EXPECT_EQ(aliases.count("iwrhdr_"), 1u);
  EXPECT_EQ(aliases.count("irtxy_"), 1u);
  EXPECT_EQ(aliases.count("ialwav2_"), 1u);
}

TEST(SecondLinkageNames, EveryPublicFunctionHasOne) {
  std::ifstream header(std::string(CORVANE_SOURCE_DIR) + "/imsubs/imsubs.h");
  std::stringstream text;
  text << header.rdbuf();
  std::string const source = std::regex_replace(text.str(), std::regex("//[^\n]*"), "");
  std::set<std::string> linked;
  for (imlink::Entry const& e : allEntries()) linked.insert(e.name);
  std::regex const declaration(R"(\b(IM[A-Za-z0-9]+)\s*\()");
  int declared = 0;
  for (std::sregex_iterator it(source.begin(), source.end(), declaration), end; it != end; ++it) {
    std::string const name = (*it)[1];
    ++declared;
    EXPECT_EQ(linked.count(name), 1u) << name;
  }
  EXPECT_GT(declared, 150);
}

class SecondLinkageTest : public ImsubsTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(IMOpen(1, file("a").c_str(), "new"), 0);
    ASSERT_EQ(IMCrHdr2(1, 5, 4, 3, 2, 1, 0, 2), 0);
  }
};

TEST_F(SecondLinkageTest, ScalarsArriveByAddressOutputsPassThrough) {
  int s = 1;
  float x = 1.5f, y = -2.0f, z = 3.25f;
  EXPECT_EQ(ialorg_(&s, &x, &y, &z), 0);
  float back[3] = {};
  EXPECT_EQ(irtorg_(&s, &back[0], &back[1], &back[2]), 0);
  EXPECT_EQ(back[0], 1.5f);
  EXPECT_EQ(back[2], 3.25f);

  int nx = 0, ny = 0;
  EXPECT_EQ(irtxy_(&s, &nx, &ny), 0);
  EXPECT_EQ(nx, 5);
  EXPECT_EQ(ny, 4);

  float pixel[3] = {0.5f, 0.25f, 2.0f};  // an array passes as it is
  EXPECT_EQ(ialdel_(&s, pixel), 0);
  float got[3] = {};
  EXPECT_EQ(irtdel_(&s, got), 0);
  EXPECT_EQ(got[1], 0.25f);

  int w = 1;
  float mn = 1, mx = 9, mean = 4;
  EXPECT_EQ(ialwav_mmm_(&s, &w, &mn, &mx, &mean), 0);
  EXPECT_EQ(record(1)->fMeans[1], 4.0f);

  int iz = 2, iw = 1, it = 0, id = 3;
  double value = 0.1;
  EXPECT_EQ(ialexhdr_valuezwt_(&s, &iz, &iw, &it, &id, &value), 0);
  double read = 0;
  EXPECT_EQ(irtexhdr_valuezwt_(&s, &iz, &iw, &it, &id, &read), 0);
  EXPECT_EQ(read, static_cast<double>(0.1f));

  char type = 'i';
  int size = 0;
  int const count = 42;
  EXPECT_EQ(ialfield_(&s, "answer", &count, &type, &size), 0);
  int answer = 0;
  EXPECT_EQ(irtfieldint_(&s, "ANSWER", &answer), 0);
  EXPECT_EQ(answer, 42);

  unsigned code = 704;
  EXPECT_STREQ(irterrtext_(&code), "Extended header size too small");

  // A refused stream reaches the wrapped function unchanged.
  int bad = 0;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(irtxy_(&bad, &nx, &ny), 1); }),
            "IMRtXY 0: invalid stream number.\n");
}

TEST_F(SecondLinkageTest, OpenTakesBlankPaddedStringsWithLengths) {
  std::string const path = file("padded");
  std::string const padded = path + "      ";
  int s = 2;
  // The attribute ends at its first blank.
  EXPECT_EQ(imopen_(&s, padded.c_str(), "NEW   junk", static_cast<int>(path.size()), 10), 0);
  EXPECT_STREQ(record(2)->pName, path.c_str());
  ASSERT_EQ(IMCrHdr2(2, 2, 2, 1, 1, 1, 0, 2), 0);
  int flag = 1;
  EXPECT_EQ(iwrhdr2_(&s, &flag), 0);
  EXPECT_EQ(imclose_(&s), 0);

  CaptureStderr();
  EXPECT_EQ(imopen_(&s, path.c_str(), "new", 2041, 3), 105);
  EXPECT_EQ(imopen_(&s, path.c_str(), "new", 10, 35), 105);
  EXPECT_EQ(GetCapturedStderr(),
            "IMOpen_ 2: file name is too long.\nIMOpen_ 2: file name is too long.\n");

  IMAlPrt(2);
  CaptureStdout();
  EXPECT_EQ(imopen_(&s, path.c_str(), "old", static_cast<int>(path.size()), 3), 0);
  EXPECT_EQ(GetCapturedStdout(), "IMOpen_ 2: string lengths = " + std::to_string(path.size()) +
                                     ", 3\n> name: " + path + ".\n> attrib: old.\n");
}

TEST_F(SecondLinkageTest, WrappersThatDoMore) {
  int s = 1;
  // Title cut at 79 characters; both names write the header.
  std::string const longTitle(100, 't');
  int mode = 0;
  float mn = 1, mx = 2, mean = 1.5f;
  iwrhdr_(&s, longTitle.c_str(), &mode, &mn, &mx, &mean);
  EXPECT_EQ(std::string(record(1)->cTitles[0]), std::string(79, 't'));
  mode = 1;
  iwrhdrc_(&s, "second", &mode, &mn, &mx, &mean);
  EXPECT_EQ(record(1)->iNumTitles, 2);

  int ignored = 99, count = 1;
  EXPECT_EQ(ialnumlab_(&s, &ignored, &count), 0);
  EXPECT_EQ(record(1)->iNumTitles, 1);

  float dx = 2, dy = 3, dz = 4;
  EXPECT_EQ(ialdel2_(&s, &dx, &dy, &dz), 0);
  EXPECT_EQ(record(1)->fPixelSize[2], 4.0f);

  int nz = 6, nw = 1, nt = 2, seq = 1;
  record(1)->iNumP = 5;
  EXPECT_EQ(ialzwt_(&s, &nz, &nw, &nt, &seq), 0);
  EXPECT_EQ(record(1)->iNumP, 1);
  EXPECT_EQ(record(1)->iNumSecs, 12);

  // Bounds counted from 1: columns 2-3 and row 2 of a 3 by 2 image.
  float const image[6] = {1, 2, 3, 4, 5, 60};
  int width = 3, height = 2, c0 = 2, c1 = 3, r0 = 2, r1 = 2;
  float lo, hi, avg;
  EXPECT_EQ(iclden_(image, &width, &height, &c0, &c1, &r0, &r1, &lo, &hi, &avg), 0);
  EXPECT_EQ(lo, 5.0f);
  EXPECT_EQ(hi, 60.0f);
  EXPECT_EQ(avg, 32.5f);

  int d = 1, z0 = 0, z1 = 0, zs = 1, t0 = 0, t1 = 0, ts = 1;
  int const flags[5] = {1, 0, 0, 0, 0};
  CaptureStderr();
  EXPECT_EQ(itrexhdr2_(&d, &s, &z0, &z1, &zs, flags, &t0, &t1, &ts), 0);
  EXPECT_THAT(
      GetCapturedStderr(),
      testing::StartsWith("itrexhdr2: switch to itrexhdr3. Backwards compatibility enabled...\n"));
}

}  // namespace
}  // namespace imtest
