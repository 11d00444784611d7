// Internal records and routines of the trust-region solver: the handle and
// state records, the numeric core that works with 64-bit integers, and the
// thin layer over the matrix library. Only trsolver/*.cpp and its tests
// include this; other subsystems use trsolver/trsolver.h.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

#include "trsolver/trsolver.h"

// Most negative finite double: marks `ratio` after a rejected step, and its
// opposite marks a parameter without bound on that side.
constexpr double TRS_REJECTED_MARKER = -1.7976931348623157e308;
constexpr double TRS_NO_BOUND = 1.7976931348623157e308;

// Alignments of the working arrays of the handle and of the per-step vectors
// of the bounded step computation.
constexpr std::size_t TRS_HANDLE_ALIGNMENT = 64;
constexpr std::size_t TRS_STEP_ALIGNMENT = 128;

struct TrCounters {
  int64_t iter1;
  int64_t iter2;
  int64_t iterations;
  int64_t stop_reason;
};

struct TrResiduals {
  double rs;
  double r1;
  double r2;
};

// State of the free family. The three spare constants are set at the first
// pass and never read: the update rules use literal constants.
struct TrState {
  double eta;
  double spare_shrink_bound;
  double spare_shrink_factor;
  double spare_grow_factor;
  double fnorm;
  double snorm;
  double jsnorm;
  double ratio;
  double lambda;
  double delta;
  double* step;            // n
  double* saved_residual;  // m: F - J s, then F kept during a trial
  double* trial_residual;  // m: J s, then F at the trial point
  double* grad;            // n: -J^T F
  double* work1;           // n
  double* work2;           // n: also the scaled x at the first pass
  int64_t phase;
  int64_t count;
  int64_t first_pass;
  int64_t n;
  int64_t m;
  double* hess;  // n x n
  double* chol;  // n x n
  double* x;     // caller's, not owned
  TrCounters* counters;
  TrResiduals* residuals;
  double* eps;  // caller's six precisions, not owned
};

// State of the family with bounds: the same scalars, then its own arrays.
struct TrStateBounded {
  double eta;
  double spare_shrink_bound;
  double spare_shrink_factor;
  double spare_grow_factor;
  double fnorm;
  double snorm;
  double jsnorm;
  double ratio;
  double lambda;
  double delta;
  double* step;            // n
  double* saved_residual;  // m
  double* trial_residual;  // m
  double* scaling;         // n: the scaled x at the first pass
  int64_t phase;
  int64_t count;
  int64_t first_pass;
  int64_t n;
  int64_t m;
  double* hess;       // n x n
  double* chol;       // n x n
  double* curvature;  // n x n, used by the curvature estimate
  double* jac_copy;   // m x n
  double* work[5];    // n each
  double* lw;         // caller's, not owned
  double* up;         // caller's, not owned
  double* x;          // caller's, not owned
  TrCounters* counters;
  TrResiduals* residuals;
  double* eps;  // caller's, not owned
};

struct TrHandleHeader {
  int64_t n;
  int64_t m;
  void* state;  // TrState or TrStateBounded, by family
};

// ---- Memory ----

// Zero-filled block of `count` doubles aligned to `alignment` bytes, or null.
double* trs_alloc_doubles(std::size_t count, std::size_t alignment);

// A lock for calls of microseconds: a waiter spins a little, then yields its
// core (for more threads than cores). A sleeping mutex paid two system calls
// per contended call, and spot fits on two threads contend all the time.
class TrsSpinLock {
 public:
  void lock() noexcept {
    int spins = 0;
    while (held_.exchange(true, std::memory_order_acquire)) {
      while (held_.load(std::memory_order_relaxed)) {
        if (++spins < kSpinsBeforeYield) {
          pause();
        } else {
          std::this_thread::yield();
        }
      }
    }
  }
  void unlock() noexcept { held_.store(false, std::memory_order_release); }

 private:
  static constexpr int kSpinsBeforeYield = 1 << 12;
  static void pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }
  std::atomic<bool> held_{false};
};

// The serial BLAS shares one scratch buffer among its matrix routines
// (gemv, gemm, and the LAPACK factorisations and solves) without a lock: two
// such calls at once, from spot fits on different threads, corrupt each
// other's results. Each of them runs under this lock; the vector routines
// (dot, norm, axpy, scal, copy) keep no scratch and need none.
TrsSpinLock& trs_blas_lock();
template <typename Call>
auto trs_blas_locked(Call call) {
  const std::lock_guard<TrsSpinLock> lock(trs_blas_lock());
  return call();
}
void trs_free(void* block);

// ---- Entry points with 64-bit integers ----

int trs_dtrnlsp_init(TrHandle* handle, int64_t n, int64_t m, double* x, double* eps, int64_t iter1,
                     int64_t iter2, double rs);
int trs_dtrnlsp_solve(TrHandle* handle, double* fvec, double* fjac, int64_t* rci_request);
int trs_dtrnlsp_get(TrHandle* handle, int64_t* iterations, int64_t* stop_reason, double* r1,
                    double* r2);
int trs_dtrnlsp_delete(TrHandle* handle);

int trs_dtrnlspbc_init(TrHandle* handle, int64_t n, int64_t m, double* x, double* lw, double* up,
                       double* eps, int64_t iter1, int64_t iter2, double rs);
