// The program's entry: parse the command line, install the signal handler,
// run one mode inside the exception handling, report start and end.
#include <unistd.h>

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

// Threads without work sleep at once instead of spinning: between the
// parallel stretches of a run a spinning thread takes a core from the thread
// still working, and on a shared machine from everyone else. The OpenMP
// runtime reads its settings before main, so the program starts itself once
// more with the setting in its environment; a caller's own setting stands,
// and where the restart is impossible the run goes on as it is.
void sleepWhileWaiting(char** argv) {
  if (getenv("OMP_WAIT_POLICY") != nullptr || getenv("GOMP_SPINCOUNT") != nullptr) return;
  if (setenv("OMP_WAIT_POLICY", "passive", 0) != 0) return;
  execv("/proc/self/exe", argv);
}

}  // namespace

int main(int argc, char** argv) {
  sleepWhileWaiting(argv);
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
