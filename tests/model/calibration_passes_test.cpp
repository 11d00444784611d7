// The channel iteration with scripted passes: the three stop rules, the warps
// between passes, the counting-down lines, and the choice of the best pass.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "model/internal.h"

namespace {

constexpr double kSame = NAN;  // a scripted pass that leaves the parameters alone

// One scripted pass: the new value of element 4 (or kSame), the mean error it
// measures, and whether it gets to a measurement at all.
struct ScriptedPass {
  double element4;
  double meanError;
  bool measures = true;
};

struct Outcome {
  int passes = 0;
  std::vector<double> warpedWith;  // element 4 at each warp
  PassHistory history;
  std::string console;
  double parameters[kNumModelParameters] = {};
  double meanError = -1.0, errorDeviation = -1.0;
};

Outcome runScript(const std::vector<ScriptedPass>& script, int numIteration, double errThreshold) {
  Outcome o;
  o.parameters[2] = 1.0;
  const FitPass fit = [&](double* p, double* mean, double* deviation) {
    const ScriptedPass& pass = script.at(o.passes++);
    if (!std::isnan(pass.element4)) p[4] = pass.element4;
    if (pass.measures) {
      *mean = pass.meanError;
      *deviation = 10.0 + o.passes;
    }
  };
  const WarpStep warp = [&](double* p) { o.warpedWith.push_back(p[4]); };
  testing::internal::CaptureStdout();
  iterateFitPasses(numIteration, errThreshold, fit, warp, o.parameters, &o.meanError,
                   &o.errorDeviation, o.history);
  o.console = testing::internal::GetCapturedStdout();
  return o;
}

}  // namespace

// Each pass prints its line, counting down; the passes end by the first rule
// that holds: none left, unchanged parameters, a mean below the threshold.
TEST(IterateFitPasses, StopsByTheFirstRuleThatHoldsAndRecordsEveryPass) {
  struct Case {
    std::vector<ScriptedPass> script;
    int numIteration;
    double errThreshold;
    std::vector<double> warps;  // element 4 at each warp; the passes are one more
    std::vector<double> means;  // as recorded
  };
  // A mean equal to the threshold goes on; a NaN threshold never stops. A
  // pass without pairs keeps -1.0, which stops; changed parameters with no
  // measurement keep the earlier figures.
  // clang-format off
  const Case cases[] = {
      {{{1, 3}, {2, 2}, {3, 4}, {4, 5}, {5, 6}}, 5, 0.5, {1, 2, 3, 4}, {3, 2, 4, 5, 6}},
      {{{1, 3}}, 1, 0.5, {}, {3}}, {{{1, 3}, {kSame, 2}}, 5, 0.5, {1}, {3, 2}},
      {{{1, 3}, {2, 0.4}}, 5, 0.5, {1}, {3, 0.4}},
      {{{1, 0.5}, {2, 0.49}}, 3, 0.5, {1}, {0.5, 0.49}},
      {{{1, NAN}, {2, NAN}, {3, NAN}}, 3, 0.5, {1, 2}, {NAN, NAN, NAN}},
      {{{1, 0.0}, {2, 0.0}}, 2, NAN, {1}, {0, 0}}, {{{kSame, 0, false}}, 5, 0.5, {}, {-1}},
      {{{1, 3}, {2, 0, false}, {3, 2}}, 3, 0.5, {1, 2}, {3, 3, 2}}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    const Outcome o = runScript(c.script, c.numIteration, c.errThreshold);
    const int passes = static_cast<int>(c.warps.size()) + 1;
    std::string lines;
    for (int k = 0; k < passes; ++k)
      lines += "Iteration " + std::to_string(c.numIteration - k) + "\n";
    EXPECT_EQ(o.passes, passes);
    EXPECT_EQ(o.warpedWith, c.warps);
    EXPECT_EQ(o.console, lines);
    ASSERT_EQ(o.history.parameters.size(), static_cast<std::size_t>(passes));
    ASSERT_EQ(o.history.meanErrors.size(), c.means.size());
    ASSERT_EQ(o.history.errorDeviations.size(), c.means.size());
    for (int k = 0; k < passes; ++k) {
      const double mean = o.history.meanErrors[k];
      EXPECT_TRUE(mean == c.means[k] || (std::isnan(mean) && std::isnan(c.means[k]))) << k;
      EXPECT_EQ(o.history.parameters[k][4], std::isnan(c.script[k].element4)
                                                ? (k ? o.history.parameters[k - 1][4] : 0.0)
                                                : c.script[k].element4);
    }
  }
  // The second pass did not measure: it records the first pass's deviation.
  const Outcome o = runScript({{1, 3}, {2, 0, false}, {3, 2}}, 3, 0.5);
  EXPECT_EQ(o.history.errorDeviations, (std::vector<double>{11, 11, 13}));
}

TEST(ChooseBestPass, TakesTheSmallestMeanAndTheEarliestAmongEquals) {
  struct Case {
    std::vector<double> meanErrors;
    int best;
  };
  // The last pass worse: an earlier one wins; the earliest of equals; a NaN
  // is never smaller, and a leading NaN is never replaced.
  // clang-format off
  const Case cases[] = {
      {{3.0}, 0}, {{3.0, 2.0, 4.0}, 1}, {{1.0, 2.0, 3.0}, 0}, {{2.0, 1.0, 1.0, 1.5}, 1},
      {{2.0, NAN, 1.0}, 2}, {{NAN, 1.0, 0.5}, 0}, {{4.0, 3.0, 3.0 + 1e-15, 2.5}, 3}};
  // clang-format on
  for (const Case& c : cases) {
    EXPECT_EQ(chooseBestPass(c.meanErrors), c.best) << testing::PrintToString(c.meanErrors);
  }
}
