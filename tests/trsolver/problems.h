// Classic nonlinear least-squares test problems with their standard starts
// and published minimum sums of squares, as residual functions of the
// solver's callback form.
#pragma once

#include <string>
#include <vector>

#include "trsolver/trsolver.h"

struct TestProblem {
  std::string name;
  TrResidualFunction residual;
  int n, m;
  std::vector<double> start;
  double publishedMinimum;  // sum of squares at the published minimum
};

// The whole table, in the order of the literature.
const std::vector<TestProblem>& classicProblems();
const TestProblem& classicProblem(const std::string& name);
