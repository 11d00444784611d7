// Helpers shared inside the spot measurement library; not for other callers.
#pragma once

#include <cstddef>
#include <vector>

// Sorts ascending with NaN values moved behind all numbers, so that the
// ordering stays a strict weak one whatever the pixels hold.
void sortAscendingNanLast(std::vector<double>& values);

// Bin edges, centres and counts of `count` values in [lowest, highest] as
// histgram defines them; the values need not be sorted. Appends numBins
// centres to `binCenters` and replaces `binCounts`.
void binValues(const double* values, std::size_t count, double lowest, double highest, int numBins,
               std::vector<double>& binCenters, std::vector<double>& binCounts);

// Prints one line of a spot fit's solver, as puts does, through the console
// that holds the output of work running ahead of its turn.
void printFitLine(const char* line);
