// Helpers shared inside the spot measurement library; not for other callers.
#pragma once

#include <cstddef>
#include <vector>

// The value at position floor(n * fraction) of `values` in ascending order,
// the product taken in double. Reorders `values`. A position at or past the
// end (a fraction of 1.0 or more) or a NaN one takes the largest value, so
// that nothing is strictly above the result; a negative position takes the
// smallest. NaN values order after all numbers. `values` must not be empty.
double percentileValue(std::vector<double>& values, double fraction);

// Sorts ascending with NaN values moved behind all numbers, so that the
// ordering stays a strict weak one whatever the pixels hold.
void sortAscendingNanLast(std::vector<double>& values);

// Bin edges, centres and counts of `count` values in [lowest, highest] as
// histgram defines them; the values need not be sorted. Appends numBins
// centres to `binCenters` and replaces `binCounts`.
void binValues(const double* values, std::size_t count, double lowest, double highest, int numBins,
               std::vector<double>& binCenters, std::vector<double>& binCounts);

// Prints one line of a spot fit's solver, as puts does; while the calling
// thread runs a task of forEachSpotInOrder, the line is held for that task.
void printFitLine(const char* line);
