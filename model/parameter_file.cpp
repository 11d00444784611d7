// The alignment parameter file: plain text, rows of 27 values in fixed-point
// fields, no newline after the last row. The writer ends the calibration, the
// reader starts the correction; the two share one end-of-file decision.
#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstdlib>

#include "model/internal.h"
#include "model/model.h"

// One row in one conversion string: 27 fields of "%14.8f" joined by a blank.
#define CORVANE_FIELDS3 "%14.8f %14.8f %14.8f"
#define CORVANE_FIELDS9 CORVANE_FIELDS3 " " CORVANE_FIELDS3 " " CORVANE_FIELDS3
#define CORVANE_ROW_FORMAT CORVANE_FIELDS9 " " CORVANE_FIELDS9 " " CORVANE_FIELDS9

// 27 single-precision conversions with nothing between them: any white space
// separates values, line structure plays no part.
#define CORVANE_SCAN3 "%f%f%f"
#define CORVANE_SCAN9 CORVANE_SCAN3 CORVANE_SCAN3 CORVANE_SCAN3
#define CORVANE_ROW_SCAN CORVANE_SCAN9 CORVANE_SCAN9 CORVANE_SCAN9

namespace {

[[noreturn]] void failInvalidFile(FILE* file) {
  puts("Invalid Alignment Parameter Input File\n");
  puts("Correction Stopped");
  fflush(stdout);
  fclose(file);
  exit(1);
}

// Scans one row of 27 floats. Returns the number of values converted, or EOF.
int scanRow(FILE* file, float* v) {
  return fscanf(file, CORVANE_ROW_SCAN, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7],
                &v[8], &v[9], &v[10], &v[11], &v[12], &v[13], &v[14], &v[15], &v[16], &v[17],
                &v[18], &v[19], &v[20], &v[21], &v[22], &v[23], &v[24], &v[25], &v[26]);
}

void printRow(FILE* file, const double* v) {
  fprintf(file, CORVANE_ROW_FORMAT, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8], v[9],
          v[10], v[11], v[12], v[13], v[14], v[15], v[16], v[17], v[18], v[19], v[20], v[21], v[22],
          v[23], v[24], v[25], v[26]);
}

}  // namespace

bool scanAlignmentRows(FILE* file, std::vector<std::vector<double>>& rows) {
  // The end of the file is recognised only because the scan of the last
  // number reads into it. White space after the last number leaves the
  // indicator clear, the next scan finds nothing, and the file is invalid: a
  // trailing newline is refused on purpose, and the writer never writes one.
  // The indicator is never set on a fresh stream, so even an empty file is
  // scanned once (and refused).
  std::vector<double> row;
  while (!feof(file)) {
    // Single precision on purpose: each value is cut to a float's mantissa
    // before it is widened, and no double-precision reading replaces that.
    float values[kNumRowSlots];
    if (scanRow(file, values) != kNumRowSlots || ferror(file)) return false;
    for (float value : values) row.push_back(value);
    rows.push_back(row);
    row.clear();
  }
  return true;
}

void readAlignmentParameter(char* path, std::vector<std::vector<double>>& rows) {
  FILE* file = fopen(path, "r");
  if (file == nullptr)
    stopRun("Can Not Open Alignment Parameter Input File\n", "Correction Stopped", nullptr, {});
  puts("Alignment Parameter Input File Opened");
  fflush(stdout);

  if (!scanAlignmentRows(file, rows)) failInvalidFile(file);

  if (fclose(file) != 0) {
    puts("Can Not Close Alignment Parameter Input File\n");
  } else {
    puts("Alignment Parameter Input File Closed\n");
  }
  fflush(stdout);
}

void writeAlignmentParameter(const char* path, const std::vector<std::vector<double>>& rows) {
  FILE* file = fopen(path, "w");
  if (file == nullptr) {
    puts("Can Not Open Alignment Parameter Output File\n");
    fflush(stdout);
    exit(1);
  }
  puts("Alignment Parameter Output File Opened");
  fflush(stdout);

  // No newline after the last row: the reader relies on it (see above). Write
  // errors here go unnoticed, as intended; only the close is checked.
  for (size_t i = 0; i < rows.size(); ++i) {
    assert(rows[i].size() == static_cast<size_t>(kNumRowSlots));
    double values[kNumRowSlots];
    std::copy(rows[i].begin(), rows[i].begin() + kNumRowSlots, values);
    printRow(file, values);
    if (i + 1 < rows.size()) fputc('\n', file);
  }

  // "Paramenter" is the established wording of this line and stays.
  if (fclose(file) != 0) {
    puts("Can Not Close Alignment Parameter Output File\n");
  } else {
    puts("Alignment Paramenter Output File Closed\n");
  }
  fflush(stdout);
}
