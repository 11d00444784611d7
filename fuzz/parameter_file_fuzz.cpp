// Fuzz target of the alignment parameter file: any text is scanned into rows
// as the correction reads it, and rows that scan are carried into pixels of a
// stack whose size and spacings come from the input's first 20 bytes, then turned
// into the integers the correction takes from them (flag, sizes, keys, Z
// shifts). Every value, NaN, infinities and huge ones included, must convert
// without undefined behaviour.
//
// Built outside the main build by scripts/fuzz-build.sh with libFuzzer.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "model/internal.h"
#include "model/model.h"

namespace {

// Keeps the results alive so that the conversions are not optimised away.
volatile long long gSink;

void takeIntegers(const std::vector<std::vector<double>>& rows) {
  long long sum = 0;
  for (const std::vector<double>& row : rows) {
    sum += truncateToInt(row[kSlotWavelength]);
    sum += truncateToInt(row[kSlotLinearFlag]);
    sum += truncateToInt(row[kSlotZOffset]);
    sum += truncateToInt(row[kSlotStackColumns]);
    sum += truncateToInt(row[kSlotStackRows]);
  }
  gSink = sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The stack being corrected, then the text of the file.
  struct Stack {
    int numRows, numCols;
    float spacingX, spacingY, spacingZ;
  } stack;
  if (size < sizeof stack) return 0;
  std::memcpy(&stack, data, sizeof stack);
  std::string text(reinterpret_cast<const char*>(data) + sizeof stack, size - sizeof stack);
  if (text.empty()) return 0;  // fmemopen wants a buffer

  FILE* file = fmemopen(text.data(), text.size(), "r");
  if (file == nullptr) return 0;
  std::vector<std::vector<double>> rows;
  const bool valid = scanAlignmentRows(file, rows);
  fclose(file);
  if (!valid || rows.empty()) return 0;
  for (const std::vector<double>& row : rows) {
    if (row.size() != static_cast<size_t>(kNumRowSlots)) __builtin_trap();
  }
  convertAlignmentParameterToPixels(rows, stack.numRows, stack.numCols, stack.spacingX,
                                    stack.spacingY, stack.spacingZ);
  takeIntegers(rows);
  return 0;
}
