// SPDX-License-Identifier: Apache-2.0
#include "support/trained_vocabulary.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <queue>
#include <random>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kiv/text/tokenizer_pieces.h"

namespace zemtest {

using namespace kiv;

namespace {

constexpr int64_t kRarestPair = 2;
constexpr int32_t kAnySymbol = -1;
constexpr size_t kLongestRandomToken = 14;
const std::vector<std::string> kSpecials = {"<|endoftext|>", "<|im_start|>", "<|im_end|>"};

struct Word {
  std::vector<int32_t> symbols;
  int64_t count;
};

struct Pair {
  int64_t count = 0;
  std::vector<size_t> words;  // where it occurs or once did
};

std::string escaped(std::string_view text, const std::string& marker) {
  std::string result;
  for (const char c : text) result += c == ' ' ? marker : std::string(1, c);
  return result;
}

class Trainer {
 public:
  Trainer(const std::string& text, SpaceMarker marker)
      : marker_(marker == SpaceMarker::ByteLevel ? "Ġ" : "▁") {
    for (char c = '!'; c <= '~'; ++c) token(std::string(1, c));
    for (const char* c : {"\n", "\t", "\r"}) token(c);
    addRule(token(marker_), token(marker_));
    std::map<std::string, int64_t> counts;
    countWords(text, counts);
    for (const auto& [word, count] : counts) addWord(word, count);
  }

  void learn(size_t tokens) {
    for (size_t word = 0; word < words_.size(); ++word) countPairs(word, 1, kAnySymbol);
    while (data_.tokens.size() < tokens && !queue_.empty()) {
      const auto [count, key] = queue_.top();
      queue_.pop();
      const int64_t current = pairs_[key].count;
      if (current < kRarestPair) continue;
      if (current == count) {
        apply(key);
      } else if (current < count) {
        queue_.emplace(current, key);
      }
    }
  }

  void fillUp(size_t tokens) {
    std::mt19937 random(1);
    while (data_.tokens.size() < tokens) {
      const size_t left = random() % data_.tokens.size();
      const size_t right = random() % data_.tokens.size();
      const std::string joined = data_.tokens[left] + data_.tokens[right];
      const bool twoWords = data_.tokens[right].starts_with(marker_);
      if (twoWords || joined.size() > kLongestRandomToken || ids_.count(joined) != 0) continue;
      addRule(static_cast<int32_t>(left), static_cast<int32_t>(right));
    }
  }

  TokenizerData take() {
    for (const std::string& special : kSpecials) token(special);
    data_.tokenTypes.assign(data_.tokens.size(), 1);
    std::fill(data_.tokenTypes.end() - static_cast<std::ptrdiff_t>(kSpecials.size()),
              data_.tokenTypes.end(), kTokenTypeControl);
    return std::move(data_);
  }

 private:
  using Entry = std::pair<int64_t, uint64_t>;  // count, pair

  static uint64_t keyOf(int32_t left, int32_t right) {
    return static_cast<uint64_t>(static_cast<uint32_t>(left)) << 32 | static_cast<uint32_t>(right);
  }

  int32_t token(const std::string& text) {
    const auto [entry, added] = ids_.emplace(text, static_cast<int32_t>(data_.tokens.size()));
    if (added) data_.tokens.push_back(text);
    return entry->second;
  }

  int32_t addRule(int32_t left, int32_t right) {
    const std::string& a = data_.tokens[static_cast<size_t>(left)];
    const std::string& b = data_.tokens[static_cast<size_t>(right)];
    data_.merges.push_back(std::string(a).append(" ").append(b));
    return token(a + b);
  }

  // A word begins with a marker or has none, whichever marker it is.
  void countWords(std::string_view text, std::map<std::string, int64_t>& counts) const {
    while (!text.empty()) {
      const std::string_view piece = nextPiece(text);
      text.remove_prefix(piece.size());
      ++counts[escaped(piece, marker_)];
    }
  }

  void addWord(std::string_view text, int64_t count) {
    Word word{{}, count};
    while (!text.empty()) {
      const std::string_view character = text.substr(0, utf8Length(text));
      word.symbols.push_back(token(std::string(character)));
      text.remove_prefix(character.size());
    }
    words_.push_back(std::move(word));
  }

  // Adds or takes away the pairs of a word. Those with `news` in them have not
  // been seen in it before.
  void countPairs(size_t index, int64_t sign, int32_t news) {
    const Word& word = words_[index];
    for (size_t i = 0; i + 1 < word.symbols.size(); ++i) {
      const int32_t left = word.symbols[i];
      const int32_t right = word.symbols[i + 1];
      Pair& pair = pairs_[keyOf(left, right)];
      pair.count += sign * word.count;
      if (sign < 0 || (news != kAnySymbol && news != left && news != right)) continue;
      if (pair.words.empty() || pair.words.back() != index) pair.words.push_back(index);
      queue_.emplace(pair.count, keyOf(left, right));
    }
  }

  void apply(uint64_t key) {
    const auto left = static_cast<int32_t>(key >> 32);
    const auto right = static_cast<int32_t>(key);
    const int32_t merged = addRule(left, right);
    const std::vector<size_t> places = std::move(pairs_[key].words);
    for (const size_t index : places) {
      countPairs(index, -1, merged);
      std::vector<int32_t>& symbols = words_[index].symbols;
      size_t end = 0;
      for (size_t i = 0; i < symbols.size(); ++i) {
        const bool here = i + 1 < symbols.size() && symbols[i] == left && symbols[i + 1] == right;
        symbols[end++] = here ? merged : symbols[i];
        if (here) ++i;
      }
      symbols.resize(end);
      countPairs(index, 1, merged);
    }
  }

  std::string marker_;
  TokenizerData data_;
  std::unordered_map<std::string, int32_t> ids_;
  std::vector<Word> words_;
  std::unordered_map<uint64_t, Pair> pairs_;
  std::priority_queue<Entry> queue_;
};

}  // namespace

TokenizerData trainVocabulary(const std::string& text, size_t tokens, SpaceMarker marker) {
  Trainer trainer(text, marker);
  trainer.learn(tokens - std::min(tokens, kSpecials.size()));
  trainer.fillUp(tokens - std::min(tokens, kSpecials.size()));
  return trainer.take();
}

}  // namespace zemtest
