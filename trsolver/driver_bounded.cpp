// Driver of the family with bounds: the shared iteration with the feasible
// step computation; the shrink branch caps with 10 times the step norm.
#include "trsolver/driver.h"

namespace {

// Mixing threshold and interior factor of the feasible step, passed as
// literals by design.
constexpr double MIX_THRESHOLD = 0.1;
constexpr double INTERIOR_FACTOR = 0.99995;

struct BoundedFamily {
  static double* scaledX(TrStateBounded* st) { return st->scaling; }
  // iter2 and eps[5] are not read by this family. The shift it leaves in
  // lambda belongs to the scaled subproblem while the ratio takes snorm and
  // jsnorm of the final step in x units: the two mix units, as intended.
  // With bounds far from x the step in x units is the longer one, so the
  // predicted reduction is overrated and the ratio stays low; the radius can
  // then halve step by step down to eps[0] and end the run with reason 2
  // short of the optimum. That early stop is intended too.
  static int64_t solveStep(const trs_driver::DriverRun<TrStateBounded>& run) {
    TrStateBounded* st = run.st;
    int64_t status = 0;
    trs_dmintr_ls_lc(run.n, run.m, run.x, run.fvec, st->step, run.fjac, st->jac_copy, st->lw,
                     st->up, st->delta, &MIX_THRESHOLD, &INTERIOR_FACTOR, &st->lambda, st->hess,
                     st->chol, st->curvature, run.eps, &status, st->work);
    return status;
  }
  static constexpr TrShrinkCap kShrinkCap = TrShrinkCap::MultiplyByTen;
};

}  // namespace

void trs_dmintrnselc_rci_f(int64_t n, int64_t m, double* x, double* fvec, double* fjac,
                           const double* eps, TrCounters* counters, TrResiduals* residuals,
                           int64_t* rci_request, TrStateBounded* state) {
  trs_driver::drive<BoundedFamily>(trs_driver::DriverRun<TrStateBounded>{
      n, m, x, fvec, fjac, eps, counters, residuals, rci_request, state});
}
