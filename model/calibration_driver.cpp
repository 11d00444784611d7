// The calibration driver: from a target stack to the alignment parameter file.
// Per channel it takes the best-focus section, cleans it, iterates fit and
// warp against the reference channel's section, keeps the best pass, and
// turns the result into a row in physical units. The output file is opened
// only after every channel has been analysed, so a run that stops leaves no
// new output behind.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
    stopReading(stream, "performCalibrationPerFile: IMRtWav2 failed.\n");
  }
  return wavelength;
}

// The channel's best-focus section, widened into `plane` and cleaned there.
// Returns the focus index.
int prepareChannelFocus(int stream, int channel, const CalibrationStack& s,
                        std::vector<float>& section, Plane& plane) {
  int focusIndex = 0;
  getFocusImagePerChannel(stream, channel, kFirstTimePoint, s.numZ, s.numRows, s.numCols,
                          kFocusRowDivisions, kFocusColumnDivisions, section.data(), &focusIndex);
  std::copy(section.begin(), section.end(), plane.pixels.begin());
  prepareFocusImage(plane.pixels.data(), s.numRows, s.numCols);
  return focusIndex;
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
  Plane reference = makePlane(s.numRows, s.numCols);
  const int referenceFocus =
      prepareChannelFocus(stream, referenceChannelIndex, s, section, reference);
  printf("Channel Focus Of Z Section: %d\n\n", referenceFocus);
  reportProgress(kReferenceProgress, s.numChannels);

  Plane channel = makePlane(s.numRows, s.numCols);
  const double centreX = std::floor(s.numCols * 0.5);
  const double centreY = std::floor(s.numRows * 0.5);
  double progress = 1.0;
  for (int c = 0; c < s.numChannels; ++c) {
    if (c == referenceChannelIndex) continue;  // no message, not counted
    double meanError = kNoMeasurement, errorDeviation = kNoMeasurement;
    const float wavelength = readWavelength(stream, c);
    printf("Calibrating Channel %d Started\n", truncateToInt(wavelength));
    fflush(stdout);
    double parameters[kNumModelParameters];
    setStartParameters(parameters, centreX, centreY, linearFlag);

    puts("Locating Channel Focus Of Z Section...");
    fflush(stdout);
    const int focus = prepareChannelFocus(stream, c, s, section, channel);
    printf("Channel Focus Of Z Section: %d\n", focus);
    fflush(stdout);

    performCalibrationPerChannel(channel.rows.data(), reference.rows.data(), s.numRows, s.numCols,
                                 numIteration, errThreshold, linearFlag, highOrderFlag, parameters,
                                 &meanError, &errorDeviation);
    printf("Calibrating Channel %d Completed\n\n", truncateToInt(wavelength));
    fflush(stdout);

    AlignmentParameterRow row = assembleChannelRow(
        wavelength, linearFlag, meanError, errorDeviation, focus - referenceFocus, parameters);
    scaleRowToPhysicalUnits(row, s, linearFlag);
    rows.push_back(row);
    reportProgress(progress, s.numChannels);
    progress += 1.0;
  }
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
