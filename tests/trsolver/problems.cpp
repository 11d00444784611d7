// Residuals of the classic test problems (unconstrained nonlinear least
// squares), each with its standard start and its published minimum.
#include "problems.h"

#include <cmath>
#include <stdexcept>

namespace {

void rosenbrock(int*, int*, double* x, double* f, void*) {
  f[0] = 10.0 * (x[1] - x[0] * x[0]);
  f[1] = 1.0 - x[0];
}

void freudensteinRoth(int*, int*, double* x, double* f, void*) {
  f[0] = -13.0 + x[0] + ((5.0 - x[1]) * x[1] - 2.0) * x[1];
  f[1] = -29.0 + x[0] + ((x[1] + 1.0) * x[1] - 14.0) * x[1];
}

void brownBadlyScaled(int*, int*, double* x, double* f, void*) {
  f[0] = x[0] - 1e6;
  f[1] = x[1] - 2e-6;
  f[2] = x[0] * x[1] - 2.0;
}

void beale(int*, int*, double* x, double* f, void*) {
  const double y[3] = {1.5, 2.25, 2.625};
  for (int i = 0; i < 3; ++i) f[i] = y[i] - x[0] * (1.0 - std::pow(x[1], i + 1));
}

void powellSingular(int*, int*, double* x, double* f, void*) {
  f[0] = x[0] + 10.0 * x[1];
  f[1] = std::sqrt(5.0) * (x[2] - x[3]);
  f[2] = (x[1] - 2.0 * x[2]) * (x[1] - 2.0 * x[2]);
  f[3] = std::sqrt(10.0) * (x[0] - x[3]) * (x[0] - x[3]);
}

void osborne1(int*, int*, double* x, double* f, void*) {
  const double y[33] = {0.844, 0.908, 0.932, 0.936, 0.925, 0.908, 0.881, 0.850, 0.818,
                        0.784, 0.751, 0.718, 0.685, 0.658, 0.628, 0.603, 0.580, 0.558,
                        0.538, 0.522, 0.506, 0.490, 0.478, 0.467, 0.457, 0.448, 0.438,
                        0.431, 0.424, 0.420, 0.414, 0.411, 0.406};
  for (int i = 0; i < 33; ++i) {
    const double t = 10.0 * i;
    f[i] = y[i] - (x[0] + x[1] * std::exp(-t * x[3]) + x[2] * std::exp(-t * x[4]));
  }
}

}  // namespace

const std::vector<TestProblem>& classicProblems() {
  static const std::vector<TestProblem> table = {
      {"Rosenbrock", rosenbrock, 2, 2, {-1.2, 1.0}, 0.0},
      {"FreudensteinRoth", freudensteinRoth, 2, 2, {0.5, -2.0}, 0.0},
      {"BrownBadlyScaled", brownBadlyScaled, 2, 3, {1.0, 1.0}, 0.0},
      {"Beale", beale, 2, 3, {1.0, 1.0}, 0.0},
      {"PowellSingular", powellSingular, 4, 4, {3.0, -1.0, 0.0, 1.0}, 0.0},
      {"Osborne1", osborne1, 5, 33, {0.5, 1.5, -1.0, 0.01, 0.02}, 5.46489e-5},
  };
  return table;
}

const TestProblem& classicProblem(const std::string& name) {
  for (const TestProblem& p : classicProblems()) {
    if (p.name == name) return p;
  }
  throw std::invalid_argument("no test problem " + name);
}
