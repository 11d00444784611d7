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

void powellBadlyScaled(int*, int*, double* x, double* f, void*) {
  f[0] = 1e4 * x[0] * x[1] - 1.0;
  f[1] = std::exp(-x[0]) + std::exp(-x[1]) - 1.0001;
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

void jennrichSampson(int* m, int*, double* x, double* f, void*) {
  for (int i = 1; i <= *m; ++i) {
    f[i - 1] = 2.0 + 2.0 * i - (std::exp(i * x[0]) + std::exp(i * x[1]));
  }
}

void helicalValley(int*, int*, double* x, double* f, void*) {
  const double pi = 3.14159265358979323846;
  double theta = std::atan(x[1] / x[0]) / (2.0 * pi);
  if (x[0] < 0.0) theta += 0.5;
  if (x[0] == 0.0) theta = x[1] >= 0.0 ? 0.25 : -0.25;
  f[0] = 10.0 * (x[2] - 10.0 * theta);
  f[1] = 10.0 * (std::sqrt(x[0] * x[0] + x[1] * x[1]) - 1.0);
  f[2] = x[2];
}

void bard(int*, int*, double* x, double* f, void*) {
  const double y[15] = {0.14, 0.18, 0.22, 0.25, 0.29, 0.32, 0.35, 0.39,
                        0.37, 0.58, 0.73, 0.96, 1.34, 2.10, 4.39};
  for (int i = 1; i <= 15; ++i) {
    const double u = i, v = 16 - i, w = std::fmin(u, v);
    f[i - 1] = y[i - 1] - (x[0] + u / (v * x[1] + w * x[2]));
  }
}

void meyer(int*, int*, double* x, double* f, void*) {
  const double y[16] = {34780, 28610, 23650, 19630, 16370, 13720, 11540, 9744,
                        8261,  7030,  6005,  5147,  4427,  3820,  3307,  2872};
  for (int i = 1; i <= 16; ++i) {
    const double t = 45.0 + 5.0 * i;
    f[i - 1] = x[0] * std::exp(x[1] / (t + x[2])) - y[i - 1];
  }
}

void powellSingular(int*, int*, double* x, double* f, void*) {
  f[0] = x[0] + 10.0 * x[1];
  f[1] = std::sqrt(5.0) * (x[2] - x[3]);
  f[2] = (x[1] - 2.0 * x[2]) * (x[1] - 2.0 * x[2]);
  f[3] = std::sqrt(10.0) * (x[0] - x[3]) * (x[0] - x[3]);
}

void wood(int*, int*, double* x, double* f, void*) {
  f[0] = 10.0 * (x[1] - x[0] * x[0]);
  f[1] = 1.0 - x[0];
  f[2] = std::sqrt(90.0) * (x[3] - x[2] * x[2]);
  f[3] = 1.0 - x[2];
  f[4] = std::sqrt(10.0) * (x[1] + x[3] - 2.0);
  f[5] = (x[1] - x[3]) / std::sqrt(10.0);
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
      {"PowellBadlyScaled", powellBadlyScaled, 2, 2, {0.0, 1.0}, 0.0},
      {"BrownBadlyScaled", brownBadlyScaled, 2, 3, {1.0, 1.0}, 0.0},
      {"Beale", beale, 2, 3, {1.0, 1.0}, 0.0},
      {"JennrichSampson", jennrichSampson, 2, 10, {0.3, 0.4}, 124.362},
      {"HelicalValley", helicalValley, 3, 3, {-1.0, 0.0, 0.0}, 0.0},
      {"Bard", bard, 3, 15, {1.0, 1.0, 1.0}, 8.21487e-3},
      {"Meyer", meyer, 3, 16, {0.02, 4000.0, 250.0}, 87.9458},
      {"PowellSingular", powellSingular, 4, 4, {3.0, -1.0, 0.0, 1.0}, 0.0},
      {"Wood", wood, 4, 6, {-3.0, -1.0, -3.0, -1.0}, 0.0},
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