int trs_dtrnlspbc_solve(TrHandle* handle, double* fvec, double* fjac, int64_t* rci_request);
int trs_dtrnlspbc_get(TrHandle* handle, int64_t* iterations, int64_t* stop_reason, double* r1,
                      double* r2);
int trs_dtrnlspbc_delete(TrHandle* handle);

int trs_djacobix(TrResidualFunction fcn, int64_t n, int64_t m, double* fjac, const double* x,
                 const double* eps, void* user_data);

// ---- Drivers ----

// One re-entrant step of the free iteration; all that survives between calls
// stands in `state`. Sets counters->stop_reason and *rci_request.
void trs_dmintrpd_rci_f(int64_t n, int64_t m, double* x, double* fvec, double* fjac,
                        const double* eps, TrCounters* counters, TrResiduals* residuals,
                        int64_t* rci_request, TrState* state);

// The same for the family with bounds.
void trs_dmintrnselc_rci_f(int64_t n, int64_t m, double* x, double* fvec, double* fjac,
                           const double* eps, TrCounters* counters, TrResiduals* residuals,
                           int64_t* rci_request, TrStateBounded* state);

// ---- Step computations ----

// Shifted Gauss-Newton step s with |s| about delta for the free family.
// `limit` is the pass limit on entry and the passes used on return. `status`
// is 1 (limit exceeded), 2 (unshifted step inside), 3 (scaled onto the
// boundary), 4 (extended along low curvature), or negative (a solve reported
// an illegal argument). `precision` is not read.
void trs_dmintr_ls_pd(int64_t n, int64_t m, const double* fjac, const double* fvec, double* s,
                      int64_t* limit, double precision, double delta, double* lambda, double* hess,
                      double* chol, double* grad, double* work1, double* work2, int64_t* status);

// Feasible step s inside [lw, up] for the family with bounds: scaled
// trust-region step, projected and drawn back, mixed with a steepest-descent
// step. Allocates its vectors; status -1 if that fails. On a negative status
// s is untouched.
void trs_dmintr_ls_lc(int64_t n, int64_t m, const double* x, const double* fvec, double* s,
                      const double* fjac, double* jac_copy, const double* lw, const double* up,
                      double delta, const double* mix_threshold, const double* interior_factor,
                      double* lambda, double* hess, double* chol, double* curvature,
                      const double* eps, int64_t* status, double* const work[5]);

// Pieces of trs_dmintr_ls_lc.
// d(i) := 1 / sqrt|t(i)|, t the distance of x to the bound that the sign of
// g = (J^T F over the first n rows) points to; 1e-18 on a bound, 1 without
// bounds. g is returned too.
void trs_distance_scale(int64_t n, int64_t m, const double* x, const double* fvec,
                        const double* fjac, const double* lw, const double* up, double* g,
                        double* d);
// w := p projected onto the box as a step; a := the part of w that ends on a
// bound, 0 elsewhere.
void trs_project_onto_box(int64_t n, const double* x, const double* p, const double* lw,
                          const double* up, double* w, double* a);
// Draw-back factor Beta in [0.0005, 0.05]; grad, column (m) and row (n) are
// scratch.
double trs_draw_back_factor(int64_t n, int64_t m, const double* fjac, const double* fvec,
                            const double* w, const double* a, double* grad, double* column,
                            double* row);
// r := c, or interior_factor * Tau * c when x + c leaves the box and the
// first bound lies at Tau <= 1 along c.
void trs_steepest_descent_inside(int64_t n, const double* x, const double* c, const double* lw,
                                 const double* up, double interior_factor, double* r);
// Mixing factor Mu of r against q from their images jq = J q, jr = J r; 0
// when q reaches the threshold's share of r's model reduction. v, e: scratch.
double trs_mixing_factor(int64_t m, const double* fvec, const double* jq, const double* jr,
                         double threshold, double* v, double* e);

// Trust-region step p of a (scaled) problem with a bracketed shift.
void trs_dmintr_ls_npd(int64_t n, int64_t m, const double* jac, const double* fvec, double* p,
                       int64_t* limit, const double* eps, double radius, double* lambda,
                       double* hess, double* chol, double* curvature, int64_t* status,
                       double* const work[5]);

// Upper and lower bound of the shift from the unshifted normal matrix.
void trs_dgrgbound(int64_t n, const double* hess, double* upper, double* lower, double radius,
                   double grad_norm, double* work);

// Next shift inside [*lower, *upper], leaning to the upper end.
double pick(const double* lower, const double* upper);

// ---- Matrix layer (column-major, 64-bit sizes narrowed for the library) ----

// Cholesky factor (lower) of the n x n matrix a in place. Returns 0, or the
// 1-based index of the first pivot that is not positive or not a number.
int64_t trs_factorise(int64_t n, double* a);
// Solves (L L^T) x = b in place with the factor from trs_factorise.
int64_t trs_cholesky_solve(int64_t n, const double* chol, double* b);
// Solves L x = b (transposed: L^T x = b) in place, L lower with non-unit diagonal.
int64_t trs_triangular_solve(int64_t n, const double* l, bool transposed, double* b);
// Adds `shift` to the diagonal of the n x n matrix a.
void trs_shift_diagonal(int64_t n, double* a, double shift);
// Euclidean norm of an n-vector.
double trs_norm(int64_t n, const double* v);
double trs_dot(int64_t n, const double* a, const double* b);
// Sign vector of the low-curvature direction, forward over the lower factor.
void trs_sign_vector(int64_t n, const double* l, double* w);
