// SPDX-License-Identifier: Apache-2.0
// A vocabulary in the form of its source, before it becomes a container's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zemtool {

enum class SourceTokenKind : uint8_t {
  Absent,    // an id without a token
  Ordinary,  // spelled in printable characters, one a byte
  Added,     // its own text, matched whole
  Unknown,   // likewise, for text without a token
  Plain,     // its own text, not matched whole
};

struct SourceToken {
  std::string text;
  SourceTokenKind kind = SourceTokenKind::Absent;
};

struct SourceMerge {
  std::string left;
  std::string right;
};

struct SourceTokenizer {
  std::vector<SourceToken> tokens;  // by id
  std::vector<SourceMerge> merges;  // spelled like ordinary tokens; best first
  int32_t bosId = -1;               // as configured; negative: not
  int32_t eosId = -1;
  int32_t padId = -1;
  std::string chatTemplate;
  std::string asset;      // the source's own data, byte by byte
  std::string assetName;  // "tokenizer.json" or "tokenizer.gguf"
};

}  // namespace zemtool
