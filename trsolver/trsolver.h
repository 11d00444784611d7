// Trust-region nonlinear least squares by reverse communication, free or
// inside bounds, and a central-difference Jacobian.
//
// The solver never evaluates the residual: the caller owns the loop, calls
// ..._solve, reads rci_request, computes what was requested into its own
// buffers and calls again. Scalars pass by address, every operation returns
// a status (TRS_OK on success) and prints nothing, matrices are stored by
// columns. Integers at this interface are 32-bit; the numeric core works with
// 64-bit integers (trsolver/internal.h).
//
// A handle keeps the caller's x, eps and, with bounds, lw and up by address:
// they must stay valid and in place until ..._delete. fvec and fjac must be the
// same buffers at every ..._solve, and fjac must keep its content between
// steps (after a rejected step the solver reuses it without asking again).
//
// Every operation is exported under three forms: lower case, lower case with a
// trailing underscore, and upper case.
#pragma once

#include <cstdint>
#include <functional>

// Status codes of every operation.
constexpr int TRS_OK = 1501;
constexpr int TRS_BAD_ARGUMENT = 1502;
constexpr int TRS_NO_MEMORY = 1503;

struct TrHandleHeader;
// Opaque handle: one per fit, from ..._init to ..._delete.
typedef TrHandleHeader* TrHandle;

// Residual function for djacobix: receives the addresses of m and n, the
// parameter vector x (n values), the output vector f (m values) and the
// caller's user_data. It may run on several threads at once with the same
// user_data, so it must not write through user_data and keeps its scratch in
// local variables.
typedef void (*TrResidualFunction)(int* m, int* n, double* x, double* f, void* user_data);

extern "C" {

// Free problem. eps holds six precisions, all above 0; iter1 limits accepted
// steps, iter2 the passes of the step computation; rs (0 to 100, 0 means 100)
// scales the first trust-region radius. Requires 0 < n <= m.
int dtrnlsp_init(TrHandle* handle, const int* n, const int* m, double* x, double* eps,
                 const int* iter1, const int* iter2, const double* rs);
int dtrnlsp_init_(TrHandle* handle, const int* n, const int* m, double* x, double* eps,
                  const int* iter1, const int* iter2, const double* rs);
int DTRNLSP_INIT(TrHandle* handle, const int* n, const int* m, double* x, double* eps,
                 const int* iter1, const int* iter2, const double* rs);

// One step of the reverse-communication loop. On return rci_request is
// 0 (call again), 1 (put F(x) into fvec), 2 (put the Jacobian at x into fjac),
// or -1 to -6 (finished; the negative of the stop reason).
int dtrnlsp_solve(TrHandle* handle, double* fvec, double* fjac, int* rci_request);
int dtrnlsp_solve_(TrHandle* handle, double* fvec, double* fjac, int* rci_request);
int DTRNLSP_SOLVE(TrHandle* handle, double* fvec, double* fjac, int* rci_request);

// Accepted steps, stop reason, residual norm at the start and at the end.
int dtrnlsp_get(TrHandle* handle, int* iterations, int* stop_reason, double* r1, double* r2);
int dtrnlsp_get_(TrHandle* handle, int* iterations, int* stop_reason, double* r1, double* r2);
int DTRNLSP_GET(TrHandle* handle, int* iterations, int* stop_reason, double* r1, double* r2);

int dtrnlsp_delete(TrHandle* handle);
int dtrnlsp_delete_(TrHandle* handle);
int DTRNLSP_DELETE(TrHandle* handle);

// Problem with bounds lw <= x <= up, element by element. Same protocol; iter2
// is ignored (the bounded step computation has a fixed pass limit).
int dtrnlspbc_init(TrHandle* handle, const int* n, const int* m, double* x, double* lw, double* up,
                   double* eps, const int* iter1, const int* iter2, const double* rs);
int dtrnlspbc_init_(TrHandle* handle, const int* n, const int* m, double* x, double* lw, double* up,
                    double* eps, const int* iter1, const int* iter2, const double* rs);
int DTRNLSPBC_INIT(TrHandle* handle, const int* n, const int* m, double* x, double* lw, double* up,
                   double* eps, const int* iter1, const int* iter2, const double* rs);

int dtrnlspbc_solve(TrHandle* handle, double* fvec, double* fjac, int* rci_request);
int dtrnlspbc_solve_(TrHandle* handle, double* fvec, double* fjac, int* rci_request);
int DTRNLSPBC_SOLVE(TrHandle* handle, double* fvec, double* fjac, int* rci_request);

int dtrnlspbc_get(TrHandle* handle, int* iterations, int* stop_reason, double* r1, double* r2);
int dtrnlspbc_get_(TrHandle* handle, int* iterations, int* stop_reason, double* r1, double* r2);
int DTRNLSPBC_GET(TrHandle* handle, int* iterations, int* stop_reason, double* r1, double* r2);

int dtrnlspbc_delete(TrHandle* handle);
int dtrnlspbc_delete_(TrHandle* handle);
int DTRNLSPBC_DELETE(TrHandle* handle);

// Central-difference Jacobian of fcn at x into fjac (m by n, by columns,
// leading dimension m). Only eps[0] is read, as the step size. x is never
// written. Columns may run on several threads; the result does not depend on
// their number.
int djacobix(TrResidualFunction fcn, const int* n, const int* m, double* fjac, const double* x,
             const double* eps, void* user_data);
int djacobix_(TrResidualFunction fcn, const int* n, const int* m, double* fjac, const double* x,
              const double* eps, void* user_data);
int DJACOBIX(TrResidualFunction fcn, const int* n, const int* m, double* fjac, const double* x,
             const double* eps, void* user_data);

// Returns memory pooled by the numeric layer; never touches live handles.
void TRS_FREE_BUFFERS(void);

}  // extern "C"

// Runs `call` while no matrix routine of the BLAS or LAPACK runs through the
// solver on another thread: the serial library shares one scratch buffer
// among its matrix routines, unguarded. A caller of such a routine outside
// the solver, while fits may run on other threads, calls it in here.
void trs_blas_exclusive(const std::function<void()>& call);
