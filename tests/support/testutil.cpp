// Process and file helpers for the tests; see testutil.h.
#include "support/testutil.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testutil {
namespace {

// Runs `program` with its output going to files, calls `onTick(pid, seconds)`
// every few milliseconds while it runs, and kills it at the deadline.
template <typename Tick>
RunResult runWith(const std::string& program, const std::vector<std::string>& args,
                  double timeoutSeconds, Tick onTick) {
  ScratchDir dir;
  const std::string out = dir.file("out"), err = dir.file("err");
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT, 0600), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0600), 2);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  RunResult result;
  const auto start = std::chrono::steady_clock::now();
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (elapsed.count() >= timeoutSeconds) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      result.timedOut = true;
      break;
    }
    onTick(pid, elapsed.count());
    usleep(10 * 1000);
  }
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = readFile(out);
  result.err = readFile(err);
  return result;
}

}  // namespace

RunResult run(const std::string& program, const std::vector<std::string>& args,
              double timeoutSeconds) {
  return runWith(program, args, timeoutSeconds, [](pid_t, double) {});
}

RunResult runAndSignal(const std::string& program, const std::vector<std::string>& args,
                       int signalNumber, const std::string& triggerPath, double maxWaitSeconds) {
  bool sent = false;
  return runWith(program, args, maxWaitSeconds + 30.0, [&](pid_t pid, double seconds) {
    const bool triggered = !triggerPath.empty() && !readFile(triggerPath).empty();
    if (sent || (!triggered && seconds <= maxWaitSeconds)) return;
    usleep(200 * 1000);  // let the writer of the trigger file finish first
    kill(pid, signalNumber);
    sent = true;
  });
}

ScratchDir::ScratchDir() {
  char pattern[] = "/tmp/corvane-test-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool fileExists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(path, ignored);
}

}  // namespace testutil
