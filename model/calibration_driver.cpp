// The calibration driver: from a target stack to the alignment parameter file.
// Per channel it takes the best-focus section, cleans it, iterates fit and
// warp against the reference channel's section, keeps the best pass, and
// turns the result into a row in physical units. The output file is opened
// only after every channel has been analysed, so a run that stops leaves no
// new output behind.
//
// Channels are read in file order by the one thread that uses the image
// library, and fitted as tasks on every thread while the next are read. What
// a channel prints is held and published in file order, each channel once it
// and every channel before it are done, so the console, the status file and
// the rows read as after a run on one thread; a failure is published where
// that run would have met it.
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/settings.h"
#include "correction/correction.h"
#include "imsubs/imsubs.h"
#include "model/internal.h"
#include "model/model.h"
#include "spots/spots.h"

namespace {

constexpr int kInputStream = 1;
// The focus search cuts each section into this grid, and looks only at the
// first time point.
constexpr int kFocusRowDivisions = 4;
constexpr int kFocusColumnDivisions = 4;
constexpr int kFirstTimePoint = 0;
// What the reference channel's focus search is worth, in channels.
constexpr double kReferenceProgress = 0.25;
// Both errors start each channel here; a channel that never measures keeps it.
constexpr double kNoMeasurement = -1.0;
constexpr double kPercent = 100.0;

const char kReadFailed[] = "Reading QF Input File Failed\n";
const char kStopLine[] = "Calibration Stopped";
const char kProgressMessage[] = "Calibration in progress";
const char kWavelengthFailed[] = "performCalibrationPerFile: IMRtWav2 failed.\n";

// What the driver takes from the stack's header.
struct CalibrationStack {
  int numRows = 0;
  int numCols = 0;
  int numZ = 0;
  int numChannels = 0;
  int numTimes = 0;
  float spacingX = 0.0f;
  float spacingY = 0.0f;
  float spacingZ = 0.0f;
};

// A section of doubles, row-major, with its table of row pointers.
struct Plane {
  std::vector<double> pixels;
  std::vector<double*> rows;
};

Plane makePlane(int numRows, int numCols) {
  Plane plane;
  plane.pixels.assign(static_cast<std::size_t>(numRows) * numCols, 0.0);
  plane.rows.resize(numRows);
  for (int r = 0; r < numRows; ++r) {
    plane.rows[r] = plane.pixels.data() + static_cast<std::size_t>(r) * numCols;
  }
  return plane;
}

// The stop of a failed read: the technical line on standard error.
[[noreturn]] void stopReading(int stream, const char* technical) {
  stopRun(kReadFailed, kStopLine, technical, {stream});
}

CalibrationStack readStack(int stream) {
  CalibrationStack s;
  calibrationReadInputFileHeader(stream, &s.numRows, &s.numCols, &s.numZ, &s.numChannels,
                                 &s.numTimes, &s.spacingX, &s.spacingY, &s.spacingZ);
  return s;
}

float readWavelength(int stream, int channel) {
  float wavelength = 0.0f;
  if (IMRtWav2(stream, channel, &wavelength) != 0) {
    stopReading(stream, kWavelengthFailed);
  }
  return wavelength;
}

// A focus section widened into a plane of its own and cleaned there.
Plane cleanedPlane(const std::vector<float>& section, const CalibrationStack& s) {
  Plane plane = makePlane(s.numRows, s.numCols);
  std::copy(section.begin(), section.end(), plane.pixels.begin());
  prepareFocusImage(plane.pixels.data(), s.numRows, s.numCols);
  return plane;
}

void reportProgress(double channelsDone, int numChannels) {
  const int percent = static_cast<int>(channelsDone / numChannels * kPercent);
  printf("Calibration in progress %d percent\n\n", percent);
  fflush(stdout);
  updateStatus(pathStatusFile, kProgressMessage, static_cast<double>(percent));
}

// Identity about the section's middle; laid down afresh for every channel.
void setStartParameters(double* parameters, double centreX, double centreY, int linearFlag) {
  std::fill(parameters, parameters + kNumModelParameters, 0.0);
  parameters[0] = centreX;
  parameters[1] = centreY;
  parameters[2] = 1.0;
  if (linearFlag != 0) parameters[3] = 1.0;
}

// The channel row in pixels: identity, fit figures (each twice, once per
// axis), Z offset in sections, then the 20 parameters.
AlignmentParameterRow assembleChannelRow(float wavelength, int linearFlag, double meanError,
                                         double errorDeviation, int zOffset,
                                         const double* parameters) {
  AlignmentParameterRow row = {static_cast<double>(wavelength),
                               static_cast<double>(linearFlag),
                               meanError,
                               meanError,
                               errorDeviation,
                               errorDeviation,
                               static_cast<double>(zOffset)};
  row.insert(row.end(), parameters, parameters + kNumModelParameters);
  assert(row.size() == static_cast<std::size_t>(kNumRowSlots));
  return row;
}

// Pixels to the stack's physical units. Which translation slots carry
// pixels depends on the model.
void scaleRowToPhysicalUnits(AlignmentParameterRow& row, const CalibrationStack& s,
                             int linearFlag) {
  const double dx = s.spacingX, dy = s.spacingY, dz = s.spacingZ;
  row[2] *= dx;
  row[4] *= dx;
  row[kSlotCentreX] *= dx;
  row[3] *= dy;
  row[5] *= dy;
  row[kSlotCentreY] *= dy;
  row[kSlotZOffset] *= dz;
  if (linearFlag != 0) {
    row[kSlotLinearTranslationX] *= dx;
    row[kSlotLinearTranslationY] *= dy;
  } else {
    row[kSlotRadialTranslationX] *= dx;
    row[kSlotRadialTranslationY] *= dy;
  }
}

// The reference channel's row, which also describes the calibration stack.
AlignmentParameterRow finalRow(float referenceWavelength, int linearFlag,
                               const CalibrationStack& s) {
  AlignmentParameterRow row(kNumRowSlots, 0.0);
  row[kSlotWavelength] = referenceWavelength;
  row[kSlotLinearFlag] = linearFlag;
  row[kSlotStackColumns] = s.numCols;
  row[kSlotStackRows] = s.numRows;
  row[kSlotStackSpacingX] = s.spacingX;
  row[kSlotStackSpacingY] = s.spacingY;
  row[kSlotStackSpacingZ] = s.spacingZ;
  return row;
}

// What every channel of one file is fitted with.
struct CalibrationRun {
  const CalibrationStack& stack;
  double** referenceRows;
  int referenceFocus;
  int numIteration;
  double errThreshold;
  int linearFlag;
  int highOrderFlag;
};

// One channel: read by the library thread, fitted on any thread, published
// in file order.
struct ChannelJob {
  int channel = 0;
  float wavelength = 0.0f;
  int focus = 0;
  Plane plane;  // released once fitted
  HeldOutput output;
  AlignmentParameterRow row;
  const char* readFailure = nullptr;  // technical line of a failed read
  std::exception_ptr failure;         // thrown while it was read or fitted
  std::atomic<bool> done{false};  // fitted, its row and output complete
};

// Prints each channel's held output, appends its row and reports progress,
// in file order, as soon as the channel and all before it are done. Called
// from any thread.
class ChannelPublisher {
 public:
  ChannelPublisher(const std::vector<std::unique_ptr<ChannelJob>>& jobs, int numChannels,
                   std::vector<std::vector<double>>& rows)
      : jobs_(jobs), numChannels_(numChannels), rows_(rows) {}

