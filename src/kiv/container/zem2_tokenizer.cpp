// SPDX-License-Identifier: Apache-2.0
// The tokenizer section.
#include <algorithm>
#include <cstring>

#include "kiv/container/byte_cursor.h"
#include "kiv/zem2_reader.h"

namespace kiv {
namespace {

bool readItem(ByteCursor& in, std::string& out) {
  uint32_t length = 0;
  return in.read(length) && in.read(out, length);
}
bool readItem(ByteCursor& in, int32_t& out) { return in.read(out); }
bool readItem(ByteCursor& in, float& out) { return in.read(out); }

// A count, then that many items. Whatever the count claims, no room is made for
// more items than the bytes that are left could hold at four bytes each.
template <typename T>
bool readTable(ByteCursor& in, std::vector<T>& out) {
  uint32_t count = 0;
  if (!in.read(count) || count > zem2::kMaxTokenizerCount) return false;
  out.clear();
  out.reserve(std::min<uint64_t>(count, in.remaining() / 4));
  for (uint32_t i = 0; i < count; ++i) {
    T item{};
    if (!readItem(in, item)) return false;
    out.push_back(std::move(item));
  }
  return true;
}

}  // namespace

bool ZEM2Reader::readTokenizer(TokenizerData& out) const {
  constexpr size_t kMagicBytes = sizeof(zem2::kTokenizerMagic);
  const uint8_t* data = sectionData(SectionType::Tokenizer);
  const uint64_t size = sectionSize(SectionType::Tokenizer);
  if (data == nullptr || size < kMagicBytes) return false;
  if (std::memcmp(data, zem2::kTokenizerMagic, kMagicBytes) != 0) return false;

  ByteCursor in(data + kMagicBytes, size - kMagicBytes);
  uint8_t addBos = 0;
  const bool whole = readItem(in, out.chatTemplate) && readTable(in, out.tokens) &&
                     readTable(in, out.scores) && readTable(in, out.tokenTypes) &&
                     readTable(in, out.merges) && in.read(out.bosId) && in.read(out.eosId) &&
                     in.read(out.unkId) && in.read(out.padId) && in.read(addBos);
  if (whole) out.addBos = addBos != 0;
  return whole;
}

}  // namespace kiv
