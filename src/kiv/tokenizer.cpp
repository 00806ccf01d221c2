#include "kiv/tokenizer.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "kiv/text/piece_memo.h"
#include "kiv/text/tokenizer_pieces.h"

namespace kiv {
namespace {

constexpr std::string_view kSpaceMarker = "\xE2\x96\x81";       // U+2581
constexpr std::string_view kByteLevelSpaceMarker = "\xC4\xA0";  // U+0120
constexpr std::string_view kByteTokenPrefix = "<0x";
constexpr size_t kByteTokenLength = 6;  // "<0xHH>"

Status notLoaded() { return {StatusCode::InvalidFormat, "tokenizer: not loaded"}; }

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

struct Tokenizer::Scratch {
  explicit Scratch(size_t textBytes) : memo(textBytes) {}

  PieceMemo memo;
  BytePairMerger::Scratch merging;
  std::string piece;
};

Status Tokenizer::load(TokenizerData data) {
  if (data.tokens.empty()) return {StatusCode::InvalidFormat, "tokenizer: empty token list"};
  if (data.scores.size() != data.tokens.size()) data.scores.clear();
  Tokenizer loaded;
  loaded.data_ = std::move(data);
  loaded.buildIndexes();
  *this = std::move(loaded);
  return {};
}

void Tokenizer::buildIndexes() {
  const auto& merges = data_.merges;
  gpt2Style_ = !merges.empty() && merges[0].find(kByteLevelSpaceMarker) != std::string::npos &&
               merges[0].find(kSpaceMarker) == std::string::npos;
  tokenToId_.build(data_.tokens);
  lineFeedId_ = tokenToId_.find(data_.tokens, "\n");
  merges_.build(data_.tokens, tokenToId_, merges);
  specials_.build(data_.tokens, data_.tokenTypes);
}

int32_t Tokenizer::tokenToId(const std::string& text) const {
  return tokenToId_.find(data_.tokens, text);
}

Status Tokenizer::tokenToString(int32_t id, std::string& out) const {
  if (id < 0 || static_cast<size_t>(id) >= data_.tokens.size()) {
    return {StatusCode::InvalidFormat, "tokenizer: token id out of range"};
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
  Scratch scratch(rest.size());
  while (!rest.empty()) {
    // A line feed is a segment of its own.
    const size_t length = rest[0] == '\n' ? 1 : std::min(rest.find('\n'), rest.size());
    Status status = tokenizeSegment(rest.substr(0, length), scratch, ids);
    if (!status.ok()) return status;
    rest.remove_prefix(length);
  }
  return {};
}

Status Tokenizer::tokenizeSegment(std::string_view segment, Scratch& scratch,
                                  std::vector<int32_t>& ids) const {
  if (lineFeedId_ >= 0 && segment == "\n") {
    ids.push_back(lineFeedId_);
    return {};
  }
  if (specials_.empty()) return tokenizePlain(segment, scratch, ids);
  for (size_t at = 0; at < segment.size();) {
    const SpecialTokens::Match special = specials_.find(data_.tokens, segment, at);
    Status status = tokenizePlain(segment.substr(at, special.position - at), scratch, ids);
    if (!status.ok()) return status;
    at = special.position;
    if (special.id < 0) break;
    ids.push_back(special.id);
    at += data_.tokens[static_cast<size_t>(special.id)].size();
  }
  return {};
}

Status Tokenizer::tokenizePlain(std::string_view chunk, Scratch& scratch,
                                std::vector<int32_t>& ids) const {
  while (!chunk.empty()) {
    std::string_view piece = nextPiece(chunk);
    chunk.remove_prefix(piece.size());
    if (piece.size() > BytePairMerger::kMaxPieceBytes) {
      return {StatusCode::Unsupported, "tokenizer: piece too long"};
    }
    while (!piece.empty()) {
      // Without byte-level markers the words of a line make one piece.
      const size_t length = gpt2Style_ ? piece.size() : merges_.partLength(piece);
      tokenizePart(piece.substr(0, length), scratch, ids);
      piece.remove_prefix(length);
    }
  }
  return {};
}

void Tokenizer::tokenizePart(std::string_view part, Scratch& scratch,
                             std::vector<int32_t>& ids) const {
  if (part.size() > PieceMemo::kLongestPiece) {
    tokenizeBpe(part, scratch, ids);
    return;
  }
  PieceMemo::Entry& entry = scratch.memo.entryOf(part);
  const size_t first = ids.size();
  if (entry.holds(part)) {
    ids.resize(first + entry.idCount);
    std::copy_n(ids.data() + entry.firstId, entry.idCount, ids.data() + first);
    return;
  }
  tokenizeBpe(part, scratch, ids);
  entry = {part.data(), first, static_cast<uint32_t>(part.size()),
           static_cast<uint32_t>(ids.size() - first)};
}

void Tokenizer::tokenizeBpe(std::string_view part, Scratch& scratch,
                            std::vector<int32_t>& ids) const {
  if (part.find(' ') != std::string_view::npos) {
    scratch.piece = part;
    escapeWhitespace(scratch.piece);
    part = scratch.piece;
  }
  merges_.encode(part, data_.unkId, scratch.merging, ids);
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
