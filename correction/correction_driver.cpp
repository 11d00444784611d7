// The correction driver: from a stack and an alignment parameter file to the
// corrected stack. Reads the rows and fits them to the stack at hand, lines
// the channels up in Z by whole sections, then resamples every section of
// every channel through its row's model (the reference channel is copied) and
// writes it with fresh statistics. One section in memory at a time.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "app/settings.h"
#include "correction/correction.h"
#include "imsubs/imsubs.h"
#include "model/model.h"

namespace {

constexpr int kInputStream = 1;
constexpr int kOutputStream = 2;
constexpr int kOutputPixelType = 2;      // 4-byte float, whatever the input holds
constexpr int kOutputExtHeaderType = 4;  // float values per section
constexpr int kValueMinimum = 5;
constexpr int kValueMaximum = 6;
constexpr int kValueMean = 7;
// Extended header values copied from input to output, in this order.
constexpr int kCarriedValues[] = {2, 3, 4, 1, 0};
constexpr int kNumCarriedValues = 5;
// Start values of the statistics. The maximum starts at -1.0, so a section
// with every pixel below -1.0 reports -1.0: intended and kept.
constexpr double kMinimumStart = std::numeric_limits<double>::max();
constexpr double kMaximumStart = -1.0;

const char kReadFailed[] = "Reading QF Input File Failed\n";
const char kWriteFailed[] = "Writing QF Output File Failed\n";
const char kStopLine[] = "Correction Stopped";

// Ends the correction on a failure (see stopRun); a null reason means the
// caller has printed its own.
[[noreturn]] void stopCorrection(const char* reason, const char* technical, bool outputOpen) {
  if (outputOpen) stopRun(reason, kStopLine, technical, {kInputStream, kOutputStream});
  stopRun(reason, kStopLine, technical, {kInputStream});
}

// What the correction takes from the input stack's header.
struct InputStack {
  int numCols = 0;
  int numRows = 0;
  float spacingX = 0.0f;
  float spacingY = 0.0f;
  float spacingZ = 0.0f;
  int numZ = 0;
  int numChannels = 0;
  int numTimes = 0;
  int sequence = 0;
  float originX = 0.0f;
  float originY = 0.0f;
  float originZ = 0.0f;
  int mode = 0;
  int lensId = 0;
};

// Which input sections a row's channel contributes, both included.
struct ZRange {
  int key;
  int first;
  int last;
};

int wavelengthKey(double wavelength) {
  return truncateToInt(wavelength);
}

void openInput(char* pathInput) {
  if (IMOpen(kInputStream, pathInput, "ro") != 0) {
    stopRun("Can Not Open QF Input File\n", kStopLine, nullptr, {});
  }
  puts("QF Input File Opened\n");
  fflush(stdout);
}

void readSizeAndSpacing(InputStack& s) {
  if (IMRtXY(kInputStream, &s.numCols, &s.numRows) != 0) {
    stopCorrection(kReadFailed, "performCorrection: IMRtXY failed. \n", false);
  }
  if (IMRtDel2(kInputStream, &s.spacingX, &s.spacingY, &s.spacingZ) != 0) {
    stopCorrection(kReadFailed, "Correction: IMRtDel2 failed. \n", false);
  }
}

void readDimensions(InputStack& s) {
  if (IMRtZWT(kInputStream, &s.numZ, &s.numChannels, &s.numTimes, &s.sequence) != 0) {
    stopCorrection(kReadFailed, "performCorrection: IMRtZWT failed. \n", false);
  }
}

void checkZShiftCount(const InputStack& s) {
  if (zShiftPerChannel.empty() || static_cast<int>(zShiftPerChannel.size()) == s.numChannels) {
    return;
  }
  printf("Number Of Channels In QF Input File: %d\n", s.numChannels);
  printf("Number Of Z Shift For Channels: %d\n", static_cast<int>(zShiftPerChannel.size()));
  stopCorrection("Different Number Of Channels\n", nullptr, false);
}

float readWavelength(int channel, bool outputOpen) {
  float wavelength = 0.0f;
  if (IMRtWav2(kInputStream, channel, &wavelength) != 0) {
    stopCorrection(kReadFailed, "Correction: IMRtWav2 failed. \n", outputOpen);
  }
  return wavelength;
}

// Finds each channel's row by truncated wavelength, the first match winning,
// and lays a -zShift value, rounded half up to whole sections, over the row's
// Z offset. Returns the row index of each channel.
std::vector<int> matchChannelsToRows(const InputStack& s, std::vector<std::vector<double>>& rows) {
  std::vector<int> keys;
  for (const std::vector<double>& row : rows) keys.push_back(wavelengthKey(row[kSlotWavelength]));

  std::vector<int> channelToRow;
  for (int c = 0; c < s.numChannels; ++c) {
    const int key = wavelengthKey(readWavelength(c, false));
    int match = -1;
    for (int r = 0; r < static_cast<int>(keys.size()) && match < 0; ++r) {
      if (keys[r] == key) match = r;
    }
    if (match < 0) {
      printf("Alignment Parameter For Wavelength %d Unavailable\n\n", key);
      stopCorrection(nullptr, nullptr, false);
    }
    channelToRow.push_back(match);
    if (!zShiftPerChannel.empty()) {
      rows[match][kSlotZOffset] = std::floor(zShiftPerChannel[c] / s.spacingZ + 0.5);
    }
  }
  return channelToRow;
}

void readOriginModeAndLens(InputStack& s) {
  if (IMRtOrig(kInputStream, &s.originX, &s.originY, &s.originZ) != 0) {
    stopCorrection(kReadFailed, "Correction: IMRtOrig failed. \n", false);
  }
  // The mode is checked for readability only; the output is always float.
  if (IMRtMode(kInputStream, &s.mode) != 0) {
    stopCorrection(kReadFailed, "Correction: IMRtMode failed. \n", false);
  }
  if (IMRtLensID(kInputStream, &s.lensId) != 0) {
    stopCorrection(kReadFailed, "Correction: IMRtLensID failed. \n", false);
  }
}

// Lines the channels up in Z. A row's shift is its Z offset truncated; output
// section k of a channel is its input section k + shift - min, so sections that
// only some channels could fill are cut from both ends. Shifting is off, and
// every shift ignored without a message, for a single section or a shift
// range that the stack can't absorb. Returns the number of output sections and
// fills one entry per row, for all rows.
//
// Shifts stay in double: offsets and -zShift values may be anything, and a
// range formed in 32 bits wraps and turns shifting on with a count that the
// written sections don't match. Whole numbers are exact there, and a range
// below the section count makes every difference formed here exact too. A
// shift that is no finite number (a Z spacing of 0 or NaN, an infinite
// offset) gives a range that no stack absorbs.
int alignInZ(int numZ, const std::vector<std::vector<double>>& rows,
             const std::vector<int>& channelToRow, std::vector<ZRange>& zTable) {
  std::vector<double> shifts;
  for (const std::vector<double>& row : rows) shifts.push_back(std::trunc(row[kSlotZOffset]));
  double minShift = channelToRow.empty() ? 0.0 : shifts[channelToRow[0]];
  double maxShift = minShift;
  bool unbounded = false;
  for (int r : channelToRow) {
    unbounded = unbounded || !std::isfinite(shifts[r]);
    minShift = std::min(minShift, shifts[r]);
    maxShift = std::max(maxShift, shifts[r]);
  }
  const double range = maxShift - minShift;
  const bool shifting = numZ > 1 && !unbounded && range < numZ;

  for (size_t r = 0; r < rows.size(); ++r) {
    ZRange entry{wavelengthKey(rows[r][kSlotWavelength]), 0, numZ - 1};
    if (shifting) {
      // Rows that serve no channel may land anywhere; they are never used.
      entry.first = truncateToInt(shifts[r] - minShift);
      entry.last = truncateToInt(numZ - 1 - (maxShift - shifts[r]));
    }
    zTable.push_back(entry);
  }
  return shifting ? numZ - static_cast<int>(range) : numZ;
}

void openOutput(char* pathOutput) {
  if (IMOpen(kOutputStream, pathOutput, "new") != 0) {
    // The lower case of the technical line is the established text.
    stopCorrection("Can Not Open QF Output File\n",
                   "performcorrection: can not open qf output file. \n", false);
  }
  // No flush of its own: the line leaves with the next one.
  puts("QF Output File Opened\n");
}

void prepareOutputHeader(const InputStack& s, int outputSections) {
  if (IMCrHdr2(kOutputStream, s.numCols, s.numRows, outputSections, s.numChannels, s.numTimes,
               s.sequence, kOutputPixelType) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMCrHdr2 failed. \n", true);
  }
  if (IMAlExHdrType(kOutputStream, kOutputExtHeaderType, 1,
                    s.numTimes * s.numChannels * outputSections) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMAlExHdrType failed. \n", true);
  }
  // Copies cell size and angles; the output's spacing follows from them.
  if (IMTrCel(kOutputStream, kInputStream) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMTrCel failed. \n", true);
  }
  if (IMAlOrig(kOutputStream, s.originX, s.originY, s.originZ) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMAlOrig failed. \n", true);
  }
  if (IMAlLensID(kOutputStream, s.lensId) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMAlLensID failed. \n", true);
  }
}

// The section buffers, allocated once for the run: the library's float block
// and the transform's two planes of doubles with their row pointers.
struct SectionBuffers {
  std::vector<float> pixels;
  std::vector<double> input;
  std::vector<double> output;
  std::vector<double*> inputRows;
  std::vector<double*> outputRows;

