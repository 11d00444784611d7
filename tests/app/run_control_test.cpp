// Signals and the status file, on the built binary. The input is a FIFO with
// no writer, so the driver blocks opening it and the run is caught mid-way.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/testutil.h"

namespace {

using testutil::fileExists;
using testutil::readFile;
using testutil::ScratchDir;
using testutil::writeFile;

TEST(SignalDuringRun, RemovesOutputAndRecordsFailure) {
  struct Case {
    bool calibrationMode;
    int signalNumber;
    bool withStatusFile;
  } const cases[] = {{true, SIGINT, true},
                     {true, SIGSEGV, true},
                     {false, SIGTERM, true},
                     {false, SIGILL, true},
                     {false, SIGTERM, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.calibrationMode << " " << c.signalNumber);
    ScratchDir dir;
    const std::string fifo = dir.file("blocking.qf");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string output = dir.file(c.calibrationMode ? "out.txt" : "out.qf");
    const std::string status = dir.file("status");
    writeFile(output, "left by an earlier run");
    std::vector<std::string> args =
        c.calibrationMode ? std::vector<std::string>{"calibration", fifo, output}
                          : std::vector<std::string>{"correction", fifo, fifo, output};
    if (c.withStatusFile) args.insert(args.end(), {"-statusFile", status});
    const auto result = testutil::runAndSignal(CORVANE_BIN, args, c.signalNumber,
                                               c.withStatusFile ? status : "", 1.0);
    const std::string mode = c.calibrationMode ? "Calibration" : "Correction";
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.out, mode + " Started\n\n");
    EXPECT_EQ(result.err, "");
    EXPECT_FALSE(fileExists(output));
    if (c.withStatusFile) {
      EXPECT_EQ(readFile(status), "0.00\n" + mode + " failed or was terminated. Output removed.");
    }
  }
}

// A failure inside a driver keeps the last progress record and the output.
TEST(StatusFile, FailureKeepsLastRecord) {
  ScratchDir dir;
  const std::string status = dir.file("status");
  auto result = testutil::run(CORVANE_BIN, {"calibration", dir.file("missing.qf"),
                                            dir.file("out.txt"), "-statusFile", status});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(readFile(status), "0.00\nCalibration Started");
}

}  // namespace
