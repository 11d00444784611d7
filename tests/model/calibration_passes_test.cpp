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

TEST(IterateFitPasses, StopsByTheFirstRuleThatHolds) {
  struct Case {
    const char* name;
    std::vector<ScriptedPass> script;
    int numIteration;
    double errThreshold;
    int passes;
    std::vector<double> warps;
    std::string console;
  };
  const Case cases[] = {
      {"all passes when nothing stops",
       {{1, 3}, {2, 2}, {3, 4}, {4, 5}, {5, 6}},
       5,
       0.5,
       5,
       {1, 2, 3, 4},
       "Iteration 5\nIteration 4\nIteration 3\nIteration 2\nIteration 1\n"},
      {"one pass and no warp", {{1, 3}}, 1, 0.5, 1, {}, "Iteration 1\n"},
      {"unchanged parameters", {{1, 3}, {kSame, 2}}, 5, 0.5, 2, {1}, "Iteration 5\nIteration 4\n"},
      {"mean below the threshold",
       {{1, 3}, {2, 0.4}},
       5,
       0.5,
       2,
       {1},
       "Iteration 5\nIteration 4\n"},
      {"mean equal to the threshold goes on",
       {{1, 0.5}, {2, 0.49}},
       3,
       0.5,
       2,
       {1},
       "Iteration 3\nIteration 2\n"},
      {"a NaN mean goes on",
       {{1, NAN}, {2, NAN}, {3, NAN}},
       3,
       0.5,
       3,
       {1, 2},
       "Iteration 3\nIteration 2\nIteration 1\n"},
      {"a NaN threshold never stops",
       {{1, 0.0}, {2, 0.0}},
       2,
       NAN,
       2,
       {1},
       "Iteration 2\nIteration 1\n"},
      {"a pass without pairs keeps -1.0, which stops",
       {{kSame, 0, false}},
       5,
       0.5,
       1,
       {},
       "Iteration 5\n"},
      {"changed parameters with no measurement keep the old mean",
       {{1, 3}, {2, 0, false}, {3, 2}},
       3,
       0.5,
       3,
       {1, 2},
       "Iteration 3\nIteration 2\nIteration 1\n"},
  };
  for (const Case& c : cases) {
    const Outcome o = runScript(c.script, c.numIteration, c.errThreshold);
    EXPECT_EQ(o.passes, c.passes) << c.name;
    EXPECT_EQ(o.warpedWith, c.warps) << c.name;
    EXPECT_EQ(o.console, c.console) << c.name;
    ASSERT_EQ(o.history.meanErrors.size(), static_cast<std::size_t>(c.passes)) << c.name;
    ASSERT_EQ(o.history.parameters.size(), static_cast<std::size_t>(c.passes)) << c.name;
    ASSERT_EQ(o.history.errorDeviations.size(), static_cast<std::size_t>(c.passes)) << c.name;
  }
}

TEST(IterateFitPasses, RecordsEveryPassAsItEnded) {
  const Outcome o = runScript({{1, 3}, {2, 0, false}, {3, 2}}, 3, 0.5);
  EXPECT_EQ(o.history.parameters[0][4], 1.0);
  EXPECT_EQ(o.history.parameters[1][4], 2.0);
  EXPECT_EQ(o.history.parameters[2][4], 3.0);
  // The second pass did not measure: it records the first pass's figures.
  EXPECT_EQ(o.history.meanErrors, (std::vector<double>{3, 3, 2}));
  EXPECT_EQ(o.history.errorDeviations, (std::vector<double>{11, 11, 13}));
}

TEST(ChooseBestPass, TakesTheSmallestMeanAndTheEarliestAmongEquals) {
  struct Case {
    std::vector<double> meanErrors;
    int best;
  };
  const Case cases[] = {
      {{3.0}, 0},
      {{3.0, 2.0, 4.0}, 1},
      {{1.0, 2.0, 3.0}, 0},            // the last pass worse: an earlier one wins
      {{2.0, 1.0, 1.0, 1.5}, 1},       // earliest of equals
      {{-1.0, -1.0}, 0},               // no pass measured
      {{0.0, 0.0, 0.0, 0.0, 0.0}, 0},  // every pass under a pixel
      {{2.0, NAN, 1.0}, 2},            // a NaN is never smaller
      {{NAN, 1.0, 0.5}, 0},            // a leading NaN is never replaced
      {{4.0, 3.0, 3.0 + 1e-15, 2.5}, 3},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(chooseBestPass(c.meanErrors), c.best) << testing::PrintToString(c.meanErrors);
  }
}
