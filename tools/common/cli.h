// Command-line helpers shared by the generator and the assessment tool: the
// usage error and the reading of a number given to an option.
#pragma once

#include <string>

namespace cli {

// Exit status of a command line that cannot be used.
constexpr int kUsageError = 2;

// Prints "<program>: <message>" and a pointer to --help on standard error,
// then ends the process with kUsageError.
[[noreturn]] void usageError(const char* program, const std::string& message);

// The whole of `text` as a finite number; anything else is a usage error
// naming the option.
double parseNumber(const char* program, const char* text, const char* option);

}  // namespace cli
