// SPDX-License-Identifier: Apache-2.0
// Runs the small host written in C.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"
#include "support/platform.h"
#include "support/scoped_env.h"

#ifndef _WIN32
#include <sys/wait.h>
#endif

namespace {

struct Ran {
  int status;
  std::string output;
};

#ifdef _WIN32

std::string quoted(const char* path) { return std::string("\"").append(path).append("\" "); }
// The shell takes the outermost quotes away.
std::string commandLine(const std::string& rest) { return "\"" + rest + " 2>&1\""; }
FILE* openPipe(const std::string& command) { return _popen(command.c_str(), "rt"); }
int exitStatus(FILE* pipe) { return _pclose(pipe); }

#else

std::string quoted(const char* path) { return std::string("'").append(path).append("' "); }
std::string commandLine(const std::string& rest) { return rest + " 2>&1"; }
FILE* openPipe(const std::string& command) { return popen(command.c_str(), "r"); }
int exitStatus(FILE* pipe) {
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#endif

Ran runHost(const std::string& arguments) {
  const zemtest::ScopedEnv oneThread("OMP_NUM_THREADS", "1");
  FILE* pipe = openPipe(commandLine(quoted(ZEM_TEST_C_HOST) + arguments));
  if (pipe == nullptr) throw std::runtime_error("popen failed");
  std::string output;
  std::array<char, 4096> chunk{};
  while (const size_t n = std::fread(chunk.data(), 1, chunk.size(), pipe)) {
    output.append(chunk.data(), n);
  }
  return {exitStatus(pipe), output};
}

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
  const Ran ran = runHost(quoted(zemtest::kModulePath) + zemtest::kDevice);
  EXPECT_EQ(ran.status, 1);
  EXPECT_THAT(ran.output, testing::HasSubstr("failed: zem open failed\n"));
}

}  // namespace
