// Run control: the global settings of one run, the command-line parser that
// fills them, the status file writer, the signal handler, and the carrying of
// failures out of parallel loops to the program's handler.
//
// The settings are written once by validateArgument and only read afterwards.
// Paths are not copied: they point into the process's argument vector.
#pragma once

#include <cstdio>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

extern int calibration;
extern char* pathInputFileCalibrationQF;
extern char* pathOutputFileCalibrationTXT;
extern int linearModelFittingFlag;
extern int highOrderFittingFlag;
extern int indexTargetChannel;
extern int numIteration;
extern double errThreshold;
extern double gridThreshold;
extern char* pathInputFileCorrectionQF;
extern char* pathInputFileCorrectionTXT;
extern char* pathOutputFileCorrectionQF;
extern std::vector<double> zShiftPerChannel;
extern char* pathStatusFile;

// Fills the globals from the command line, or prints the usage or a check
// message and ends the process. An output or status file that is one of the
// run's input files (the same file, however named) is refused here, before
// anything is written. Returns only with an accepted command line.
void validateArgument(int argc, char** argv);

// Prints both usage texts to standard output.
void printUsage(const char* programName);

// Removes the output of the run, records the failure in the status file and
// exits with status 1. Installed for SIGINT, SIGILL, SIGSEGV and SIGTERM.
void signalHandler(int);

// Rewrites the status file whole as "%.2f\n%s". Does nothing without a path
// or when the file cannot be opened.
void updateStatus(const char* path, const char* message, double percent);

// Carries the first exception thrown on any thread of a parallel region out
// of it. An exception may not leave a region: one that did would end the
// process at once, without the run's own message (a failed allocation on a
// worker thread, say). Wrap each unit of work in guard(); call rethrow() once
// the region has ended.
class RegionFailure {
 public:
  template <class Work>
  void guard(Work&& work) noexcept {
    try {
      work();
    } catch (...) {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!first_) first_ = std::current_exception();
    }
  }
  void rethrow() const {
    if (first_) std::rethrow_exception(first_);
  }

 private:
  std::mutex mutex_;
  std::exception_ptr first_;
};

// What a piece of work printed while its output was held: text in order,
// each part with its stream.
class HeldOutput {
 public:
  void append(std::FILE* stream, const std::string& text);
  // Prints it all, through consolePrint: into the caller's own hold, if any.
  void print() const;
  // Writes it all to its streams, whatever the caller holds.
  void write() const;

 private:
  std::vector<std::pair<std::FILE*, std::string>> chunks_;
};

// Writes `text` to `stream` and flushes it; while the calling thread runs
// work under holdOutput, appends it to that work's HeldOutput instead. Work
// that may run ahead of its turn (spot fits on several threads, channels
// calibrated at once) prints through this, so that the console reads as
// after a run on one thread.
void consolePrint(std::FILE* stream, const std::string& text);

// Runs `work` on the calling thread with its console output added to `into`.
void holdOutput(HeldOutput& into, const std::function<void()>& work);
