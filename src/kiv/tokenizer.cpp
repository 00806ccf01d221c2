// SPDX-License-Identifier: Apache-2.0
#include "kiv/tokenizer.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "kiv/text/byte_level.h"
#include "kiv/text/piece_memo.h"
#include "kiv/text/text_index.h"
#include "kiv/text/tokenizer_bpe.h"
#include "kiv/text/tokenizer_pieces.h"
#include "kiv/text/tokenizer_specials.h"

namespace kiv {
namespace {

constexpr std::string_view kByteLevelSpaceMarker = "\xC4\xA0";  // U+0120
constexpr std::string_view kByteTokenPrefix = "<0x";
constexpr size_t kByteTokenLength = 6;  // "<0xHH>"

Status notLoaded() { return invalidFormat("tokenizer: not loaded"); }

// The first rule tells the style.
bool usesByteLevelSpaces(const std::vector<std::string>& merges) {
  return !merges.empty() && merges[0].find(kByteLevelSpaceMarker) != std::string::npos &&
         merges[0].find(kSpaceMarker) == std::string::npos;
}

void replaceSpaces(std::string& s, std::string_view marker) {
  const auto spaces = static_cast<size_t>(std::count(s.begin(), s.end(), ' '));
  if (spaces == 0) return;
  std::string escaped;
  escaped.reserve(s.size() + spaces * (marker.size() - 1));
  for (const char c : s) {
    if (c == ' ') {
      escaped.append(marker);
    } else {
      escaped.push_back(c);
    }
  }
  s = std::move(escaped);
}

void appendUnescaped(std::string_view text, std::string& out) {
  for (;;) {
    const size_t marker = text.find(kSpaceMarker);
    out.append(text.substr(0, marker));
    if (marker == std::string_view::npos) return;
    out.push_back(' ');
    text.remove_prefix(marker + kSpaceMarker.size());
  }
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The value of the byte token that `text` begins with, or -1.
int byteTokenValue(std::string_view text) {
  if (text.size() < kByteTokenLength || !text.starts_with(kByteTokenPrefix)) return -1;
  const int high = hexDigit(text[3]);
  const int low = hexDigit(text[4]);
  return high < 0 || low < 0 || text[5] != '>' ? -1 : high * 16 + low;
}

// In place: the text only shrinks, and bytes written are not read again.
void replaceByteTokens(std::string& text) {
  size_t end = 0;
  for (size_t at = 0; at < text.size();) {
    const int value = byteTokenValue(std::string_view(text).substr(at));
    text[end++] = value < 0 ? text[at] : static_cast<char>(value);
    at += value < 0 ? 1 : kByteTokenLength;
  }
  text.resize(end);
}

}  // namespace

struct Tokenizer::Indexes {
  explicit Indexes(const TokenizerData& data) {
    tokenToId.build(data.tokens);
    lineFeedId = tokenToId.find(data.tokens, "\n");
    merges.build(data.tokens, tokenToId, data.merges);
    specials.build(data.tokens, data.tokenTypes);
  }

  TextIndex tokenToId;
  BytePairMerger merges;
  SpecialTokens specials;
  int32_t lineFeedId = -1;
};

class Tokenizer::Encoding {
 public:
  Encoding(const Tokenizer& tokenizer, size_t textBytes, std::vector<int32_t>& ids)
      : tokenizer_(tokenizer),
        tokens_(tokenizer.data_.tokens),
        indexes_(*tokenizer.indexes_),
        ids_(ids),
        memo_(textBytes) {}

  // A line feed, or text without one.
  Status segment(std::string_view text) {
    if (indexes_.lineFeedId >= 0 && text == "\n") {
      ids_.push_back(indexes_.lineFeedId);
      return {};
    }
    if (indexes_.specials.empty()) return plain(text);
    for (size_t at = 0; at < text.size();) {
      const SpecialTokens::Match special = indexes_.specials.find(tokens_, text, at);
      Status status = plain(text.substr(at, special.position - at));
      if (!status.ok()) return status;
      at = special.position;
      if (special.id < 0) break;
      ids_.push_back(special.id);
      at += tokens_[static_cast<size_t>(special.id)].size();
    }
    return {};
  }

 private:
  Status plain(std::string_view text) {
    while (!text.empty()) {
      std::string_view piece = nextPiece(text);
      text.remove_prefix(piece.size());
      if (piece.size() > BytePairMerger::kMaxPieceBytes) {
        return unsupported("tokenizer: piece too long");
      }
      while (!piece.empty()) {
        // Without byte-level markers the words of a line make one piece.
        const size_t length =
            tokenizer_.gpt2Style_ ? piece.size() : indexes_.merges.partLength(piece);
        part(piece.substr(0, length));
        piece.remove_prefix(length);
      }
    }
    return {};
  }