  void publishReady() {
    const std::lock_guard<std::mutex> lock(mutex_);
    while (next_ < jobs_.size() && jobs_[next_]->done.load(std::memory_order_acquire)) {
      ChannelJob& job = *jobs_[next_];
      job.output.write();
      rows_.push_back(job.row);
      reportProgress(progress_, numChannels_);
      progress_ += 1.0;
      ++next_;
    }
  }

 private:
  std::mutex mutex_;
  const std::vector<std::unique_ptr<ChannelJob>>& jobs_;
  const int numChannels_;
  std::vector<std::vector<double>>& rows_;
  std::size_t next_ = 0;
  double progress_ = 1.0;  // channels done, as a double
};

// Wavelength and best-focus section of the job's channel, with the lines a
// one-thread run prints around them held in the job. A failed read is kept
// in the job, to be published in its turn.
void readChannel(int stream, const CalibrationStack& s, ChannelJob& job,
                 std::vector<float>& section) {
  holdOutput(job.output, [&] {
    if (IMRtWav2(stream, job.channel, &job.wavelength) != 0) {
      job.readFailure = kWavelengthFailed;
      return;
    }
    try {
      consolePrint(stdout, "Calibrating Channel " + std::to_string(truncateToInt(job.wavelength)) +
                               " Started\n");
      consolePrint(stdout, "Locating Channel Focus Of Z Section...\n");
      findFocusSection(stream, job.channel, s.numZ, s.numRows, s.numCols, kFocusRowDivisions,
                       kFocusColumnDivisions, section.data(), &job.focus);
    } catch (const FocusReadFailure& failure) {
      job.readFailure = failure.technicalLine;
      return;
    }
    job.plane = cleanedPlane(section, s);
    consolePrint(stdout, "Channel Focus Of Z Section: " + std::to_string(job.focus) + "\n");
  });
}

// The iteration of the job's channel against the reference, and its row.
void fitChannel(const CalibrationRun& run, ChannelJob& job) {
  const CalibrationStack& s = run.stack;
  holdOutput(job.output, [&] {
    double meanError = kNoMeasurement, errorDeviation = kNoMeasurement;
    double parameters[kNumModelParameters];
    setStartParameters(parameters, std::floor(s.numCols * 0.5), std::floor(s.numRows * 0.5),
                       run.linearFlag);
    performCalibrationPerChannel(job.plane.rows.data(), run.referenceRows, s.numRows, s.numCols,
                                 run.numIteration, run.errThreshold, run.linearFlag,
                                 run.highOrderFlag, parameters, &meanError, &errorDeviation);
    job.plane = Plane();
    consolePrint(stdout, "Calibrating Channel " + std::to_string(truncateToInt(job.wavelength)) +
                             " Completed\n\n");
    job.row = assembleChannelRow(job.wavelength, run.linearFlag, meanError, errorDeviation,
                                 job.focus - run.referenceFocus, parameters);
    scaleRowToPhysicalUnits(job.row, s, run.linearFlag);
  });
}

// Reads the channels in file order on this thread, the one that uses the
// image library, while the team fits those already read. At most one channel
// more than there are threads is held at once. Stops reading at the first
// failure, which the jobs keep.
void readAndFitChannels(int stream, const CalibrationRun& run,
                        const std::vector<std::unique_ptr<ChannelJob>>& jobs,
                        ChannelPublisher& publisher, std::vector<float>& section) {
  const int threads = omp_get_max_threads();
  std::atomic<bool> failed{false};
#pragma omp parallel if (threads > 1 && jobs.size() > 1)
#pragma omp single
  {
    // Every channel pairs with the reference's spots: measured while the
    // first channels are read. A failure here is left to the first pairing,
    // which measures again and fails in its turn.
#pragma omp task if (threads > 1)
    try {
      measureReferenceSpots(run.referenceRows, run.stack.numRows, run.stack.numCols);
    } catch (...) {
    }
    int inFlight = 0;
    for (const std::unique_ptr<ChannelJob>& owned : jobs) {
      ChannelJob* job = owned.get();
      if (failed.load()) break;
      try {
        readChannel(stream, run.stack, *job, section);
      } catch (...) {
        job->failure = std::current_exception();
      }
      if (job->readFailure != nullptr || job->failure) break;
#pragma omp task firstprivate(job) if (threads > 1)
      {
        try {
          fitChannel(run, *job);
          job->done.store(true, std::memory_order_release);
        } catch (...) {
          job->failure = std::current_exception();
          failed.store(true);
        }
        publisher.publishReady();
      }
      if (++inFlight > threads) {
#pragma omp taskwait
        inFlight = 0;
      }
    }
#pragma omp taskwait
  }
}

// Once every task has ended and the channels before it are published: the
// first channel that failed ends the run there, as a one-thread run would.
void stopAtFirstFailure(int stream, const std::vector<std::unique_ptr<ChannelJob>>& jobs) {
  for (const std::unique_ptr<ChannelJob>& job : jobs) {
    if (job->done.load()) continue;
    job->output.write();
    if (job->failure) std::rethrow_exception(job->failure);
    assert(job->readFailure != nullptr);
    stopReading(stream, job->readFailure);
  }
}

}  // namespace

