// The correction driver: from a stack and an alignment parameter file to the
// corrected stack. Reads the rows and fits them to the stack at hand, lines
// the channels up in Z by whole sections, then resamples every section of
// every channel through its row's model (the reference channel is copied) and
// writes it with fresh statistics. Three sections are in memory at most, one
// read ahead and one written behind the one being resampled on all threads.
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "app/settings.h"
#include "correction/correction.h"
#include "imsubs/imsubs.h"
#include "model/model.h"
#include "spots/spots.h"

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

// Where one section comes from and goes to.
struct SectionAddress {
  int z;  // input section
  int channel;
  int time;
  int outputZ;
};

// A block for a section plane, on large pages where the system lends them on
// request: a section plane spans hundreds of small pages, whose first-touch
// faults and translation misses cost the resampling as much as a pass over
// the plane. Null when the memory is not there.
void* allocateLarge(size_t bytes) {
  constexpr size_t kLargePage = size_t{2} << 20;
  const size_t rounded = (bytes + kLargePage - 1) / kLargePage * kLargePage;
  void* block = std::aligned_alloc(kLargePage, rounded == 0 ? kLargePage : rounded);
#ifdef MADV_HUGEPAGE
  if (block != nullptr) madvise(block, rounded, MADV_HUGEPAGE);  // a refusal only costs speed
#endif
  return block;
}

// A plane of `count` values left unset: every read fills its section whole and
// the transform writes every output pixel, so zero-filling three slots only
// cost a pass over memory (and its page faults) before the first section, and
// the reference channel never touches its planes of doubles at all.
template <typename T>
class Plane {
 public:
  explicit Plane(size_t count) : values_(allocateLarge(count * sizeof(T))), count_(count) {
    if (values_ == nullptr) throw std::bad_alloc();
  }
  T* data() const { return static_cast<T*>(values_.get()); }
  size_t size() const { return count_; }

 private:
  struct Free {
    void operator()(void* p) const { std::free(p); }
  };
  std::unique_ptr<void, Free> values_;
  size_t count_;
};

// One section on its way through the loop: where it comes from and goes to,
// its carried-over values, the floats read (which the transform samples as
// they are), the transform's plane of doubles and the floats narrowed from
// it, with row pointers.
struct SectionSlot {
  SectionAddress address{};
  double carried[kNumCarriedValues] = {};
  // The technical line of a failed read, raised when the loop reaches the
  // section in its own order; null after a good read.
  const char* readFailure = nullptr;
  Plane<float> pixels;
  Plane<double> output;
  Plane<float> narrowed;
  std::vector<float*> pixelRows;
  std::vector<double*> outputRows;

  SectionSlot(int numRows, int numCols)
      : pixels(static_cast<size_t>(numRows) * numCols),
        output(pixels.size()),
        narrowed(pixels.size()),
        pixelRows(numRows),
        outputRows(numRows) {
    for (int y = 0; y < numRows; ++y) {
      pixelRows[y] = pixels.data() + static_cast<size_t>(y) * numCols;
      outputRows[y] = output.data() + static_cast<size_t>(y) * numCols;
    }
  }
  // The row tables point into the slot's own planes: no copies.
  SectionSlot(const SectionSlot&) = delete;
  SectionSlot& operator=(const SectionSlot&) = delete;
};

// Three sections are in flight at most: one read ahead, one resampled, one
// written behind. Memory stays at three sections whatever the stack.
constexpr int kSlotsInFlight = 3;
// Output rows handed to a thread at a time.
constexpr int kRowsPerBlock = 8;

struct SectionStatistics {
  double minimum = kMinimumStart;
  double maximum = kMaximumStart;
  double sum = 0.0;
};

// Minimum, maximum and sum of `count` values in buffer order. Local running
// values stay in registers; the sum's order is the buffer's, so that the mean
// is the same to the last bit whoever resampled the rows.
template <typename T>
SectionStatistics measureValues(const T* values, size_t count) {
  double minimum = kMinimumStart;
  double maximum = kMaximumStart;
  double sum = 0.0;
  for (size_t i = 0; i < count; ++i) {
    const double value = values[i];
    if (value < minimum) minimum = value;
    if (value > maximum) maximum = value;
    sum += value;
  }
  return SectionStatistics{minimum, maximum, sum};
}

// Reads the carried-over values and the pixels of a section. Returns the
// technical line of the first failing call, or null.
const char* readCarriedValues(const SectionAddress& a, double* carried) {
  for (int k = 0; k < kNumCarriedValues; ++k) {
    if (IMRtExHdrValueZWT(kInputStream, a.z, a.channel, a.time, kCarriedValues[k], &carried[k]) !=
        0) {
      return "Correction: IMRtExHdrValueZWT failed. \n";
    }
  }
  return nullptr;
}

