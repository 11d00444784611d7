// The reverse-communication loop of the application's wrappers, for tests.
#include "harness.h"

#include <cstddef>

namespace {

template <typename Solve, typename Get, typename Delete>
SolveOutcome runLoop(TrHandle handle, TrResidualFunction f, void* data, int n, int m,
                     std::vector<double>& x, std::vector<double>& eps, const SolveSetup& setup,
                     Solve solve, Get get, Delete del) {
  SolveOutcome out;
  out.initStatus = TRS_OK;
  std::vector<double> fvec(static_cast<std::size_t>(m)), fjac(static_cast<std::size_t>(m) * n);
  const double step[1] = {setup.jacobianStep > 0.0 ? setup.jacobianStep : eps[0]};
  int rci = 0;
  for (;;) {
    if (out.solveCalls >= setup.maxSolveCalls) {
      out.runaway = true;
      break;
    }
    ++out.solveCalls;
    out.solveStatus = solve(&handle, fvec.data(), fjac.data(), &rci);
    out.rci = rci;
    if (out.solveStatus != TRS_OK) break;
    if (rci <= -1 && rci >= -6) break;
    if (rci == 1) {
      ++out.residualCalls;
      if (setup.recordVisited) out.visited.push_back(x);
      f(&m, &n, x.data(), fvec.data(), data);
    } else if (rci == 2) {
      ++out.jacobianCalls;
      DJACOBIX(f, &n, &m, fjac.data(), x.data(), step, data);
    }
  }
  get(&handle, &out.iterations, &out.stopReason, &out.r1, &out.r2);
  del(&handle);
  out.x = x;
  return out;
}

}  // namespace

SolveOutcome solveFree(TrResidualFunction f, void* data, int n, int m, std::vector<double> x0,
                       const SolveSetup& setup) {
  std::vector<double> eps = setup.eps;
  TrHandle handle = nullptr;
  SolveOutcome out;
  out.initStatus =
      DTRNLSP_INIT(&handle, &n, &m, x0.data(), eps.data(), &setup.iter1, &setup.iter2, &setup.rs);
  if (out.initStatus != TRS_OK) return out;
  return runLoop(handle, f, data, n, m, x0, eps, setup, DTRNLSP_SOLVE, DTRNLSP_GET, DTRNLSP_DELETE);
}

SolveOutcome solveBounded(TrResidualFunction f, void* data, int n, int m, std::vector<double> x0,
                          std::vector<double> lw, std::vector<double> up, const SolveSetup& setup) {
  std::vector<double> eps = setup.eps;
  TrHandle handle = nullptr;
  SolveOutcome out;
  out.initStatus = DTRNLSPBC_INIT(&handle, &n, &m, x0.data(), lw.data(), up.data(), eps.data(),
                                  &setup.iter1, &setup.iter2, &setup.rs);
  if (out.initStatus != TRS_OK) return out;
  return runLoop(handle, f, data, n, m, x0, eps, setup, DTRNLSPBC_SOLVE, DTRNLSPBC_GET,
                 DTRNLSPBC_DELETE);
}