  SectionBuffers(int numRows, int numCols)
      : pixels(static_cast<size_t>(numRows) * numCols),
        input(pixels.size()),
        output(pixels.size()),
        inputRows(numRows),
        outputRows(numRows) {
    for (int y = 0; y < numRows; ++y) {
      inputRows[y] = input.data() + static_cast<size_t>(y) * numCols;
      outputRows[y] = output.data() + static_cast<size_t>(y) * numCols;
    }
  }
};

struct SectionStatistics {
  double minimum = kMinimumStart;
  double maximum = kMaximumStart;
  double sum = 0.0;

  void add(double value) {
    if (value < minimum) minimum = value;
    if (value > maximum) maximum = value;
    sum += value;
  }
};

// Where one section comes from and goes to.
struct SectionAddress {
  int z;  // input section
  int channel;
  int time;
  int outputZ;
};

void readCarriedValues(const SectionAddress& a, double* carried) {
  for (int k = 0; k < kNumCarriedValues; ++k) {
    if (IMRtExHdrValueZWT(kInputStream, a.z, a.channel, a.time, kCarriedValues[k], &carried[k]) !=
        0) {
      stopCorrection(kReadFailed, "Correction: IMRtExHdrValueZWT failed. \n", true);
    }
  }
}

void readSection(const SectionAddress& a, float* pixels) {
  if (IMPosnZWT(kInputStream, a.z, a.channel, a.time) != 0) {
    stopCorrection(kReadFailed, "Correction: IMPosnZWT failed. \n", true);
  }
  // A failed read borrows the words of the positioning call: intended text.
  if (readSectionAsFloats(kInputStream, pixels) != 0) {
    stopCorrection(kReadFailed, "Correction: IMPosnZWT failed. \n", true);
  }
}

// Resamples the float block through the model in place and returns the
// statistics of the resampled doubles. The narrowing to float is a plain
// conversion: no clamping, no rounding to the input's pixel type.
SectionStatistics resampleSection(SectionBuffers& b, double* parameters, int numRows, int numCols,
                                  int linearFlag) {
  for (size_t i = 0; i < b.pixels.size(); ++i) b.input[i] = b.pixels[i];
  imageTransform(b.inputRows.data(), parameters, numRows, numCols, linearFlag, 1,
                 b.outputRows.data());
  SectionStatistics stats;
  for (size_t i = 0; i < b.pixels.size(); ++i) {
    b.pixels[i] = static_cast<float>(b.output[i]);
    stats.add(b.output[i]);
  }
  return stats;
}

SectionStatistics measureSection(const std::vector<float>& pixels) {
  SectionStatistics stats;
  for (float value : pixels) stats.add(value);
  return stats;
}

void writeSection(const SectionAddress& a, const float* pixels, double minimum, double maximum,
                  double mean, const double* carried) {
  if (IMPosnZWT(kOutputStream, a.outputZ, a.channel, a.time) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMPosnZWT failed. \n", true);
  }
  if (IMWrSec(kOutputStream, pixels) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMWrSec failed. \n", true);
  }
  const int ids[3] = {kValueMinimum, kValueMaximum, kValueMean};
  const double computed[3] = {minimum, maximum, mean};
  for (int k = 0; k < 3 + kNumCarriedValues; ++k) {
    const int id = k < 3 ? ids[k] : kCarriedValues[k - 3];
    const double value = k < 3 ? computed[k] : carried[k - 3];
    if (IMAlExHdrValueZWT(kOutputStream, a.outputZ, a.channel, a.time, id, value) != 0) {
      stopCorrection(kWriteFailed, "Correction: IMAlExHdrValueZWT failed. \n", true);
    }
  }
}

void writeChannelHeader(int channel, float wavelength, double lowest, double highest, double mean) {
  if (IMAlWavMMM(kOutputStream, channel, static_cast<float>(lowest), static_cast<float>(highest),
                 static_cast<float>(mean)) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMAlWavMMM failed. \n", true);
  }
  if (IMAlScl2(kOutputStream, channel, static_cast<float>(lowest), static_cast<float>(highest),
               1.0f, 0.0f) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMAlScl2 failed. \n", true);
  }
  if (IMAlWav2(kOutputStream, channel, wavelength) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMAlWav2 failed. \n", true);
  }
}

// Looks a channel's key up in the Z table. A miss falls back to the last
// row; the matching of the channels has already excluded one.
int zTableRow(const std::vector<ZRange>& zTable, int key) {
  for (size_t r = 0; r < zTable.size(); ++r) {
    if (zTable[r].key == key) return static_cast<int>(r);
  }
  return static_cast<int>(zTable.size()) - 1;
}

// Context of the channel loop, fixed before it starts.
struct CorrectionRun {
  const InputStack& stack;
  const std::vector<std::vector<double>>& rows;
  const std::vector<ZRange>& zTable;
  int outputSections;
  int linearFlag;
  SectionBuffers& buffers;
};

// Writes every section of one channel in its Z range, for every time point,
// and the channel's statistics into the output header.
void correctChannel(const CorrectionRun& run, int channel) {
  const InputStack& s = run.stack;
  const float wavelength = readWavelength(channel, true);
  printf("Correcting Channel %d...\n\n", wavelengthKey(wavelength));
  fflush(stdout);

  const int r = zTableRow(run.zTable, wavelengthKey(wavelength));
  const ZRange& range = run.zTable[r];
  // The last row is the reference channel's: copied, not resampled.
  const bool reference = r == static_cast<int>(run.rows.size()) - 1;
  double parameters[kNumModelParameters];
  std::copy(run.rows[r].begin() + kSlotFirstParameter, run.rows[r].end(), parameters);

  // The result of the size query is not tested: zero counts mean no values.
  int numInts = 0;
  int numFloats = 0;
  IMRtExHdrSize(kInputStream, &numInts, &numFloats);
  const bool inputHasValues = numInts > 0 || numFloats > 0;

  double lowest = kMinimumStart;
  double highest = kMaximumStart;
  double sumOfMeans = 0.0;
  const double pixelsPerSection = static_cast<double>(s.numCols) * s.numRows;
  for (int t = 0; t < s.numTimes; ++t) {
    int outputZ = 0;
    for (int z = 0; z < s.numZ; ++z) {
      if (z < range.first || z > range.last) continue;
      const SectionAddress address{z, channel, t, outputZ};
      double carried[kNumCarriedValues] = {0.0, 0.0, 0.0, 0.0, 0.0};
      if (inputHasValues) readCarriedValues(address, carried);
      readSection(address, run.buffers.pixels.data());
      const SectionStatistics stats =
          reference
              ? measureSection(run.buffers.pixels)
              : resampleSection(run.buffers, parameters, s.numRows, s.numCols, run.linearFlag);
      const double mean = stats.sum / pixelsPerSection;
      if (stats.minimum < lowest) lowest = stats.minimum;
      if (stats.maximum > highest) highest = stats.maximum;
      sumOfMeans += mean;
      writeSection(address, run.buffers.pixels.data(), stats.minimum, stats.maximum, mean, carried);
      ++outputZ;
    }
  }
  const double channelMean = sumOfMeans / (static_cast<double>(s.numTimes) * run.outputSections);
  writeChannelHeader(channel, wavelength, lowest, highest, channelMean);
}

void reportProgress(double progress, int numChannels) {
  const int percent = static_cast<int>(progress / numChannels * 100);
  printf("Correction in progress %d percent\n\n", percent);
  fflush(stdout);
  updateStatus(pathStatusFile, "Correction in progress", percent);
}

void finishOutput() {
  // Header and extended header reach the file only now.
  if (IMWrHdr2(kOutputStream, 1) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMWrHdr2 failed. \n", true);
  }
  // A failed close is reported and the run still ends as completed.
  puts(IMClose(kInputStream) != 0 ? "Can Not Close QF Input File\n" : "QF Input File Closed\n");
  fflush(stdout);
  puts(IMClose(kOutputStream) != 0 ? "Can Not Close QF Output File\n" : "QF Output File Closed\n");
  fflush(stdout);
}

}  // namespace

