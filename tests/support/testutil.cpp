// Process and file helpers for the tests; see testutil.h.
#include "support/testutil.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testutil {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Child {
  pid_t pid = -1;
  int outFd = -1, errFd = -1;
};

Child spawn(const std::string& program, const std::vector<std::string>& args) {
  int outPipe[2], errPipe[2];
  if (pipe(outPipe) != 0 || pipe(errPipe) != 0) throw std::runtime_error("pipe failed");
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    close(outPipe[0]);
    close(errPipe[0]);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  for (int* p : {outPipe, errPipe}) {
    close(p[1]);
    fcntl(p[0], F_SETFL, O_NONBLOCK);
  }
  return Child{pid, outPipe[0], errPipe[0]};
}

// Moves whatever is ready on fd into sink; returns false at end of file.
bool drain(int fd, std::string& sink) {
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
      sink.append(buffer, static_cast<size_t>(n));
      continue;
    }
    return n < 0;  // EAGAIN: still open
  }
}

// Collects output until both pipes close or the deadline passes; calls
// `onTick` on every wake-up so a caller can act while the child runs.
template <typename Tick>
RunResult collect(Child child, double timeoutSeconds, Tick onTick) {
  RunResult result;
  auto start = Clock::now();
  bool outOpen = true, errOpen = true;
  while ((outOpen || errOpen) && secondsSince(start) < timeoutSeconds) {
    pollfd fds[2] = {{child.outFd, POLLIN, 0}, {child.errFd, POLLIN, 0}};
    poll(fds, 2, 20);
    if (outOpen) outOpen = drain(child.outFd, result.out);
    if (errOpen) errOpen = drain(child.errFd, result.err);
    onTick();
  }
  if (outOpen || errOpen) {
    kill(child.pid, SIGKILL);
    result.timedOut = true;
  }
  int status = 0;
  waitpid(child.pid, &status, 0);
  close(child.outFd), close(child.errFd);
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace

RunResult run(const std::string& program, const std::vector<std::string>& args,
              double timeoutSeconds) {
  return collect(spawn(program, args), timeoutSeconds, [] {});
}

RunResult runAndSignal(const std::string& program, const std::vector<std::string>& args,
                       int signalNumber, const std::string& triggerPath, double maxWaitSeconds) {
  Child child = spawn(program, args);
  auto start = Clock::now();
  bool sent = false;
  return collect(child, maxWaitSeconds + 30.0, [&] {
    bool triggered = !triggerPath.empty() && !readFile(triggerPath).empty();
    if (!sent && (triggered || secondsSince(start) > maxWaitSeconds)) {
      // Let the writer of the trigger file finish before interrupting it.
      usleep(200 * 1000);
      kill(child.pid, signalNumber);
      sent = true;
    }
  });
}

std::string corvaneBinary() {
  return CORVANE_BIN;
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
