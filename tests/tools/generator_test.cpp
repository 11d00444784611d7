// The target generator as a user runs it: its refusals, and a seed that
// fixes the output bytes whatever the number of threads.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/testutil.h"

namespace {

TEST(GeneratorTest, CommandLineAndSameSeedSameBytesWhateverTheThreads) {
  testutil::ScratchDir dir;
  // 4 channels of 7 sections: the parallel writer's last batch is a partial one.
  auto generate = [&](const std::string& out, const std::string& seed, const std::string& threads) {
    const testutil::RunResult r = testutil::run(
        CORVANE_SYNTH_BIN,
        {"--size", "160x96", "--sections", "7", "--quiet", "--max-z-offset", "2", "--model",
         "linear", "--high-order", "--seed", seed, "--threads", threads, dir.file(out)});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
  };
  generate("a", "5", "1");
  generate("b", "5", "2");
  generate("c", "6", "2");
  for (const char* file : {"target.qf", "specimen.qf", "truth.txt", "truth.json"}) {
    EXPECT_EQ(testutil::readFile(dir.file("a/") + file), testutil::readFile(dir.file("b/") + file))
        << file;
  }
  EXPECT_NE(testutil::readFile(dir.file("a/target.qf")),
            testutil::readFile(dir.file("c/target.qf")));
  const nlohmann::json truth = nlohmann::json::parse(testutil::readFile(dir.file("a/truth.json")));
  EXPECT_EQ(truth["seed"], 5);
  EXPECT_EQ(truth["model"], "linear");
  EXPECT_EQ(truth["channels"].size(), 4u);

  const testutil::RunResult help = testutil::run(CORVANE_SYNTH_BIN, {"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("99.5th"), std::string::npos);
  const std::vector<std::pair<std::vector<std::string>, const char*>> refused = {
      {{"--high-order", dir.path()}, "linear model"},
      {{"--sections", "4", dir.path()}, "do not fit"},
      {{"--channel", "0:tx=1", dir.path()}, "reference channel"},
      {{"--channel", "1:dz=0.5", dir.path()}, "whole number of sections"},
      {{"--bogus", dir.path()}, "bad option"},
      {{}, "OUTPUT_DIR"},
  };
  for (const auto& [args, message] : refused) {
    const testutil::RunResult result = testutil::run(CORVANE_SYNTH_BIN, args);
    EXPECT_EQ(result.exitStatus, 2) << message;
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
  }
}

}  // namespace
