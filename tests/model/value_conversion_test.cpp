// Values of the parameter file turned into integers: defined for every value
// a file can hold, unchanged for the ones in range.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>

#include "model/model.h"

namespace {

TEST(ValueConversionTest, TruncatesTowardsZeroAndSaturatesOutOfRange) {
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    double value;
    int expected;
  } const cases[] = {
      // clang-format off
      {2.9, 2}, {-2.9, -2}, {0.5, 0}, {-0.5, 0}, {530.75, 530},
      {2147483647.9, INT_MAX}, {-2147483648.9, INT_MIN}, {2147483648.0, INT_MAX},
      {-2147483904.0, INT_MIN}, {1e30, INT_MAX}, {-1e30, INT_MIN},
      {inf, INT_MAX}, {-inf, INT_MIN}, {std::nan(""), 0},
      // clang-format on
  };
  for (const Case& c : cases) EXPECT_EQ(truncateToInt(c.value), c.expected) << c.value;
}

}  // namespace
