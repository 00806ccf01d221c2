// SPDX-License-Identifier: Apache-2.0
#include "convert/convert_tokenizer.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "kiv/text/byte_level.h"

namespace zemtool {
namespace {

constexpr int32_t kTypeNormal = 1;
constexpr std::string_view kEndOfText = "<|endoftext|>";
constexpr std::string_view kSpaceMarker = "\xE2\x96\x81";       // U+2581
constexpr std::string_view kByteLevelSpaceMarker = "\xC4\xA0";  // U+0120

// A token that holds characters that spell no byte is its own text already.
std::string storedOrdinary(const std::string& spelled, TokenizerCounts& counts) {
  std::string bytes;
  if (!kiv::byteLevelToBytes(spelled, bytes)) bytes = spelled;
  if (!kiv::isWholeText(bytes)) ++counts.asBytes;
  return kiv::storedToken(bytes);
}

void addToken(SourceToken& token, kiv::TokenizerData& data, TokenizerCounts& counts) {
  int32_t type = kTypeNormal;
  std::string text = std::move(token.text);
  switch (token.kind) {
    case SourceTokenKind::Absent:
      text.clear();
      break;
    case SourceTokenKind::Ordinary:
      text = storedOrdinary(text, counts);
      break;
    case SourceTokenKind::Added:
      type = kiv::kTokenTypeControl;
      ++counts.added;
      break;
    case SourceTokenKind::Unknown:
      type = kiv::kTokenTypeUnknown;
      break;
    case SourceTokenKind::Plain:
      break;
  }
  counts.tokens += token.kind == SourceTokenKind::Absent ? 0 : 1;
  counts.filled += token.kind == SourceTokenKind::Absent ? 1 : 0;
  data.tokens.push_back(std::move(text));
  data.tokenTypes.push_back(type);
}

// False for a side that encoding could never meet.
bool storedSide(const std::string& spelled, std::string& out) {
  std::string bytes;
  if (!kiv::byteLevelToBytes(spelled, bytes) || bytes.empty() || !kiv::storedAsText(bytes)) {
    return false;
  }
  out = kiv::storedToken(bytes);
  return true;
}

void addMerges(SourceTokenizer& source, kiv::TokenizerData& data, TokenizerCounts& counts) {
  counts.merges = source.merges.size();
  std::string left;
  std::string right;
  for (const SourceMerge& merge : source.merges) {
    if (storedSide(merge.left, left) && storedSide(merge.right, right)) {
      data.merges.push_back(left.append(" ").append(right));
    } else {
      ++counts.droppedMerges;
    }
  }
  // The first rule tells readers how spaces are spelled. One about the letter
  // U+0120 itself would mislead them; a rule of one side fits no text.
  const bool misleading = !data.merges.empty() &&
                          data.merges[0].find(kByteLevelSpaceMarker) != std::string::npos &&
                          data.merges[0].find(kSpaceMarker) == std::string::npos;
  if (misleading) data.merges.insert(data.merges.begin(), std::string(kSpaceMarker));
}

int32_t idOf(const kiv::TokenizerData& data, std::string_view text) {
  const auto found = std::find(data.tokens.begin(), data.tokens.end(), text);
  return found == data.tokens.end() ? -1 : static_cast<int32_t>(found - data.tokens.begin());
}

}  // namespace

kiv::TokenizerData convertTokenizer(SourceTokenizer& source, uint64_t rows,
                                    TokenizerCounts& counts) {
  kiv::TokenizerData data;
  data.tokens.reserve(rows);
  data.tokenTypes.reserve(rows);
  source.tokens.resize(rows);
  for (SourceToken& token : source.tokens) addToken(token, data, counts);
  addMerges(source, data, counts);
  source.tokens = {};
  source.merges = {};
  const int32_t endOfText = idOf(data, kEndOfText);
  data.eosId = endOfText >= 0 ? endOfText : source.eosId;
  data.bosId = source.bosId;
  data.padId = source.padId;
  data.addBos = data.bosId >= 0;
  data.chatTemplate = source.chatTemplate;
  return data;
}

}  // namespace zemtool