const char* readSection(const SectionAddress& a, float* pixels) {
  if (IMPosnZWT(kInputStream, a.z, a.channel, a.time) != 0) {
    return "Correction: IMPosnZWT failed. \n";
  }
  // A failed read borrows the words of the positioning call: intended text.
  if (readSectionAsFloats(kInputStream, pixels) != 0) return "Correction: IMPosnZWT failed. \n";
  return nullptr;
}

// Fills a slot's floats and carried values for `address`. A failure is kept
// in the slot, not raised.
void fillSlot(SectionSlot& slot, const SectionAddress& address, bool inputHasValues) {
  slot.address = address;
  std::fill(slot.carried, slot.carried + kNumCarriedValues, 0.0);
  slot.readFailure = inputHasValues ? readCarriedValues(address, slot.carried) : nullptr;
  if (slot.readFailure == nullptr) slot.readFailure = readSection(address, slot.pixels.data());
}

// Resamples output rows firstRow up to endRow of a slot and narrows them to
// floats: a plain conversion, no clamping, no rounding to the input's pixel
// type.
void resampleRows(SectionSlot& slot, double* parameters, int numRows, int numCols, int linearFlag,
                  int firstRow, int endRow) {
  imageTransformRows(slot.pixelRows.data(), parameters, numRows, numCols, linearFlag, 1,
                     slot.outputRows.data(), firstRow, endRow);
  const size_t first = static_cast<size_t>(firstRow) * numCols;
  const size_t end = static_cast<size_t>(std::min(endRow, numRows)) * numCols;
  if (first < end)
    narrowSection(slot.output.data() + first, slot.narrowed.data() + first, end - first);
}

// The floats that go to the file: resampled, or copied as read.
const float* finalPixels(const SectionSlot& slot, bool resampled) {
  return resampled ? slot.narrowed.data() : slot.pixels.data();
}

void writeSectionPixels(const SectionAddress& a, const float* pixels) {
  if (IMPosnZWT(kOutputStream, a.outputZ, a.channel, a.time) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMPosnZWT failed. \n", true);
  }
  if (IMWrSec(kOutputStream, pixels) != 0) {
    stopCorrection(kWriteFailed, "Correction: IMWrSec failed. \n", true);
  }
}

void writeSectionValues(const SectionAddress& a, double minimum, double maximum, double mean,
                        const double* carried) {
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
  std::deque<SectionSlot>& slots;
};

// The running statistics of a channel over its sections.
struct ChannelStatistics {
  double lowest = kMinimumStart;
  double highest = kMaximumStart;
  double sumOfMeans = 0.0;
};

// Minimum, maximum and sum of a section whose pixels are final: of the
// doubles when it was resampled, of the floats read when it was copied.
SectionStatistics measureSlot(const SectionSlot& slot, bool resampled) {
  return resampled ? measureValues(slot.output.data(), slot.output.size())
                   : measureValues(slot.pixels.data(), slot.pixels.size());
}

// Folds a section's statistics into the channel's and writes its extended
// header values; its pixels are already written.
void recordSection(const SectionSlot& slot, const SectionStatistics& stats,
                   double pixelsPerSection, ChannelStatistics& channel) {
  const double mean = stats.sum / pixelsPerSection;
  if (stats.minimum < channel.lowest) channel.lowest = stats.minimum;
  if (stats.maximum > channel.highest) channel.highest = stats.maximum;
  channel.sumOfMeans += mean;
  writeSectionValues(slot.address, stats.minimum, stats.maximum, mean, slot.carried);
}

// Measures and writes a section whose pixels are final, on the calling thread.
void finishSection(const SectionSlot& slot, bool resampled, double pixelsPerSection,
                   ChannelStatistics& channel) {
  const SectionStatistics stats = measureSlot(slot, resampled);
  writeSectionPixels(slot.address, finalPixels(slot, resampled));
  recordSection(slot, stats, pixelsPerSection, channel);
}

// The input sections of a channel in the order they are written: time, then
// Z within the row's range.
std::vector<SectionAddress> channelSections(const InputStack& s, const ZRange& range, int channel) {
  std::vector<SectionAddress> sections;
  for (int t = 0; t < s.numTimes; ++t) {
    int outputZ = 0;
    for (int z = 0; z < s.numZ; ++z) {
      if (z < range.first || z > range.last) continue;
      sections.push_back(SectionAddress{z, channel, t, outputZ});
      ++outputZ;
    }
  }
  return sections;
}

