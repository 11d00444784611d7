// Helpers shared by the test suites: running the built binary as a user
// would, and scratch directories that clean up after themselves.
#pragma once

#include <string>
#include <vector>

namespace testutil {

struct RunResult {
  std::string out;
  std::string err;
  int exitStatus = -1;  // -1 when the process did not exit normally
  bool timedOut = false;
};

// Runs `program` with `args` (argv[1..]), no standard input, and waits at most
// `timeoutSeconds`; a process still running then is killed and marked timedOut.
RunResult run(const std::string& program, const std::vector<std::string>& args,
              double timeoutSeconds = 60.0);

// Like run, but sends `signalNumber` once `triggerPath` has content (or after
// `maxWaitSeconds`), then waits for the process to end.
RunResult runAndSignal(const std::string& program, const std::vector<std::string>& args,
                       int signalNumber, const std::string& triggerPath,
                       double maxWaitSeconds = 30.0);

// A fresh directory under /tmp, removed with its contents on destruction.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);
bool fileExists(const std::string& path);

}  // namespace testutil
