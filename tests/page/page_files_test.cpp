// SPDX-License-Identifier: Apache-2.0
#include "server/page/page_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

namespace zem::server {
namespace {

std::string headerOf(std::string_view name) {
  for (const PageHeader& header : pageHeaders()) {
    if (header.name == name) return std::string(header.value);
  }
  return {};
}

TEST(PageFiles, EveryFileHasWhatItsAnswerNeeds) {
  std::set<std::string_view> etags;
  for (const PageFile& file : pageFiles()) {
    SCOPED_TRACE(file.path);
    EXPECT_TRUE(file.path.starts_with("/"));
    EXPECT_TRUE(file.contentType.ends_with("; charset=utf-8"));
    EXPECT_FALSE(file.bytes.empty());
    EXPECT_TRUE(file.gzip.starts_with("\x1f\x8b"));
    EXPECT_LT(file.gzip.size(), file.bytes.size());
    EXPECT_TRUE(file.etag.starts_with("\"") && file.etag.ends_with("\"") && file.etag.size() > 2);
    EXPECT_EQ(findPageFile(file.path), &file);
    etags.insert(file.etag);
  }
  EXPECT_EQ(etags.size(), pageFiles().size());
}

TEST(PageFiles, ThePageIsHtmlAtTheRootAndUnderItsName) {
  const PageFile* page = findPageFile("/");
  ASSERT_NE(page, nullptr);
  EXPECT_TRUE(page->bytes.starts_with("<!doctype html>"));
  EXPECT_EQ(findPageFile("/index.html"), page);
  ASSERT_NE(findPageFile("/highlight.js"), nullptr);
  ASSERT_NE(findPageFile("/licenses.txt"), nullptr);
}

TEST(PageFiles, OtherPathsAreNoFiles) {
  for (const char* path : {"", "//", "/highlight.js/", "/highlight.js?x", "/../index.html",
                           "/policy.txt", "highlight.js", "/INDEX.HTML"}) {
    EXPECT_EQ(findPageFile(path), nullptr) << path;
  }
}

TEST(PageFiles, HeadersKeepStrangersScriptsOut) {
  const std::string policy = headerOf("Content-Security-Policy");
  EXPECT_NE(policy.find("default-src 'none'"), std::string::npos);
  EXPECT_EQ(policy.find("unsafe"), std::string::npos);
  EXPECT_EQ(headerOf("X-Content-Type-Options"), "nosniff");
  for (const PageHeader& header : pageHeaders()) {
    EXPECT_TRUE(std::all_of(header.value.begin(), header.value.end(), [](char c) {
      return c >= ' ' && c <= '~';
    })) << header.name;
  }
}

}  // namespace
}  // namespace zem::server
