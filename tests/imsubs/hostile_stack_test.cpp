// Stacks whose header claims far more than the file holds: opening and
// reading must fail as the short reads they are, with memory bounded by the
// file and not by the claim.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "imsubs/imsubs.h"
#include "imsubs/internal.h"
#include "support/testutil.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr size_t kFileBytes = 1339;  // the size of the crafted file of the report
constexpr long kMaxGrowthKb = 64 * 1024;

long peakKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

std::string craftedStack(int32_t extHdrSize, int16_t ints, int16_t floats) {
  std::string bytes(kFileBytes, '\0');
  auto put = [&](int offset, auto value) { std::memcpy(&bytes[offset], &value, sizeof value); };
  put(hdroff::giNumX, int32_t{2});
  put(hdroff::giNumY, int32_t{2});
  put(hdroff::giNumSecs, int32_t{1});
  put(hdroff::giPixDataType, int32_t{2});
  for (int i = 0; i < 3; ++i) put(hdroff::giXYZSampling + 4 * i, int32_t{1});
  put(hdroff::giExtHdrSize, extHdrSize);
  put(hdroff::gnImageFileID, int16_t{kFileIDHostOrder});
  put(hdroff::gnNumExtHdrInts, ints);
  put(hdroff::gnNumExtHdrFloats, floats);
  put(hdroff::gwNumWaves, uint16_t{1});
  put(hdroff::gwNumTimes, uint16_t{1});
  return bytes;
}

TEST(HostileStackTest, AnExtendedHeaderBeyondTheFileFailsWithoutItsClaimedMemory) {
  struct Case {
    int32_t claim;
    int16_t ints, floats;
  } const cases[] = {{1400000000, 1, 1}, {INT32_MAX, 8, 32}, {1 << 28, 0, 2}};
  testutil::ScratchDir dir;
  const std::string path = dir.file("claim.qf");
  for (const Case& c : cases) {
    testutil::writeFile(path, craftedStack(c.claim, c.ints, c.floats));
    const long before = peakKb();
    CaptureStderr();
    EXPECT_EQ(IMOpen(1, path.c_str(), "ro"), 210);
    const std::string shortRead = "IMOpen 1: error reading extended header (315," +
                                  std::to_string(c.claim) + ",ro,\"" + path + "\").\n";
    EXPECT_NE(GetCapturedStderr().find(shortRead), std::string::npos) << shortRead;
    EXPECT_LT(peakKb() - before, kMaxGrowthKb) << c.claim;
    // The stream stays, as after any short read, but holds no block.
    ASSERT_EQ(IMCheckStream(1, "test"), 0);
    EXPECT_EQ(gsStreams[1]->pExtHdr, nullptr);
    float section[4];
    CaptureStderr();
    EXPECT_EQ(IMRdSec(1, section), 212);
    GetCapturedStderr();
    EXPECT_EQ(IMClose(1), 0);
  }
}

}  // namespace
