// Runs the small host written in C.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session_support.h"

namespace {

struct Ran {
  int status;
  std::string output;
};

Ran runHost(const std::string& arguments) {
  const std::string command =
      std::string("OMP_NUM_THREADS=1 '" ZEM_TEST_C_HOST "' ") + arguments + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("popen failed");
  std::string output;
  std::array<char, 4096> chunk{};
  while (const size_t n = std::fread(chunk.data(), 1, chunk.size(), pipe)) {
    output.append(chunk.data(), n);
  }
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

std::string quoted(const char* path) { return std::string("'").append(path).append("' "); }

TEST(CHostTest, HoldsAConversation) {
  const zemtest::ModelFile model{zemtest::endlessModel()};
  const Ran ran = runHost(quoted(zemtest::kModulePath) + quoted(model.path()));
  EXPECT_EQ(ran.status, 0) << ran.output;
  EXPECT_THAT(ran.output, testing::HasSubstr("plug-in runtime-qwen35-vulkan\n"));
  EXPECT_THAT(ran.output, testing::HasSubstr("missing file: zem open failed\n"));
  EXPECT_THAT(ran.output, testing::HasSubstr("streamed 3 pieces, "));
  EXPECT_THAT(ran.output, testing::HasSubstr(" tokens\n"));
  EXPECT_THAT(ran.output, testing::HasSubstr("done\n"));
}

TEST(CHostTest, SaysWhyAModelDoesNotOpen) {
  const Ran ran = runHost(quoted(zemtest::kModulePath) + "/dev/null");
  EXPECT_EQ(ran.status, 1);
  EXPECT_THAT(ran.output, testing::HasSubstr("failed: zem open failed\n"));
}

}  // namespace