void performCorrection(char* pathParameterFile, char* pathInput, char* pathOutput) {
  std::vector<std::vector<double>> rows;
  readAlignmentParameter(pathParameterFile, rows);
  // The final row's copy of the flag applies to all rows.
  const int linearFlag = truncateToInt(rows.back()[kSlotLinearFlag]);

  InputStack stack;
  openInput(pathInput);
  readSizeAndSpacing(stack);
  convertAlignmentParameterToPixels(rows, stack.numRows, stack.numCols, stack.spacingX,
                                    stack.spacingY, stack.spacingZ);
  readDimensions(stack);
  checkZShiftCount(stack);
  const std::vector<int> channelToRow = matchChannelsToRows(stack, rows);
  readOriginModeAndLens(stack);

  std::vector<ZRange> zTable;
  const int outputSections = alignInZ(stack.numZ, rows, channelToRow, zTable);

  SectionBuffers buffers(stack.numRows, stack.numCols);
  openOutput(pathOutput);
  prepareOutputHeader(stack, outputSections);

  const CorrectionRun run{stack, rows, zTable, outputSections, linearFlag, buffers};
  double progress = 0.5;
  for (int c = 0; c < stack.numChannels; ++c) {
    correctChannel(run, c);
    reportProgress(progress, stack.numChannels);
    if (c + 1 < stack.numChannels) progress += 1.0;
  }
  finishOutput();
}
