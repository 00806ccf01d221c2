// SPDX-License-Identifier: Apache-2.0
#include "compat/replacing_file.h"

#include <string>
#include <vector>

#include "compat/files.h"
#include "compat/mman.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/temp_folder.h"

namespace {

using compat::ReplacingFile;
using testing::ElementsAre;
using testing::HasSubstr;

class ReplacingFileTest : public ::testing::Test {
 protected:
  bool put(ReplacingFile& file, const std::string& text) {
    return file.append(text.data(), text.size());
  }

  zemtest::TempFolder folder_;
  const std::string path_ = folder_.path("model");
};

TEST_F(ReplacingFileTest, NothingIsThereBeforeTheCommit) {
  ReplacingFile file;
  ASSERT_TRUE(file.open(path_)) << file.error();
  ASSERT_TRUE(put(file, "abc"));
  ASSERT_TRUE(file.flush());
  ASSERT_TRUE(file.overwrite(1, "X", 1));
  EXPECT_EQ(file.size(), 3U);
  EXPECT_EQ(folder_.names().size(), 1U);
  EXPECT_THAT(folder_.names()[0], HasSubstr("model.partial-"));
  ASSERT_TRUE(file.commit()) << file.error();
  EXPECT_THAT(folder_.names(), ElementsAre("model"));
  EXPECT_EQ(folder_.read("model"), "aXc");
}

TEST_F(ReplacingFileTest, AnOldFileStaysUntilTheCommit) {
  folder_.write("model", std::string_view("old"));
  ReplacingFile file;
  ASSERT_TRUE(file.open(path_));
  ASSERT_TRUE(put(file, "new"));
  ASSERT_TRUE(file.flush());
  EXPECT_EQ(folder_.read("model"), "old");
  ASSERT_TRUE(file.commit()) << file.error();
  EXPECT_EQ(folder_.read("model"), "new");
  EXPECT_THAT(folder_.names(), ElementsAre("model"));
}

TEST_F(ReplacingFileTest, WithoutACommitNothingIsLeft) {
  {
    ReplacingFile file;
    ASSERT_TRUE(file.open(path_));
    ASSERT_TRUE(put(file, "abc"));
    ASSERT_TRUE(file.flush());
  }
  EXPECT_THAT(folder_.names(), ElementsAre());
  ReplacingFile file;
  ASSERT_TRUE(file.open(path_));
  file.discard();
  file.discard();
  EXPECT_THAT(folder_.names(), ElementsAre());
}

TEST_F(ReplacingFileTest, TheLastOfTwoWritersWins) {
  ReplacingFile one;
  ReplacingFile two;
  ASSERT_TRUE(one.open(path_));
  ASSERT_TRUE(two.open(path_));
  ASSERT_TRUE(put(one, "one"));
  ASSERT_TRUE(put(two, "two"));
  ASSERT_TRUE(two.commit());
  ASSERT_TRUE(one.commit());
  EXPECT_EQ(folder_.read("model"), "one");
  EXPECT_THAT(folder_.names(), ElementsAre("model"));
}

TEST_F(ReplacingFileTest, LargePiecesArriveInOrder) {
  std::string all;
  ReplacingFile file;
  ASSERT_TRUE(file.open(path_));
  for (const size_t size : {size_t{10}, size_t{1} << 20, size_t{3} << 20, size_t{7}, size_t{0}}) {
    const std::string piece(size, static_cast<char>('a' + all.size() % 26));
    ASSERT_TRUE(put(file, piece));
    all += piece;
    EXPECT_EQ(file.size(), all.size());
  }
  ASSERT_TRUE(file.commit());
  EXPECT_TRUE(folder_.read("model") == all);
}

TEST_F(ReplacingFileTest, AnEmptyFileIsAFile) {
  ReplacingFile file;
  ASSERT_TRUE(file.open(path_));
  ASSERT_TRUE(file.commit());
  EXPECT_THAT(folder_.names(), ElementsAre("model"));
  EXPECT_EQ(folder_.read("model"), "");
}

TEST_F(ReplacingFileTest, AFolderOrAMissingFolderIsRefused) {
  ReplacingFile file;
  const std::string folder = folder_.path(".");
  EXPECT_FALSE(file.open(folder));
  EXPECT_EQ(file.error(), "cannot write " + folder + ": not a regular file");
  const std::string missing = folder_.path("missing/model");
  EXPECT_FALSE(file.open(missing));
  EXPECT_EQ(file.error(), "cannot create " + missing + ": No such file or directory");
  EXPECT_THAT(folder_.names(), ElementsAre());
}

TEST_F(ReplacingFileTest, NamesMayLieBeyondAscii) {
  const std::string name = folder_.path("\xC3\xA4 \xE4\xBD\xA0.zem");
  ReplacingFile file;
  ASSERT_TRUE(file.open(name)) << file.error();
  ASSERT_TRUE(put(file, "abc"));
  ASSERT_TRUE(file.commit()) << file.error();
  EXPECT_TRUE(std::filesystem::exists(compat::pathOf(name)));
}

// A model that a session has mapped.
TEST_F(ReplacingFileTest, AMappedFileIsReplacedOrLeftAsItWas) {
  folder_.write("model", std::string_view("old"));
  const int fd = compat::openToRead(path_.c_str());
  void* map = mmap(nullptr, 3, PROT_READ, MAP_PRIVATE, fd, 0);
  ASSERT_NE(map, MAP_FAILED);
  bool replaced = false;
  {
    ReplacingFile file;
    ASSERT_TRUE(file.open(path_));
    ASSERT_TRUE(put(file, "new"));
    replaced = file.commit();
#if defined(_WIN32)
    if (!replaced) {
      EXPECT_EQ(file.error(), "cannot replace " + path_ + ": Permission denied");
    }
#else
    EXPECT_TRUE(replaced) << file.error();
#endif
  }
  EXPECT_EQ(std::string(static_cast<const char*>(map), 3), "old");
  munmap(map, 3);
  ::close(fd);
  EXPECT_EQ(folder_.read("model"), replaced ? "new" : "old");
  EXPECT_THAT(folder_.names(), ElementsAre("model"));
}

}  // namespace