void calibrationReadInputFileHeader(int stream, int* numRows, int* numCols, int* numZ,
                                    int* numChannels, int* numTimes, float* spacingX,
                                    float* spacingY, float* spacingZ) {
  if (IMRtXY(stream, numCols, numRows) != 0) {
    stopReading(stream, "calibrationReadInputFileHeader: IMRtXY failed.\n");
  }
  int sequence = 0;  // read and dropped
  if (IMRtZWT(stream, numZ, numChannels, numTimes, &sequence) != 0) {
    stopReading(stream, "calibrationReadInputFileHeader: IMRtZWT failed.\n");
  }
  if (IMRtDel2(stream, spacingX, spacingY, spacingZ) != 0) {
    stopReading(stream, "calibrationReadInputFileHeader: IMRtDel2 failed.\n");
  }
}

void performCalibrationPerChannel(double** channelRows, double** referenceRows, int numRows,
                                  int numCols, int numIteration, double errThreshold,
                                  int linearFlag, int highOrderFlag, double* parameters,
                                  double* meanError, double* errorDeviation) {
  Plane working = makePlane(numRows, numCols);
  for (int r = 0; r < numRows; ++r) {
    std::copy(channelRows[r], channelRows[r] + numCols, working.rows[r]);
  }

  const FitPass fit = [&](double* p, double* mean, double* deviation) {
    fittingProcess(working.rows.data(), referenceRows, numRows, numCols, linearFlag, p, mean,
                   deviation);
  };
  // Always from the untouched channel section, so that pixels are resampled
  // once and not once per pass.
  const WarpStep warp = [&](double* p) {
    imageTransform(channelRows, p, numRows, numCols, linearFlag, 0, working.rows.data());
  };
  PassHistory history;
  iterateFitPasses(numIteration, errThreshold, fit, warp, parameters, meanError, errorDeviation,
                   history);

  // The best pass, not the last.
  const int best = chooseBestPass(history.meanErrors);
  *meanError = history.meanErrors[best];
  *errorDeviation = history.errorDeviations[best];
  std::copy(history.parameters[best].begin(), history.parameters[best].end(), parameters);

  if (highOrderFlag != 0) {
    fittingProcessHighOrder(channelRows, referenceRows, numRows, numCols, linearFlag, parameters,
                            meanError, errorDeviation);
  }
}

