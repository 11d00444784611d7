// Fuzz target of the command-line parser of both modes: the input, cut at NUL
// bytes, is argv[1] onwards. The parser ends the process on every refusal, so
// the target is linked with exit wrapped (-Wl,--wrap=exit) and jumps back from
// it; the parser's frames hold nothing that needs unwinding. An unknown option
// of the correction grammar makes the scan compare the same argument without
// end, as designed, so such command lines are recognised here and skipped.
//
// Built outside the main build by scripts/fuzz-build.sh with libFuzzer.
#include <csetjmp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/settings.h"

namespace {

constexpr int kMaxArgs = 20;  // beyond both modes' limits
constexpr int kCorrectionOptionsStart = 5;
constexpr int kCorrectionMaxArgs = 9;

std::jmp_buf gExitJump;
bool gExitArmed = false;

void resetSettings() {
  calibration = 0;
  pathInputFileCalibrationQF = pathOutputFileCalibrationTXT = nullptr;
  pathInputFileCorrectionQF = pathInputFileCorrectionTXT = pathOutputFileCorrectionQF = nullptr;
  pathStatusFile = nullptr;
  linearModelFittingFlag = highOrderFittingFlag = indexTargetChannel = 0;
  numIteration = 5;
  errThreshold = 0.5;
  gridThreshold = 0.995;
  zShiftPerChannel.clear();
}

bool named(const char* arg, const char* option) {
  return arg[0] == '-' && !strcmp(arg + 1, option);
}

// True when the correction grammar would scan forever on this command line.
bool correctionScanHangs(int argc, char** argv) {
  if (argc <= kCorrectionOptionsStart || argc > kCorrectionMaxArgs) return false;
  if (strcmp(argv[1], "correction") != 0) return false;
  int i = kCorrectionOptionsStart;
  while (i < argc) {
    if (argv[i][0] != '-') return false;
    if (!named(argv[i], "statusFile") && !named(argv[i], "zShift")) return true;
    if (i + 1 >= argc) return false;
    i += 2;
  }
  return false;
}

}  // namespace

extern "C" [[noreturn]] void __real_exit(int status);
extern "C" [[noreturn]] void __wrap_exit(int status) {
  if (gExitArmed) {
    gExitArmed = false;
    std::longjmp(gExitJump, 1);
  }
  __real_exit(status);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Mutable copies: the -zShift value is cut in place.
  std::vector<std::string> args{"corvane"};
  std::string current;
  for (size_t k = 0; k < size && args.size() < kMaxArgs; ++k) {
    if (data[k] == 0) {
      args.push_back(current);
      current.clear();
    } else {
      current.push_back(static_cast<char>(data[k]));
    }
  }
  if (!current.empty() && args.size() < kMaxArgs) args.push_back(current);
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  const int argc = static_cast<int>(args.size());
  if (correctionScanHangs(argc, argv.data())) return 0;

  resetSettings();
  if (setjmp(gExitJump) == 0) {
    gExitArmed = true;
    validateArgument(argc, argv.data());
  }
  gExitArmed = false;
  return 0;
}
