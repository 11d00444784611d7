// The program's entry: parse the command line, install the signal handler,
// run one mode inside the exception handling, report start and end.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "app/settings.h"
#include "correction/correction.h"
#include "model/model.h"

namespace {

void announce(const char* consoleText, const char* statusText, double percent) {
  puts(consoleText);
  fflush(stdout);
  updateStatus(pathStatusFile, statusText, percent);
}

void runCalibrationSequence() {
  announce("Calibration Started\n", "Calibration Started", 0.0);
  performCalibration(pathInputFileCalibrationQF, pathOutputFileCalibrationTXT, indexTargetChannel,
                     numIteration, errThreshold, linearModelFittingFlag, highOrderFittingFlag);
  announce("Calibration Completed\n", "Calibration Completed", 100.0);
}

void runCorrectionSequence() {
  announce("Correction Started\n", "Correction Started", 0.0);
  performCorrection(pathInputFileCorrectionTXT, pathInputFileCorrectionQF,
                    pathOutputFileCorrectionQF);
  announce("Correction Completed\n", "Correction Completed", 100.0);
}

}  // namespace

int main(int argc, char** argv) {
  validateArgument(argc, argv);

  signal(SIGINT, signalHandler);
  signal(SIGILL, signalHandler);
  signal(SIGSEGV, signalHandler);
  signal(SIGTERM, signalHandler);

  // Neither handler touches the status file or the output: only the signal
  // handler reports failure there.
  try {
    if (calibration)
      runCalibrationSequence();
    else
      runCorrectionSequence();
  } catch (const std::bad_alloc&) {
    fprintf(stderr, "Corvane: failed memory allocation. \n");
    exit(1);
  } catch (const std::exception& e) {
    fprintf(stderr, "Corvane: unexpected exception %s \n", e.what());
    exit(1);
  }
  return 0;
}
