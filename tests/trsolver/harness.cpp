// The handle of either family and the reverse-communication loop of the
// application's wrappers, for tests.
#include "harness.h"

#include <cstddef>

int Handle::init() {
  return bounded ? DTRNLSPBC_INIT(&h, &n, &m, x.data(), lw.data(), up.data(), eps.data(), &iter1,
                                  &iter2, &rs)
                 : DTRNLSP_INIT(&h, &n, &m, x.data(), eps.data(), &iter1, &iter2, &rs);
}
int Handle::solve(double* fvec, double* fjac) {
  return bounded ? DTRNLSPBC_SOLVE(&h, fvec, fjac, &rci) : DTRNLSP_SOLVE(&h, fvec, fjac, &rci);
}
int Handle::get(int* iterations, int* reason, double* r1, double* r2) {
  return bounded ? DTRNLSPBC_GET(&h, iterations, reason, r1, r2)
                 : DTRNLSP_GET(&h, iterations, reason, r1, r2);
}
int Handle::del() {
  return bounded ? DTRNLSPBC_DELETE(&h) : DTRNLSP_DELETE(&h);
}

namespace {

SolveOutcome runLoop(Handle& h, TrResidualFunction f, void* data, const SolveSetup& setup) {
  SolveOutcome out;
  out.initStatus = h.init();
  if (out.initStatus != TRS_OK) return out;
  std::vector<double> fvec(static_cast<std::size_t>(h.m)),
      fjac(static_cast<std::size_t>(h.m) * h.n);
  const double step[1] = {setup.jacobianStep > 0.0 ? setup.jacobianStep : h.eps[0]};
  while (!(out.runaway = out.solveCalls >= setup.maxSolveCalls)) {
    ++out.solveCalls;
    out.solveStatus = h.solve(fvec.data(), fjac.data());
    out.rci = h.rci;
    if (out.solveStatus != TRS_OK || (h.rci <= -1 && h.rci >= -6)) break;
    if (h.rci == 1) {
      ++out.residualCalls;
      if (setup.recordVisited) out.visited.push_back(h.x);
      f(&h.m, &h.n, h.x.data(), fvec.data(), data);
    } else if (h.rci == 2) {
      ++out.jacobianCalls;
      DJACOBIX(f, &h.n, &h.m, fjac.data(), h.x.data(), step, data);
    }
  }
  h.get(&out.iterations, &out.stopReason, &out.r1, &out.r2);
  h.del();
  out.x = h.x;
  return out;
}

}  // namespace

SolveOutcome solveFree(TrResidualFunction f, void* data, int n, int m, std::vector<double> x0,
                       const SolveSetup& setup) {
  Handle h{false, n, m, setup.iter1, setup.iter2, 0, setup.rs, x0, {}, {}, setup.eps};
  return runLoop(h, f, data, setup);
}

SolveOutcome solveBounded(TrResidualFunction f, void* data, int n, int m, std::vector<double> x0,
                          std::vector<double> lw, std::vector<double> up, const SolveSetup& setup) {
  Handle h{true, n, m, setup.iter1, setup.iter2, 0, setup.rs, x0, lw, up, setup.eps};
  return runLoop(h, f, data, setup);
}
