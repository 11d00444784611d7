// Command-line helpers shared by the generator and the assessment tool.
#include "tools/common/cli.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace cli {

void usageError(const char* program, const std::string& message) {
  std::fprintf(stderr, "%s: %s\n(see %s --help)\n", program, message.c_str(), program);
  std::exit(kUsageError);
}

double parseNumber(const char* program, const char* text, const char* option) {
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(v)) {
    usageError(program, std::string("--") + option + ": '" + text + "' is not a number");
  }
  return v;
}

}  // namespace cli