// Runs the sections of a channel through read, resample and write. While the
// threads resample section k in blocks of rows, one thread does the library's
// work: it reads section k + 1, writes the pixels of section k - 1, then its
// values once they are measured; another thread measures section k - 1. The
// library is used by one thread at a time, and a failed
// read is raised only after the section before it has been written, so a
// failing run leaves the same partial output. The statistics are summed by one
// thread in buffer order, whatever the number of threads.
void streamSections(const CorrectionRun& run, const std::vector<SectionAddress>& sections,
                    bool resample, bool inputHasValues, double* parameters,
                    ChannelStatistics& channel) {
  const InputStack& s = run.stack;
  const double pixelsPerSection = static_cast<double>(s.numCols) * s.numRows;
  const int count = static_cast<int>(sections.size());
  const int numBlocks = (s.numRows + kRowsPerBlock - 1) / kRowsPerBlock;
  auto slotOf = [&run](int k) -> SectionSlot& { return run.slots[k % kSlotsInFlight]; };

  if (count > 0) fillSlot(slotOf(0), sections[0], inputHasValues);
  for (int k = 0; k < count; ++k) {
    SectionSlot& current = slotOf(k);
    if (current.readFailure != nullptr) {
      if (k > 0) finishSection(slotOf(k - 1), resample, pixelsPerSection, channel);
      stopCorrection(kReadFailed, current.readFailure, true);
    }
    RegionFailure failure;
    SectionStatistics previous;
    std::atomic<bool> measured{false};
#pragma omp parallel
    {
      // First in program order, and it waits for nothing: a lone thread runs
      // it before the library's work, which waits for it.
#pragma omp single nowait
      {
        if (k > 0) failure.guard([&] { previous = measureSlot(slotOf(k - 1), resample); });
        measured.store(true, std::memory_order_release);
      }
#pragma omp single nowait
      failure.guard([&] {
        if (k + 1 < count) fillSlot(slotOf(k + 1), sections[k + 1], inputHasValues);
        if (k > 0) writeSectionPixels(slotOf(k - 1).address, finalPixels(slotOf(k - 1), resample));
        // The measuring takes about a millisecond and has usually ended by now.
        while (!measured.load(std::memory_order_acquire)) std::this_thread::yield();
        if (k > 0) recordSection(slotOf(k - 1), previous, pixelsPerSection, channel);
      });
      if (resample) {
#pragma omp for schedule(dynamic, 1) nowait
        for (int block = 0; block < numBlocks; ++block) {
          resampleRows(current, parameters, s.numRows, s.numCols, run.linearFlag,
                       block * kRowsPerBlock, (block + 1) * kRowsPerBlock);
        }
      }
    }
    failure.rethrow();
  }
  if (count > 0) finishSection(slotOf(count - 1), resample, pixelsPerSection, channel);
}

// Writes every section of one channel in its Z range, for every time point,
// and the channel's statistics into the output header.
void correctChannel(const CorrectionRun& run, int channel) {
  const InputStack& s = run.stack;
  const float wavelength = readWavelength(channel, true);
  printf("Correcting Channel %d...\n\n", wavelengthKey(wavelength));
  fflush(stdout);

  const int r = zTableRow(run.zTable, wavelengthKey(wavelength));
  // The last row is the reference channel's: copied, not resampled.
  const bool reference = r == static_cast<int>(run.rows.size()) - 1;
  double parameters[kNumModelParameters];
  std::copy(run.rows[r].begin() + kSlotFirstParameter, run.rows[r].end(), parameters);

  // The result of the size query is not tested: zero counts mean no values.
  int numInts = 0;
  int numFloats = 0;
  IMRtExHdrSize(kInputStream, &numInts, &numFloats);
  const bool inputHasValues = numInts > 0 || numFloats > 0;

  ChannelStatistics stats;
  streamSections(run, channelSections(s, run.zTable[r], channel), !reference, inputHasValues,
                 parameters, stats);
  const double channelMean =
      stats.sumOfMeans / (static_cast<double>(s.numTimes) * run.outputSections);
  writeChannelHeader(channel, wavelength, stats.lowest, stats.highest, channelMean);
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

  std::deque<SectionSlot> slots;
  for (int k = 0; k < kSlotsInFlight; ++k) slots.emplace_back(stack.numRows, stack.numCols);
  openOutput(pathOutput);
  prepareOutputHeader(stack, outputSections);

  const CorrectionRun run{stack, rows, zTable, outputSections, linearFlag, slots};
  double progress = 0.5;
  for (int c = 0; c < stack.numChannels; ++c) {
    correctChannel(run, c);
    reportProgress(progress, stack.numChannels);
    if (c + 1 < stack.numChannels) progress += 1.0;
  }
  finishOutput();
}
