// SPDX-License-Identifier: Apache-2.0
#include "kiv/container/mapped_file.h"

#include <cstring>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/platform.h"
#include "support/temp_folder.h"

namespace zemtest {

using namespace kiv;

namespace {

using ::testing::HasSubstr;

TEST(MappedFileTest, HoldsTheFilesBytes) {
  const zemtest::TempFolder folder;
  MappedFile file;
  ASSERT_TRUE(file.open(folder.write("a", std::string_view("hello"))).ok());
  ASSERT_EQ(file.size(), 5U);
  EXPECT_EQ(std::memcmp(file.data(), "hello", 5), 0);
  EXPECT_EQ(file.path(), folder.path("a"));
}

TEST(MappedFileTest, EmptyFileHasNoBytes) {
  const zemtest::TempFolder folder;
  MappedFile file;
  ASSERT_TRUE(file.open(folder.write("a", std::string_view())).ok());
  EXPECT_EQ(file.size(), 0U);
  EXPECT_EQ(file.data(), nullptr);
  file.release(nullptr, 1);
}

TEST(MappedFileTest, WhatCannotBeReadIsNamed) {
  const zemtest::TempFolder folder;
  MappedFile file;
  const std::string missing = folder.path("missing");
  EXPECT_EQ(file.open(missing).message(), "cannot read " + missing + ": No such file or directory");
  EXPECT_THAT(file.open(folder.path(".")).message(), HasSubstr("it is a directory"));
  EXPECT_EQ(file.open(zemtest::kDevice).message(),
            std::string("cannot read ") + zemtest::kDevice + ": it is not a regular file");
  EXPECT_EQ(file.data(), nullptr);
}

TEST(MappedFileTest, APipeIsRefusedWithoutWaitingForItsOtherEnd) {
  ZEM_SKIP_ON_WINDOWS("pipes in folders");
  const zemtest::TempFolder folder;
  const std::string pipe = folder.path("pipe");
  ASSERT_TRUE(zemtest::makeFifo(pipe.c_str()));
  MappedFile file;
  EXPECT_EQ(file.open(pipe).message(), "cannot read " + pipe + ": it is not a regular file");
}

TEST(MappedFileTest, OpeningAgainReplacesTheFile) {
  const zemtest::TempFolder folder;
  MappedFile file;
  ASSERT_TRUE(file.open(folder.write("a", std::string_view("hello"))).ok());
  ASSERT_TRUE(file.open(folder.write("b", std::string_view("ab"))).ok());
  EXPECT_EQ(file.size(), 2U);
  EXPECT_FALSE(file.open(folder.path("missing")).ok());
  EXPECT_EQ(file.size(), 0U);
}

TEST(MappedFileTest, ReleasedBytesCanBeReadAgain) {
  const zemtest::TempFolder folder;
  const std::string text(20000, 'x');
  MappedFile file;
  ASSERT_TRUE(file.open(folder.write("a", std::string_view(text))).ok());
  EXPECT_EQ(file.data()[12345], 'x');
  file.release(file.data() + 5000, 10000);
  file.release(file.data(), ~uint64_t{0});         // as far as the file goes
  file.release(file.data() + file.size() + 1, 1);  // outside: nothing
  EXPECT_EQ(std::memcmp(file.data(), text.data(), text.size()), 0);
}

}  // namespace
}  // namespace zemtest
