// SPDX-License-Identifier: Apache-2.0
// zem tokenize --self-test, on a vocabulary that has the published one's ids for the
// published text and fillers elsewhere.
#include <gmock/gmock.h>

#include <map>
#include <sstream>

#include "cli_support.h"
#include "support/published_model.h"

namespace zemtest {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr int kPieces = 248044;

// "ID:TOKEN|": the tokens of the published text, in the order of the rules that build them.
// The Chinese line is cut at will.
const std::string kTokens =
    "2517:ird|1919:This|369: is|264: a|1228: test|25677: \xF0\x9F\x98|232:\x8A|198:\n|40:I|557: "
    "was|"
    "8950: born|303: in|220: |24:9|17:2|15:0|11:,|321: and|411: this|30882: fals|933:\xC3\xA9|"
    "13:.|103815:\xE7\x94\x9F\xE6\xB4\xBB|132339:\xE7\x9A\x84\xE7\x9C\x9F|"
    "95761:\xE8\xB0\x9B\xE6\x98\xAF|12675:Hi|21251: Hello|271:\n\n|46813: \n  \n|256:  |42589:<s|"
    "29:>|5834:hi|17977:there|760:The|2614: following|886: string|1220: should|381: be|"
    "9971: properly|19873: encoded|25::|3850:But|170827: \xE0\xB8\x9B\xE0\xB8\xB5|"
    "149027: \xE0\xB8\x94|18103:Hey|1204: how|513: are|488: you|3604: doing|";

std::vector<std::pair<int, std::string>> tokens() {
  std::vector<std::pair<int, std::string>> list;
  std::istringstream entries(kTokens);
  for (std::string entry; std::getline(entries, entry, '|');) {
    const size_t colon = entry.find(':');
    list.emplace_back(std::stoi(entry), entry.substr(colon + 1));
  }
  return list;
}

class PublishedLike {
 public:
  PublishedLike() {
    for (const auto& [id, bytes] : tokens()) take(id, spelled(bytes));
    for (int byte = 0; byte < 256; ++byte) (void)idOf(spelledByte(static_cast<uint8_t>(byte)));
    for (const auto& [id, bytes] : tokens()) chain(bytes);
    // The line feeds of " \n  \n" join their spaces before these join each other.
    const json last = merges_.back();
    merges_.back() = {spelled(" \n "), spelled(" \n")};
    merges_.push_back(last);
    while (next_ < kPieces) vocab_["filler" + std::to_string(next_)] = nextFree();
  }

  std::string text() const {
    json root = completeTokenizer();
    root["model"]["vocab"] = vocab_;
    root["model"]["merges"] = merges_;
    root["added_tokens"] = json::array();
    int id = kPieces;
    for (const char* name : {"<|endoftext|>", "<|im_start|>", "<|im_end|>"}) {
      root["added_tokens"].push_back({{"id", id++}, {"content", name}, {"special", true}});
    }
    return root.dump();
  }

 private:
  void take(int id, const std::string& token) {
    vocab_[token] = id;
    taken_[id] = true;
  }
  int nextFree() {
    while (taken_.count(next_) != 0) ++next_;
    return next_++;
  }
  int idOf(const std::string& token) {
    if (!vocab_.contains(token)) vocab_[token] = nextFree();
    return vocab_[token];
  }
  // Rules that build a token byte by byte.
  void chain(const std::string& bytes) {
    for (size_t length = 2; length <= bytes.size(); ++length) {
      const std::string left = spelled(bytes.substr(0, length - 1));
      const std::string right = spelled(bytes.substr(length - 1, 1));
      if (made_[left + right]) continue;
      made_[left + right] = true;
      (void)idOf(left + right);
      merges_.push_back({left, right});
    }
  }

  json vocab_ = json::object();
  json merges_ = json::array();
  std::map<int, bool> taken_;
  std::map<std::string, bool> made_;
  int next_ = 0;
};

const std::string& publishedLike() {
  static const std::string text = PublishedLike().text();
  return text;
}

ProcessResult selfTest(const std::string& path) {
  return zem({"tokenize", "-m", path, "--self-test"});
}

TEST(TokenizeSelfTest, PassesWithThePublishedIds) {
  const TempFolder folder;
  const std::string path = folder.write("tokenizer.json", publishedLike());
  const ProcessResult result = selfTest(path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "self-test passed: 75 ids as published\n");
  EXPECT_EQ(result.err, "");
}

TEST(TokenizeSelfTest, FailsWhereOneRuleIsMissing) {
  const TempFolder folder;
  const std::string rule = ",[\"" + spelled(" doin") + "\",\"g\"]";
  std::string text = publishedLike();
  ASSERT_NE(text.find(rule), std::string::npos);
  text.erase(text.find(rule), rule.size());
  const ProcessResult result = selfTest(folder.write("tokenizer.json", text));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "zem: self-test failed: the ids differ from the published ones, first at place 74\n");
}

TEST(TokenizeSelfTest, SaysThatAnotherVocabularyIsNotThePublishedOne) {
  const TempFolder folder;
  const ProcessResult result = selfTest(folder.write("tokenizer.json", completeTokenizer().dump()));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, AllOf(HasSubstr("the published vocabulary of 248,044 pieces"),
                                HasSubstr("has another one")));
}

TEST(TokenizeSelfTest, NeedsTheTokenizerOfTheSource) {
  const TempFolder folder;
  const ProcessResult result = selfTest(folder.write("m.zem", smallContainer().build()));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("carries no tokenizer of its source to test"));
}

}  // namespace
}  // namespace zemtest