void performCalibrationPerFile(int stream, int referenceChannelIndex, int numIteration,
                               double errThreshold, int linearFlag, int highOrderFlag,
                               std::vector<std::vector<double>>& rows) {
  const CalibrationStack s = readStack(stream);
  if (referenceChannelIndex < 0 || referenceChannelIndex >= s.numChannels) {
    stopRun("Reference Channel Index Out Of Boundary\n", kStopLine, nullptr, {stream});
  }

  const float referenceWavelength = readWavelength(stream, referenceChannelIndex);
  printf("Reference Channel %d\n", truncateToInt(referenceWavelength));
  puts("Locating Channel Focus Of Z Section...");
  fflush(stdout);
  std::vector<float> section(static_cast<std::size_t>(s.numRows) * s.numCols);
  int referenceFocus = 0;
  getFocusImagePerChannel(stream, referenceChannelIndex, kFirstTimePoint, s.numZ, s.numRows,
                          s.numCols, kFocusRowDivisions, kFocusColumnDivisions, section.data(),
                          &referenceFocus);
  Plane reference = cleanedPlane(section, s);
  printf("Channel Focus Of Z Section: %d\n\n", referenceFocus);
  reportProgress(kReferenceProgress, s.numChannels);

  const CalibrationRun run{s,           reference.rows.data(), referenceFocus, numIteration,
                           errThreshold, linearFlag,            highOrderFlag};
  std::vector<std::unique_ptr<ChannelJob>> jobs;
  for (int c = 0; c < s.numChannels; ++c) {
    if (c == referenceChannelIndex) continue;  // no message, not counted
    jobs.push_back(std::make_unique<ChannelJob>());
    jobs.back()->channel = c;
  }
  ChannelPublisher publisher(jobs, s.numChannels, rows);
  readAndFitChannels(stream, run, jobs, publisher, section);
  publisher.publishReady();
  stopAtFirstFailure(stream, jobs);
  rows.push_back(finalRow(referenceWavelength, linearFlag, s));
}

void performCalibration(char* pathInput, char* pathOutput, int referenceChannelIndex,
                        int numIteration, double errThreshold, int linearFlag, int highOrderFlag) {
  if (IMOpen(kInputStream, pathInput, "ro") != 0) {
    puts("Can Not Open QF Input File\n");
    fflush(stdout);
    exit(1);
  }
  puts("QF Input File Opened\n");
  fflush(stdout);

  std::vector<std::vector<double>> rows;
  performCalibrationPerFile(kInputStream, referenceChannelIndex, numIteration, errThreshold,
                            linearFlag, highOrderFlag, rows);

  // A failed close prints both lines, and the run goes on: kept as it is.
  if (IMClose(kInputStream) != 0) {
    puts("Can Not Close QF Input File\n");
    fflush(stdout);
  }
  puts("QF Input File Closed\n");
  fflush(stdout);

  writeAlignmentParameter(pathOutput, rows);
}
