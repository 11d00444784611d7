// The model evaluators against hand-computed points (their round trip through
// the inverse model is in linear_fit_test), and the error measure against the
// cases that pin its arithmetic.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "model/model.h"

namespace {

using Points = std::vector<CorvanePoint2D>;
using Parameters = std::vector<double>;

constexpr double kPi = 3.14159265358979323846;

// A parameter vector of 20 with the given leading elements, the rest 0.0.
Parameters params(std::initializer_list<double> leading) {
  Parameters p(leading);
  p.resize(kNumModelParameters, 0.0);
  return p;
}

enum class Model { kRadial, kLinear, kHighLinear, kHighRadial };

Points evaluate(Model model, const Parameters& p, const Points& points, Points result = {}) {
  switch (model) {
    case Model::kRadial:
      fradial(points, p.data(), result);
      break;
    case Model::kLinear:
      change(points, p.data(), result);
      break;
    case Model::kHighLinear:
      changeHigh(points, p.data(), result, 1);
      break;
    case Model::kHighRadial:
      changeHigh(points, p.data(), result, 0);
      break;
  }
  return result;
}

struct PointCase {
  Model model;
  Parameters p;
  CorvanePoint2D in;
  CorvanePoint2D expected;
  double tolerance;  // 0.0: exact
};

TEST(ModelEvaluatorTest, HandComputedPoints) {
  // Radial: centre (1, 1), scale 2, quarter turn, shift (0.5, -0.5).
  const Parameters quarterTurn = params({1.0, 1.0, 2.0, kPi / 2, 0.5, -0.5});
  // Linear: centre (10, 20), scales 2 and 3, weights 0.5 and 0.25, shift (1, -1).
  const Parameters linear = params({10.0, 20.0, 2.0, 3.0, 0.5, 0.25, 1.0, -1.0});
  // Linear shift by (2, 0), then the polynomial. The offsets u = 5, v = 1 come
  // from the mapped point (15, 21), not from the input point (13, 21).
  Parameters high = params({10.0, 20.0, 1.0, 1.0, 0.0, 0.0, 2.0, 0.0});
  const double highTerms[12] = {0.5, 1.0, 2.0, 0.1, 0.01, 0.001, 1.0, 0.0, 0.0, 0.0, 0.0, 0.04};
  std::copy(highTerms, highTerms + 12, high.begin() + 8);
  // Radial shift by (1, 0) about the origin, then a constant 1 in x.
  Parameters radialHigh = params({0.0, 0.0, 1.0, 0.0, 1.0, 0.0});
  radialHigh[8] = 1.0;

  const std::vector<PointCase> cases = {
      {Model::kRadial, quarterTurn, {2.0, 1.0}, {1.5, 2.5}, 1e-12},
      {Model::kRadial, quarterTurn, {1.0, 1.0}, {1.5, 0.5}, 0.0},  // at the centre
      {Model::kLinear, linear, {12.0, 24.0}, {17.0, 31.5}, 0.0},
      // Exact on pixel positions; a fraction survives only a centre at 0.
      {Model::kLinear, params({0.0, 0.0, 1.0, 1.0}), {0.1, 1023.7}, {0.1, 1023.7}, 0.0},
      // Left to right, 1 - 2^53 + 2^53 + 1 is 2; with the centre and the shift
      // summed first, the tie 2^53 + 1 rounds to even and the result is 1.
      {Model::kLinear, params({0x1p53, 0.0, 1.0, 1.0, 0.0, 0.0, 1.0, 0.0}), {1, 0}, {2, 0}, 0.0},
      {Model::kHighLinear, high, {13.0, 21.0}, {19.075, 23.0}, 1e-12},
      {Model::kHighRadial, radialHigh, {3.0, 4.0}, {5.0, 4.0}, 1e-12},
  };
  for (const PointCase& c : cases) {
    SCOPED_TRACE(&c - cases.data());
    const Points out = evaluate(c.model, c.p, {c.in});
    ASSERT_EQ(out.size(), 1u);
    EXPECT_LE(std::fabs(out[0].x - c.expected.x), c.tolerance) << out[0].x;
    EXPECT_LE(std::fabs(out[0].y - c.expected.y), c.tolerance) << out[0].y;
  }
}

// Point lists whose entry i lies `distances[i]` apart along X.
void listsAtDistances(const std::vector<double>& distances, Points& first, Points& second) {
  for (size_t i = 0; i < distances.size(); ++i) {
    first.push_back({0.0, 1.0 * i});
    second.push_back({distances[i], 1.0 * i});
  }
}

std::vector<double> ramp(int count) {
  std::vector<double> d(count);
  for (int i = 0; i < count; ++i) d[i] = i;
  return d;
}

struct ErrorCase {
  std::vector<double> distances;
  double mean;  // NaN: expected NaN
  double deviation;
};

TEST(CalculateErrorTest, TruncatingTrimmedMeanAndDeviation) {
  std::vector<double> mostly19(10, 1.9);
  mostly19[0] = 0.0;
  std::vector<double> descending = ramp(10);
  std::reverse(descending.begin(), descending.end());
  const std::vector<ErrorCase> cases = {
      // Below 1.0 a distance adds nothing to the truncating sum.
      {std::vector<double>(10, 0.4), 0.0, std::sqrt(9 * 0.16 / 8)},
      // Each addition cuts the 0.9: nine of 1.9 add up to 9.
      {mostly19, 1.0, std::sqrt(9 * 0.81 / 8)},
      // 2 to 9 used: sum 44 over 8; squares 2 x (12.25 + 6.25 + 2.25 + 0.25) over 7.
      {ramp(11), 5.5, std::sqrt(6.0)},
      // 1 to 9 used, sorted first.
      {descending, 5.0, std::sqrt(60.0 / 8)},
      // 10 to 90 used: 81 terms, squares 2 x 22140 over 80.
      {ramp(100), 50.0, std::sqrt(553.5)},
      // Only position 1 is used; the deviation divides by 0.
      {{2.5, 0.5}, 2.0, INFINITY},
      {{3.0, 0.5}, 3.0, NAN},
      // A single pair uses nothing: 0 / 0, and sqrt(0.0 / -1) is -0.0.
      {{5.0}, NAN, -0.0},
  };
  for (const ErrorCase& c : cases) {
    SCOPED_TRACE(&c - cases.data());
    Points first, second;
    listsAtDistances(c.distances, first, second);
    second.push_back({1e6, 1e6});  // a longer second list: only the common part counts
    double mean = -1.0, deviation = -1.0;
    calculateError(first, second, &mean, &deviation);
    EXPECT_TRUE(mean == c.mean || (std::isnan(mean) && std::isnan(c.mean))) << mean;
    EXPECT_TRUE(std::fabs(deviation - c.deviation) < 1e-12 || deviation == c.deviation ||
                (std::isnan(deviation) && std::isnan(c.deviation)))
        << deviation;
    EXPECT_TRUE(std::isnan(c.deviation) || std::signbit(deviation) == std::signbit(c.deviation));
  }
}

}  // namespace
