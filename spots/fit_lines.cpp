// Spot fits on all threads with the console of a one-thread run: the lines
// that the fits print are held per spot and printed afterwards in spot order.
#include <omp.h>

#include <cstdio>
#include <string>
#include <vector>

#include "app/settings.h"
#include "spots/internal.h"
#include "spots/spots.h"

void printFitLine(const char* line) {
  consolePrint(stdout, std::string(line) + '\n');
}

void forEachSpotInOrder(int count, const std::function<void(int)>& task) {
  if (count <= 0) return;
  const bool inRegion = omp_in_parallel() != 0;
  const int threads = inRegion ? omp_get_num_threads() : omp_get_max_threads();
  // With one thread the plain loop prints as it goes.
  if (count == 1 || threads == 1) {
    for (int k = 0; k < count; ++k) task(k);
    return;
  }
  std::vector<HeldOutput> lines(count);
  RegionFailure failure;
  const auto fitSpot = [&](int k) {
    failure.guard([&] { holdOutput(lines[k], [&] { task(k); }); });
  };
  if (inRegion) {
    // Called from work that already runs on one thread of a team (a channel
    // calibrated beside others): the spots become tasks that idle threads
    // of the team take up.
#pragma omp taskloop grainsize(1)
    for (int k = 0; k < count; ++k) fitSpot(k);
  } else {
#pragma omp parallel for schedule(dynamic, 1)
    for (int k = 0; k < count; ++k) fitSpot(k);
  }
  failure.rethrow();
  // Nothing else prints during the loop, so the held lines slot in where a
  // one-thread loop would have printed them.
  for (const HeldOutput& held : lines) held.print();
}
