// The iteration of one channel's fit: passes of fit and warp with three stop
// rules, every pass recorded, and the choice of the best pass afterwards.
// The fit and the warp come in as steps, so the rules stand on their own.
#include <algorithm>
#include <cassert>
#include <cstdio>
#include <string>

#include "app/settings.h"
#include "model/internal.h"

namespace {

ModelParameters copyOf(const double* parameters) {
  ModelParameters copy;
  std::copy(parameters, parameters + kNumModelParameters, copy.begin());
  return copy;
}

// Element by element; a NaN compares as different, so it never stops the loop.
bool parametersUnchanged(const ModelParameters& before, const double* after) {
  for (int k = 0; k < kNumModelParameters; ++k) {
    if (!(before[k] == after[k])) return false;
  }
  return true;
}

}  // namespace

void iterateFitPasses(int numIteration, double errThreshold, const FitPass& fit,
                      const WarpStep& warp, double* parameters, double* meanError,
                      double* errorDeviation, PassHistory& history) {
  assert(numIteration >= 1);
  int remaining = numIteration;
  for (;;) {
    // Counts down the passes left, not up the pass number.
    consolePrint(stdout, "Iteration " + std::to_string(remaining) + "\n");
    const ModelParameters before = copyOf(parameters);
    fit(parameters, meanError, errorDeviation);
    history.parameters.push_back(copyOf(parameters));
    history.meanErrors.push_back(*meanError);
    history.errorDeviations.push_back(*errorDeviation);

    if (parametersUnchanged(before, parameters)) break;
    // Strict, and a NaN mean does not stop. Both sides are in pixels here.
    if (errThreshold > *meanError) break;
    if (--remaining == 0) break;
    warp(parameters);
  }
}

int chooseBestPass(const std::vector<double>& meanErrors) {
  assert(!meanErrors.empty());
  int best = 0;
  for (int i = 1; i < static_cast<int>(meanErrors.size()); ++i) {
    if (meanErrors[i] < meanErrors[best]) best = i;
  }
  return best;
}
