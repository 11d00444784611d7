// A handle of either solver family, and a driver that runs it the way the
// application's wrappers do: init, a loop of solve calls answering the
// requests (the Jacobian by djacobix), get, delete; with a bound on the loop
// so that a runaway iteration fails a test instead of hanging it.
#pragma once

#include <vector>

#include "trsolver/trsolver.h"

// The arguments of one handle; by default n = m = 1 and six eps of 1e-4.
struct Handle {
  bool bounded;
  int n = 1, m = 1, iter1 = 1000, iter2 = 100, rci = 0;
  double rs = 100.0;
  // Nothing checks that lw lies under up or that x lies between them.
  std::vector<double> x = {1.0}, lw = {1.0}, up = {0.0}, eps = std::vector<double>(6, 1e-4);
  TrHandle h = reinterpret_cast<TrHandle>(0x1234);
  int init();
  int solve(double* fvec, double* fjac);
  int get(int* iterations, int* reason, double* r1, double* r2);
  int del();
};

struct SolveSetup {
  std::vector<double> eps = std::vector<double>(6, 1e-4);
  // Step of djacobix; the application passes eps itself (so eps[0]).
  double jacobianStep = 0.0;  // 0: use eps[0]
  int iter1 = 1000;
  int iter2 = 100;
  double rs = 100.0;
  long maxSolveCalls = 200000;
  bool recordVisited = false;  // keep every x at which F was requested
};

struct SolveOutcome {
  int initStatus = 0;
  int solveStatus = 0;  // status of the last solve call
  int rci = 0;          // request word after the last solve call
  int iterations = 0;
  int stopReason = 0;
  double r1 = 0.0, r2 = 0.0;
  std::vector<double> x;
  long solveCalls = 0, residualCalls = 0, jacobianCalls = 0;
  bool runaway = false;  // the loop bound was hit
  std::vector<std::vector<double>> visited;
  double sumOfSquares() const { return r2 * r2; }
};

SolveOutcome solveFree(TrResidualFunction f, void* data, int n, int m, std::vector<double> x0,
                       const SolveSetup& setup = SolveSetup{});

// lw and up must stay alive for the call; x0 must lie inside them.
SolveOutcome solveBounded(TrResidualFunction f, void* data, int n, int m, std::vector<double> x0,
                          std::vector<double> lw, std::vector<double> up,
                          const SolveSetup& setup = SolveSetup{});
