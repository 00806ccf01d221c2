// SPDX-License-Identifier: Apache-2.0
// Encoding as it is defined, one quadratic step at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kiv/tokenizer.h"

namespace zemtest {

using namespace kiv;

// What the lead byte says, cut at the end of the text.
inline size_t plainCharacterLength(std::string_view text) {
  const int lead = static_cast<unsigned char>(text[0]);
  const size_t said = lead >= 0xF8 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
  return said < text.size() ? said : text.size();
}

// 'L' for letters and everything beyond ASCII, 'D' digits, 'S' whitespace, 'P' the rest.
inline char plainClass(char c) {
  if (static_cast<unsigned char>(c) >= 0x80) return 'L';
  if (std::string_view("0123456789").find(c) != std::string_view::npos) return 'D';
  if (std::string_view(" \t\n\v\f\r").find(c) != std::string_view::npos) return 'S';
  return std::string_view("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ").find(c) !=
                 std::string_view::npos
             ? 'L'
             : 'P';
}

// How far characters of class `wanted` go from `at` on.
inline size_t plainRun(std::string_view text, size_t at, char wanted) {
  while (at < text.size() && plainClass(text[at]) == wanted) {
    at += plainCharacterLength(text.substr(at));
  }
  return at;
}

// The first piece of a text that is not empty, rule by rule.
inline size_t plainPieceLength(std::string_view text) {
  for (const std::string mark : {"'", "\u2019"}) {
    for (const std::string suffix : {"s", "t", "re", "ve", "m", "ll", "d"}) {
      std::string start(text.substr(0, mark.size() + suffix.size()));
      for (char& c : start) c = 'A' <= c && c <= 'Z' ? static_cast<char>(c + 32) : c;
      if (start == mark + suffix) return start.size();
    }
  }
  const char kind = plainClass(text[0]);
  const char next = text.size() > 1 ? plainClass(text[1]) : '\0';
  if (text[0] == '\n' || text[0] == '\r' || kind == 'L') return plainRun(text, 0, kind);
  if (kind == 'D') return std::min<size_t>(3, plainRun(text, 0, 'D'));
  if (next == 'L') return plainRun(text, 1, 'L');
  if (text[0] == ' ' && next == 'P') return plainRun(text, 1, 'P');
  return plainRun(text, 0, kind);
}

// Encodes with maps of texts, a scan of all special tokens at every position and
// a scan of all pairs for every merge.
class PlainEncoder {
 public:
  explicit PlainEncoder(const TokenizerData& data) : data_(data) {
    for (size_t i = 0; i < data.tokens.size(); ++i) {
      ids_.emplace(data.tokens[i], static_cast<int32_t>(i));
    }
    for (size_t i = 0; i < data.merges.size(); ++i) ranks_.emplace(data.merges[i], i);
    if (data.tokenTypes.size() == data.tokens.size()) collectSpecials();
  }

  std::vector<int32_t> encode(const std::string& text) {
    result_.clear();
    if (data_.bosId >= 0) result_.push_back(data_.bosId);
    const std::string copy = byteLevel() ? text : escaped(text);
    std::string line;
    for (const char c : copy) {
      if (c != '\n') {
        line.push_back(c);
        continue;
      }
      segment(line);
      segment("\n");
      line.clear();
    }
    segment(line);
    return result_;
  }

 private:
  bool byteLevel() const {
    return !data_.merges.empty() && data_.merges[0].find("Ġ") != std::string::npos &&
           data_.merges[0].find("▁") == std::string::npos;
  }

  std::string escaped(const std::string& text) const {
    std::string result;
    for (const char c : text) {
      result += c == ' ' ? (byteLevel() ? "Ġ" : "▁") : std::string(1, c);
    }
    return result;
  }

  void collectSpecials() {
    for (size_t i = 0; i < data_.tokens.size(); ++i) {
      const int32_t type = data_.tokenTypes[i];
      if ((type == 2 || type == 3) && !data_.tokens[i].empty()) {
        specials_.emplace_back(data_.tokens[i], static_cast<int32_t>(i));
      }
    }
    std::stable_sort(specials_.begin(), specials_.end(), [](const auto& a, const auto& b) {
      if (a.first.size() != b.first.size()) return a.first.size() > b.first.size();
      return a.first < b.first;
    });
  }

  void segment(const std::string& text) {
    if (text == "\n" && ids_.count(text) != 0) {
      result_.push_back(ids_.at(text));
      return;
    }
    std::string chunk;
    for (size_t at = 0; at < text.size();) {
      const auto special = std::find_if(specials_.begin(), specials_.end(), [&](const auto& entry) {
        return text.compare(at, entry.first.size(), entry.first) == 0;
      });
      if (special == specials_.end()) {
        chunk.push_back(text[at++]);
        continue;
      }
      plain(chunk);
      chunk.clear();
      result_.push_back(special->second);
      at += special->first.size();
    }
    plain(chunk);
  }

  void plain(std::string_view chunk) {
    while (!chunk.empty()) {
      const size_t length = plainPieceLength(chunk);
      merge(escaped(std::string(chunk.substr(0, length))));
      chunk.remove_prefix(length);
    }
  }

  void merge(std::string_view piece) {
    std::vector<std::string> symbols;
    while (!piece.empty()) {
      symbols.emplace_back(piece.substr(0, plainCharacterLength(piece)));
      piece.remove_prefix(symbols.back().size());
    }
    for (;;) {
      size_t best = SIZE_MAX;
      size_t place = 0;
      for (size_t i = 0; i + 1 < symbols.size(); ++i) {
        const auto rank = ranks_.find(symbols[i] + " " + symbols[i + 1]);
        if (rank == ranks_.end() || rank->second >= best) continue;
        best = rank->second;
        place = i;
      }
      if (best == SIZE_MAX) break;
      symbols[place] += symbols[place + 1];
      symbols.erase(symbols.begin() + static_cast<std::ptrdiff_t>(place) + 1);
    }
    for (const std::string& symbol : symbols) {
      const auto id = ids_.find(symbol);
      if (id != ids_.end()) {
        result_.push_back(id->second);
      } else if (data_.unkId >= 0) {
        result_.push_back(data_.unkId);
      }
    }
  }

  const TokenizerData& data_;
  std::map<std::string, int32_t> ids_;
  std::map<std::string, size_t> ranks_;
  std::vector<std::pair<std::string, int32_t>> specials_;
  std::vector<int32_t> result_;
};

}  // namespace zemtest