  void part(std::string_view text) {
    if (text.size() > PieceMemo::kLongestPiece) {
      merge(text);
      return;
    }
    PieceMemo::Entry& entry = memo_.entryOf(text);
    const size_t first = ids_.size();
    if (entry.holds(text)) {
      ids_.resize(first + entry.idCount);
      std::copy_n(ids_.data() + entry.firstId, entry.idCount, ids_.data() + first);
      return;
    }
    merge(text);
    entry = {text.data(), first, static_cast<uint32_t>(text.size()),
             static_cast<uint32_t>(ids_.size() - first)};
  }

  void merge(std::string_view text) {
    if (text.find(' ') != std::string_view::npos) {
      escaped_ = text;
      tokenizer_.escapeWhitespace(escaped_);
      text = escaped_;
    }
    indexes_.merges.encode(text, tokenizer_.data_.unkId, merging_, ids_);
  }

  const Tokenizer& tokenizer_;
  const std::vector<std::string>& tokens_;
  const Indexes& indexes_;
  std::vector<int32_t>& ids_;
  PieceMemo memo_;
  BytePairMerger::Scratch merging_;
  std::string escaped_;
};

Status Tokenizer::load(TokenizerData data) {
  if (data.tokens.empty()) return invalidFormat("tokenizer: empty token list");
  if (data.scores.size() != data.tokens.size()) data.scores.clear();
  Tokenizer loaded;
  loaded.data_ = std::move(data);
  loaded.gpt2Style_ = usesByteLevelSpaces(loaded.data_.merges);
  loaded.indexes_ = std::make_shared<const Indexes>(loaded.data_);
  *this = std::move(loaded);
  return {};
}

int32_t Tokenizer::tokenToId(const std::string& text) const {
  return valid() ? indexes_->tokenToId.find(data_.tokens, text) : -1;
}

Status Tokenizer::tokenToString(int32_t id, std::string& out) const {
  if (id < 0 || static_cast<size_t>(id) >= data_.tokens.size()) {
    return invalidFormat("tokenizer: token id out of range");
  }
  out = data_.tokens[static_cast<size_t>(id)];
  return {};
}

Status Tokenizer::encode(const std::string& text, std::vector<int32_t>& ids, bool addBos) const {
  if (!valid()) return notLoaded();
  ids.clear();
  if (addBos && data_.bosId >= 0) ids.push_back(data_.bosId);

  std::string escaped;
  std::string_view rest = text;
  if (!gpt2Style_) {
    escaped = text;
    escapeWhitespace(escaped);
    rest = escaped;
  }
  Encoding encoding(*this, rest.size(), ids);
  while (!rest.empty()) {
    // A line feed is a segment of its own.
    const size_t length = rest[0] == '\n' ? 1 : std::min(rest.find('\n'), rest.size());
    Status status = encoding.segment(rest.substr(0, length));
    if (!status.ok()) return status;
    rest.remove_prefix(length);
  }
  return {};
}

Status Tokenizer::decode(const std::vector<int32_t>& ids, std::string& out) const {
  if (!valid()) return notLoaded();
  std::string text;
  for (const int32_t id : ids) {
    if (id < 0 || static_cast<size_t>(id) >= data_.tokens.size()) continue;
    const auto at = static_cast<size_t>(id);
    const int32_t type = at < data_.tokenTypes.size() ? data_.tokenTypes[at] : 0;
    if (type == kTokenTypeUnknown || type == kTokenTypeControl) {
      text.append(data_.tokens[at]);
    } else {
      appendUnescaped(data_.tokens[at], text);
    }
  }
  replaceByteTokens(text);
  out = std::move(text);
  return {};
}

void Tokenizer::escapeWhitespace(std::string& s) const {
  replaceSpaces(s, gpt2Style_ ? kByteLevelSpaceMarker : kSpaceMarker);
}

void Tokenizer::unescapeWhitespace(std::string& s) const { kiv::unescapeWhitespace(s); }

void escapeWhitespace(std::string& s) { replaceSpaces(s, kSpaceMarker); }

void unescapeWhitespace(std::string& s) {
  std::string plain;
  plain.reserve(s.size());
  appendUnescaped(s, plain);
  s = std::move(plain);
}

}  // namespace kiv
