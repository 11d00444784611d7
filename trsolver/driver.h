// The iteration shared by the two drivers, written once over the state
// record of either family: entry branching, stop tests, the step's checks,
// the trial evaluation and its digest. A family supplies its step
// computation, the room for the scaled x at the first pass and its shrink
// cap through a policy:
//   static double* scaledX(State*);
//   static int64_t solveStep(const DriverRun<State>&);  // status of the step
//   static constexpr TrShrinkCap kShrinkCap;
#pragma once

#include <cblas.h>

#include <cassert>
#include <cmath>

#include "trsolver/internal.h"
#include "trsolver/radius.h"

namespace trs_driver {

template <typename State>
struct DriverRun {
  int64_t n, m;
  double* x;
  double* fvec;
  double* fjac;
  const double* eps;
  TrCounters* counters;
  TrResiduals* residuals;
  int64_t* rci;
  State* st;
};

template <typename State>
void finish(const DriverRun<State>& run, int64_t reason, double r2) {
  run.counters->iterations = run.st->count;
  run.counters->stop_reason = reason;
  run.residuals->r2 = r2;
  *run.rci = 0;
}

template <typename State>
double residualNorm(const DriverRun<State>& run) {
  return trs_norm(run.m, run.fvec);
}

template <typename State>
void firstPassSetUp(State* st) {
  st->lambda = 0.0;
  st->delta = 1.0;
  st->eta = TRS_ACCEPTANCE_THRESHOLD;
  st->spare_shrink_bound = TRS_SPARE_SHRINK_BOUND;
  st->spare_shrink_factor = TRS_SPARE_SHRINK_FACTOR;
  st->spare_grow_factor = TRS_SPARE_GROW_FACTOR;
  st->ratio = 0.0;
  st->count = 0;
}

template <typename Family, typename State>
void computeStep(const DriverRun<State>& run) {
  State* st = run.st;
  const blasint n = static_cast<blasint>(run.n), m = static_cast<blasint>(run.m);
  if (st->first_pass == 1) {
    st->delta = trs_initial_radius(run.n, run.m, run.fjac, run.x, run.residuals->rs, run.eps[0],
                                   Family::scaledX(st));
  }
  if (trs_all_columns_small(run.n, run.m, run.fjac, run.eps[2])) {
    finish(run, 4, st->fnorm);
    return;
  }

  if (Family::solveStep(run) < 0) {
    // rci_request is left as it was on entry.
    run.counters->iterations = 0;
    run.counters->stop_reason = -4;
    return;
  }

  st->snorm = trs_norm(run.n, st->step);
  if (st->first_pass == 1) st->delta = std::fmin(st->delta, st->snorm);
  if (run.eps[3] >= st->snorm) {
    finish(run, 5, st->fnorm);
    return;
  }

  trs_blas_locked([&] {
    return cblas_dgemv(CblasColMajor, CblasNoTrans, m, n, 1.0, run.fjac, m, st->step, 1, 0.0,
                       st->trial_residual, 1);
  });
  st->jsnorm = trs_norm(run.m, st->trial_residual);
  // F - J s, although the step drives F + J s down: intended, the test
  // compares with the other side of the linear model. It uses eps[2], the
  // precision of the column test, on purpose.
  for (int64_t i = 0; i < run.m; ++i) {
    st->saved_residual[i] = run.fvec[i] - st->trial_residual[i];
  }
  if (run.eps[2] >= std::fabs(st->fnorm - trs_norm(run.m, st->saved_residual))) {
    finish(run, 6, st->fnorm);
    return;
  }

  cblas_daxpy(n, 1.0, st->step, 1, run.x, 1);
  cblas_dcopy(m, run.fvec, 1, st->saved_residual, 1);
  st->phase = 2;
  run.counters->stop_reason = 0;
  *run.rci = 1;
}

template <typename Family, typename State>
void residualTest(const DriverRun<State>& run) {
  State* st = run.st;
  if (run.eps[1] >= st->fnorm) {
    finish(run, 3, residualNorm(run));
    return;
  }
  if (st->ratio != TRS_REJECTED_MARKER) {
    run.counters->stop_reason = 0;
    *run.rci = 2;
    return;
  }
  // After a rejected step the Jacobian at the unchanged point is reused.
  computeStep<Family>(run);
}

template <typename Family, typename State>
void digestFirstResidual(const DriverRun<State>& run) {
  run.counters->stop_reason = 0;
  if (run.st->first_pass == 1) {
    run.st->fnorm = residualNorm(run);
    run.residuals->r1 = run.st->fnorm;
  }
  residualTest<Family>(run);
}

template <typename Family, typename State>
void digestTrialResidual(const DriverRun<State>& run) {
  State* st = run.st;
  const blasint n = static_cast<blasint>(run.n), m = static_cast<blasint>(run.m);
  run.counters->stop_reason = 0;
  cblas_daxpy(n, -1.0, st->step, 1, run.x, 1);

  const double trialNorm = residualNorm(run);
  cblas_dcopy(m, run.fvec, 1, st->trial_residual, 1);
  cblas_dcopy(m, st->saved_residual, 1, run.fvec, 1);

  const TrRatio r = trs_reduction_ratio(st->fnorm, trialNorm, st->jsnorm, st->lambda, st->snorm);
  // The radius moves whether or not the step is accepted.
  st->delta = trs_updated_radius(r, st->delta, st->snorm, st->lambda, st->fnorm, trialNorm,
                                 Family::kShrinkCap);
  if (r.ratio >= st->eta) {
    st->ratio = r.ratio;
    cblas_daxpy(n, 1.0, st->step, 1, run.x, 1);
    cblas_dcopy(m, st->trial_residual, 1, run.fvec, 1);
    ++st->count;
    st->fnorm = trialNorm;
    run.counters->iterations = st->count;
  } else {
    st->ratio = TRS_REJECTED_MARKER;
  }
  if (st->first_pass == 1) st->first_pass = 0;
  *run.rci = 0;
}

template <typename Family, typename State>
void topOfIteration(const DriverRun<State>& run) {
  State* st = run.st;
  if (st->first_pass == 1) firstPassSetUp(st);
  if (st->count >= run.counters->iter1) {
    finish(run, 1, residualNorm(run));
    return;
  }
  if (run.eps[0] > st->delta && st->first_pass == 0) {
    finish(run, 2, residualNorm(run));
    return;
  }
  if (st->first_pass == 1) {
    run.counters->stop_reason = 0;
    st->phase = 1;
    *run.rci = 1;
    return;
  }
  run.counters->stop_reason = 0;
  residualTest<Family>(run);
}

// Entry: branches on the request word and the phase.
template <typename Family, typename State>
void drive(const DriverRun<State>& run) {
  assert(run.n > 0 && run.m >= run.n);
  const int64_t entry = *run.rci;
  if (entry == 1 && run.st->phase == 1) {
    digestFirstResidual<Family>(run);
  } else if (entry == 1 && run.st->phase == 2) {
    digestTrialResidual<Family>(run);
  } else if (entry == 2) {
    run.counters->stop_reason = 0;
    computeStep<Family>(run);
  } else if (entry == -1 || entry == -2) {
    // Stop on request. The request word then reads 0, so a loop that only
    // tests for negative values goes on: intended.
    run.counters->stop_reason = entry;
    run.counters->iterations = run.st->count;
    *run.rci = 0;
  } else {
    topOfIteration<Family>(run);
  }
}

}  // namespace trs_driver
