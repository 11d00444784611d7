// Console output that can be held back: work that runs ahead of its turn
// keeps what it prints, in order and with its stream, until the turn comes.
#include <cstdio>
#include <string>
#include <utility>

#include "app/settings.h"

namespace {

// Where the calling thread's output goes while it holds it; null prints.
thread_local HeldOutput* heldOutput = nullptr;

}  // namespace

void HeldOutput::append(std::FILE* stream, const std::string& text) {
  if (!chunks_.empty() && chunks_.back().first == stream) {
    chunks_.back().second += text;
    return;
  }
  chunks_.emplace_back(stream, text);
}

void HeldOutput::print() const {
  for (const auto& [stream, text] : chunks_) consolePrint(stream, text);
}

void HeldOutput::write() const {
  for (const auto& [stream, text] : chunks_) {
    std::fputs(text.c_str(), stream);
    std::fflush(stream);
  }
}

void consolePrint(std::FILE* stream, const std::string& text) {
  if (heldOutput != nullptr) {
    heldOutput->append(stream, text);
    return;
  }
  std::fputs(text.c_str(), stream);
  std::fflush(stream);
}

void holdOutput(HeldOutput& into, const std::function<void()>& work) {
  HeldOutput* const outer = heldOutput;
  heldOutput = &into;
  try {
    work();
  } catch (...) {
    heldOutput = outer;
    throw;
  }
  heldOutput = outer;
}
