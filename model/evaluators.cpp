// The model evaluators: radial, linear, and a base model with the
// second-order correction laid over it. The per-point arithmetic lives in the
// inline forms of the chief header, so that the section transform computes
// exactly the same values.
#include <algorithm>

#include "model/model.h"

void fradial(const std::vector<CorvanePoint2D>& points, const double* parameters,
             std::vector<CorvanePoint2D>& result) {
  double p[kNumModelParameters];
  std::copy(parameters, parameters + kNumModelParameters, p);
  for (const CorvanePoint2D& point : points) result.push_back(radialPoint(p, point.x, point.y));
}

void change(const std::vector<CorvanePoint2D>& points, const double* parameters,
            std::vector<CorvanePoint2D>& result) {
  double p[kNumModelParameters];
  std::copy(parameters, parameters + kNumModelParameters, p);
  for (const CorvanePoint2D& point : points) result.push_back(linearPoint(p, point.x, point.y));
}

void changeHigh(const std::vector<CorvanePoint2D>& points, const double* parameters,
                std::vector<CorvanePoint2D>& result, int linearFlag) {
  // The section transform reaches this only with a non-zero linear flag; the
  // radial branch stays part of the operation all the same.
  std::vector<CorvanePoint2D> mapped;
  mapped.reserve(points.size());
  if (linearFlag != 0) {
    change(points, parameters, mapped);
  } else {
    fradial(points, parameters, mapped);
  }
  double p[kNumModelParameters];
  std::copy(parameters, parameters + kNumModelParameters, p);
  for (const CorvanePoint2D& point : mapped) result.push_back(highOrderPoint(p, point));
}
