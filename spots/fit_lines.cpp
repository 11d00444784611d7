// Spot fits on all threads with the console of a one-thread run: the lines
// that the fits print are held per spot and printed afterwards in spot order.
#include <omp.h>

#include <cstdio>
#include <string>
#include <vector>

#include "app/settings.h"
#include "spots/internal.h"
#include "spots/spots.h"

namespace {

// Where the fits of the calling thread put their lines; null prints them.
thread_local std::string* fitLineSink = nullptr;

}  // namespace

void printFitLine(const char* line) {
  if (fitLineSink == nullptr) {
    puts(line);
    return;
  }
  fitLineSink->append(line);
  fitLineSink->push_back('\n');
}

std::string holdFitLines(const std::function<void()>& task) {
  std::string held;
  std::string* const outer = fitLineSink;
  fitLineSink = &held;
  try {
    task();
  } catch (...) {
    fitLineSink = outer;
    throw;
  }
  fitLineSink = outer;
  return held;
}

void printHeldFitLines(const std::string& held) {
  if (fitLineSink == nullptr) {
    fputs(held.c_str(), stdout);
    return;
  }
  fitLineSink->append(held);
}

void forEachSpotInOrder(int count, const std::function<void(int)>& task) {
  if (count <= 0) return;
  // Inside a region already, or with one thread, the plain loop prints as it
  // goes.
  if (count == 1 || omp_in_parallel() || omp_get_max_threads() == 1) {
    for (int k = 0; k < count; ++k) task(k);
    return;
  }
  std::vector<std::string> lines(count);
  RegionFailure failure;
#pragma omp parallel for schedule(dynamic, 1)
  for (int k = 0; k < count; ++k) {
    fitLineSink = &lines[k];
    failure.guard([&] { task(k); });
    fitLineSink = nullptr;
  }
  failure.rethrow();
  // Nothing else prints during the loop, so the held lines slot in where a
  // one-thread loop would have printed them.
  for (const std::string& held : lines) fputs(held.c_str(), stdout);
}
