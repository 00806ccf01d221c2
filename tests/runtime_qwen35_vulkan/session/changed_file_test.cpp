// SPDX-License-Identifier: Apache-2.0
// A model file that changes while a session has it mapped: docs/security.md.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"
#include "support/temp_folder.h"

namespace {

namespace fs = std::filesystem;

using zemtest::endlessModel;
using zemtest::linked;
using zemtest::TempFolder;

class ChangedFileTest : public testing::Test {
 protected:
  void SetUp() override {
    path_ = folder_.write("model.zem", endlessModel().build());
    const auto create = linked().v2->create;
    zemtest::stderrOf([&] { create(path_.c_str(), "host;ctx=30", &session_, nullptr, 0); });
    ASSERT_NE(session_, nullptr);
    ASSERT_EQ(generate(before_), 0);
  }
  void TearDown() override { linked().v2->destroy(session_); }

  int generate(std::string& text) const {
    char out[1024] = "";
    const int rc = linked().v2->generate(session_, "the", out, sizeof out);
    text = out;
    return rc;
  }

  // A death test's child: the signal handling that a host has, not a sanitizer's.
  void generateFromCutFile(void (*handler)(int)) const {
    std::signal(SIGBUS, handler);
    fs::resize_file(path_, 64);
    std::string text;
    generate(text);
  }

  TempFolder folder_;
  std::string path_;
  ZEMRuntimeHandle* session_ = nullptr;
  std::string before_;
};

using ChangedFileDeathTest = ChangedFileTest;

TEST_F(ChangedFileDeathTest, AFileThatIsCutEndsTheProcess) {
  EXPECT_EXIT(generateFromCutFile(SIG_DFL), testing::KilledBySignal(SIGBUS), "");
}

TEST_F(ChangedFileDeathTest, AHostsHandlerHasTheLastWord) {
  const auto handler = [](int /*signal*/) {
    constexpr char kText[] = "the model file was cut\n";
    (void)!::write(STDERR_FILENO, kText, sizeof kText - 1);
    ::_exit(7);
  };
  EXPECT_EXIT(generateFromCutFile(handler), testing::ExitedWithCode(7), "the model file was cut");
}

TEST_F(ChangedFileTest, AFileThatIsReplacedByNameIsNotMissed) {
  const std::string other = folder_.write("other", std::string_view("not a model"));
  fs::rename(other, path_);
  std::string after;
  EXPECT_EQ(generate(after), 0);
  EXPECT_EQ(after, before_);
}

TEST_F(ChangedFileTest, AFileThatIsRemovedIsNotMissed) {
  fs::remove(path_);
  std::string after;
  EXPECT_EQ(generate(after), 0);
  EXPECT_EQ(after, before_);
}

// Of a file of the same length only the weights are read again, and they may be
// anything.
TEST_F(ChangedFileTest, AFileThatIsOverwrittenChangesNumbersAlone) {
  const auto size = static_cast<size_t>(fs::file_size(path_));
  std::fstream(path_, std::ios::binary | std::ios::in | std::ios::out) << std::string(size, '\x3c');
  std::string after;
  const int rc = generate(after);
  EXPECT_TRUE(rc == 0 || rc == 1) << rc;
  EXPECT_NE(after, before_);
}

}  // namespace
