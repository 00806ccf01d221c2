// SPDX-License-Identifier: Apache-2.0
#include "compat/zem_compat.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>

#include "compat/files.h"
#include "gtest/gtest.h"
#include "support/temp_file.h"
#include "support/temp_folder.h"

namespace {

// The current folder for the length of a test.
class CurrentFolder {
 public:
  explicit CurrentFolder(const std::filesystem::path& folder)
      : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(folder);
  }
  ~CurrentFolder() { std::filesystem::current_path(before_); }
  CurrentFolder(const CurrentFolder&) = delete;
  CurrentFolder& operator=(const CurrentFolder&) = delete;

 private:
  std::filesystem::path before_;
};

TEST(ZemCompatTest, TheCurrentFolderIsUtf8) {
  const zemtest::TempFolder temp;
  const auto inner = compat::pathOf(temp.path("")) / compat::pathOf("\xC3\xA4 \xE4\xBD\xA0");
  std::filesystem::create_directory(inner);
  const CurrentFolder current(inner);
  std::array<char, 4097> buffer;
  ASSERT_EQ(zemCompatGetcwd(buffer.data(), buffer.size() - 1), 0);
  EXPECT_EQ(std::string(buffer.data()), compat::nameOf(std::filesystem::current_path()));
  EXPECT_TRUE(std::string(buffer.data()).ends_with("\xC3\xA4 \xE4\xBD\xA0"));
}

TEST(ZemCompatTest, AFolderThatDoesNotFitIsAFailure) {
  std::array<char, 4097> whole;
  ASSERT_EQ(zemCompatGetcwd(whole.data(), whole.size() - 1), 0);
  const size_t length = std::strlen(whole.data());
  std::array<char, 4097> buffer;
  EXPECT_EQ(zemCompatGetcwd(buffer.data(), length - 1), -1);
  EXPECT_EQ(zemCompatGetcwd(buffer.data(), 1), -1);
  EXPECT_EQ(zemCompatGetcwd(buffer.data(), 0), -1);
  EXPECT_EQ(zemCompatGetcwd(buffer.data(), length + 1), 0);
}

#if defined(_WIN32)
TEST(ZemCompatOnWindows, TheTerminatorMayLandBehindTheSize) {
  std::array<char, 4097> buffer;
  ASSERT_EQ(zemCompatGetcwd(buffer.data(), buffer.size() - 1), 0);
  const std::string folder = buffer.data();
  buffer.fill('#');
  ASSERT_EQ(zemCompatGetcwd(buffer.data(), folder.size()), 0);
  EXPECT_EQ(buffer[folder.size()], '\0');
  EXPECT_EQ(std::string(buffer.data()), folder);
}
#endif

TEST(ZemCompatTest, FilesAndWhatIsNotOpenAreNoTerminals) {
  const zemtest::TempFile file({1});
  const int fd = compat::openToRead(file.path());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(zemCompatIsatty(fd), 0);
  ::close(fd);
  EXPECT_EQ(zemCompatIsatty(fd), 0);
  EXPECT_EQ(zemCompatIsatty(-1), 0);
}

TEST(ZemCompatTest, SleepsAtLeastAsLongAsAsked) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  zemCompatSleepMs(0);
  zemCompatSleepMs(30);
  // Windows counts in ticks of its own clock.
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(14));
}

}  // namespace
