// Helpers shared inside the spot measurement library; not for other callers.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

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

// Runs `task` with the lines its fits print held back, and returns them.
std::string holdFitLines(const std::function<void()>& task);

// Prints lines that holdFitLines returned, where printFitLine would now.
void printHeldFitLines(const std::string& held);
