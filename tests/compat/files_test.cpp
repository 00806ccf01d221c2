// SPDX-License-Identifier: Apache-2.0
#include "compat/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "compat/mman.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kiv/container/mapped_file.h"
#include "support/temp_folder.h"

#if defined(_WIN32)
#include <windows.h>

#include "compat/text_windows.h"
#endif

namespace {

namespace fs = std::filesystem;

// Latin, Chinese and one beyond the Basic Multilingual Plane.
const std::string kName = "z\xC3\xA4hl \xE4\xBD\xA0\xE5\xA5\xBD \xF0\x9F\x98\x80";

class FilesTest : public ::testing::Test {
 protected:
  std::string in(const std::string& name) const {
    return compat::nameOf(compat::pathOf(folder_.path("")) / compat::pathOf(name));
  }
  static std::string content(const std::string& name) {
    std::FILE* file = compat::openStream(name.c_str(), "rb");
    if (file == nullptr) return "(missing)";
    std::array<char, 100> bytes;
    const std::string text(bytes.data(), std::fread(bytes.data(), 1, bytes.size(), file));
    std::fclose(file);
    return text;
  }
  static void write(const std::string& name, const std::string& text) {
    std::FILE* file = compat::openStream(name.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
  }

  zemtest::TempFolder folder_;
};

TEST_F(FilesTest, NamesArePathsAndBack) {
  for (const std::string& name : {std::string("a.txt"), kName, std::string()}) {
    EXPECT_EQ(compat::nameOf(compat::pathOf(name)), name);
  }
}

TEST_F(FilesTest, NamesBeyondAsciiReachTheDiskAsTheyAre) {
  write(in(kName), "text\r\n\x1A!");
  EXPECT_EQ(content(in(kName)), "text\r\n\x1A!");  // bytes: no line ends, no end mark
  const int fd = compat::openToRead(in(kName).c_str());
  ASSERT_GE(fd, 0);
  std::array<char, 100> bytes;
  EXPECT_EQ(::read(fd, bytes.data(), bytes.size()), 8);
  ::close(fd);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(compat::pathOf(folder_.path("")))) {
    names.push_back(compat::nameOf(entry.path().filename()));
  }
  EXPECT_THAT(names, testing::ElementsAre(kName));
  kiv::MappedFile mapped;
  ASSERT_TRUE(mapped.open(in(kName)).ok());
  EXPECT_EQ(mapped.size(), 8U);
}

TEST_F(FilesTest, WhatIsMissingIsNamedByErrno) {
  EXPECT_EQ(compat::openToRead(in("missing").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(compat::openToRead(in("missing/file").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(compat::openToRead(""), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(compat::openStream(in("missing").c_str(), "rb"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(compat::removeFile(in("missing").c_str()));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(compat::moveOver(in("missing").c_str(), in("other").c_str()));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FilesTest, OnlyANewFileIsCreated) {
  const int fd = compat::createToWrite(in(kName).c_str());
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(compat::writeAt(fd, "abcdef", 6, 0));
  EXPECT_TRUE(compat::writeAt(fd, "XY", 2, 2));
  EXPECT_TRUE(compat::writeAt(fd, "!", 1, 8));  // behind the end: zeros lie between
  EXPECT_TRUE(compat::writeAt(fd, nullptr, 0, 100));
  EXPECT_TRUE(compat::syncToDisk(fd));
  ::close(fd);
  EXPECT_EQ(content(in(kName)), std::string("abXYef\0\0!", 9));
  EXPECT_EQ(compat::createToWrite(in(kName).c_str()), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(compat::createToWrite(in("missing/file").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FilesTest, OffsetsGoBeyondFourGiB) {
  const int fd = compat::createToWrite(in("huge").c_str());
  ASSERT_GE(fd, 0);
  constexpr uint64_t kOffset = (uint64_t{1} << 32) + 5;
  if (!compat::writeAt(fd, "x", 1, kOffset)) {
    const int reason = errno;
    ::close(fd);
    // Anything else is a mistake in writeAt().
    ASSERT_TRUE(reason == EFBIG || reason == ENOSPC) << reason;
    GTEST_SKIP() << "this disk takes no file of 4 GiB";
  }
  ::close(fd);
  EXPECT_EQ(fs::file_size(compat::pathOf(in("huge"))), kOffset + 1);
}

TEST_F(FilesTest, WritingToADescriptorOfNothingFails) {
  EXPECT_FALSE(compat::writeAt(-1, "x", 1, 0));
  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(compat::syncToDisk(-1));
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FilesTest, AFileMovesOverAnother) {
  write(in("a"), "new");
  write(in(kName), "old");
  ASSERT_TRUE(compat::moveOver(in("a").c_str(), in(kName).c_str()));
  EXPECT_EQ(content(in(kName)), "new");
  EXPECT_EQ(content(in("a")), "(missing)");
}

// A file is replaced while somebody reads the old one, who goes on reading it.
TEST_F(FilesTest, AFileMovesOverOneThatIsOpen) {
  write(in("a"), "new");
  write(in("b"), "old");
  const int fd = compat::openToRead(in("b").c_str());
  ASSERT_GE(fd, 0);
  const bool moved = compat::moveOver(in("a").c_str(), in("b").c_str());
#if defined(_WIN32)
  // Windows may refuse it. Then both are as they were.
  if (!moved) {
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(content(in("a")), "new");
  }
#else
  EXPECT_TRUE(moved);
#endif
  std::array<char, 10> bytes;
  EXPECT_EQ(std::string(bytes.data(), static_cast<size_t>(::read(fd, bytes.data(), bytes.size()))),
            "old");
  ::close(fd);
  EXPECT_EQ(content(in("b")), moved ? "new" : "old");
}

// Folders with names of any length, for which Windows' standard library may be too old.
#if defined(_WIN32)
bool makeFolder(const std::string& name) {
  std::wstring wide;
  return compat::toWideName(name, wide) && ::CreateDirectoryW(wide.c_str(), nullptr) != 0;
}
bool removeFolder(const std::string& name) {
  std::wstring wide;
  return compat::toWideName(name, wide) && ::RemoveDirectoryW(wide.c_str()) != 0;
}
#else
bool makeFolder(const std::string& name) { return ::mkdir(name.c_str(), 0700) == 0; }
bool removeFolder(const std::string& name) { return ::rmdir(name.c_str()) == 0; }
#endif

TEST_F(FilesTest, NamesMayBeLongerThanWindowsUsuallyTakes) {
  std::vector<std::string> folders = {folder_.path("")};
  for (const char letter : {'a', 'b', 'c'}) {
    folders.push_back(folders.back() + "/" + std::string(100, letter));
    ASSERT_TRUE(makeFolder(folders.back())) << folders.back();
  }
  const std::string name = folders.back() + "/" + kName;
  const int fd = compat::createToWrite(name.c_str());
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(compat::writeAt(fd, "long", 4, 0));
  ::close(fd);
  EXPECT_EQ(content(name), "long");
  EXPECT_TRUE(compat::removeFile(name.c_str()));
  // Innermost first; the outermost goes with the test.
  for (size_t i = folders.size(); --i > 0;) EXPECT_TRUE(removeFolder(folders[i])) << folders[i];
}

#if defined(_WIN32)
TEST_F(FilesTest, ANameThatIsNotUtf8IsRefused) {
  for (const char* name : {"\xFF", "a\xC3", "\xED\xA0\x80"}) {
    EXPECT_EQ(compat::openToRead(name), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(compat::createToWrite(name), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(compat::openStream(name, "rb"), nullptr);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_FALSE(compat::removeFile(name));
    EXPECT_FALSE(compat::moveOver(name, name));
  }
  EXPECT_EQ(compat::nameOf(compat::pathOf("a\xFF"
                                          "b")),
            "a\xEF\xBF\xBD"
            "b");
}
#endif

}  // namespace
