// Driver of the free family: the shared iteration with the shifted
// Gauss-Newton step computation.
#include "trsolver/driver.h"

namespace {

// Pass limit and (unread) precision of the step computation when the handle
// holds 0 for them.
constexpr int64_t DEFAULT_PASS_LIMIT = 10;
constexpr double DEFAULT_STEP_PRECISION = 1e-10;

struct FreeFamily {
  static double* scaledX(TrState* st) { return st->work2; }
  static int64_t solveStep(const trs_driver::DriverRun<TrState>& run) {
    TrState* st = run.st;
    int64_t limit = run.counters->iter2 == 0 ? DEFAULT_PASS_LIMIT : run.counters->iter2;
    // eps[5] is forwarded to a step computation that does not read it.
    const double precision = run.eps[5] == 0.0 ? DEFAULT_STEP_PRECISION : run.eps[5];
    int64_t status = 0;
    trs_dmintr_ls_pd(run.n, run.m, run.fjac, run.fvec, st->step, &limit, precision, st->delta,
                     &st->lambda, st->hess, st->chol, st->grad, st->work1, st->work2, &status);
    return status;
  }
  static constexpr TrShrinkCap kShrinkCap = TrShrinkCap::DivideByTenth;
};

}  // namespace

void trs_dmintrpd_rci_f(int64_t n, int64_t m, double* x, double* fvec, double* fjac,
                        const double* eps, TrCounters* counters, TrResiduals* residuals,
                        int64_t* rci_request, TrState* state) {
  trs_driver::drive<FreeFamily>(trs_driver::DriverRun<TrState>{n, m, x, fvec, fjac, eps, counters,
                                                               residuals, rci_request, state});
}
