// SPDX-License-Identifier: Apache-2.0
// Metadata: typed key/value entries.
#include <string_view>

#include "kiv/container/byte_cursor.h"
#include "kiv/zem2_reader.h"

namespace kiv {
namespace {

using zem2::MetaType;

bool readArray(ByteCursor& in, ZEM2Reader::MetaEntry& entry) {
  uint32_t count = 0;
  if (!in.read(count) || in.remaining() / sizeof(uint32_t) < count) return false;
  entry.arr.resize(count);
  for (uint32_t& value : entry.arr) (void)in.read(value);
  entry.arrCount = count;
  return true;
}

bool readString(ByteCursor& in, std::string& out) {
  uint32_t length = 0;
  return in.read(length) && in.read(out, length);
}

Status orBad(bool read, const char* what) {
  return read ? Status() : invalidFormat(std::string("ZEM2: bad meta ") + what);
}

// The value after the type tag.
Status readValue(ByteCursor& in, ZEM2Reader::MetaEntry& entry) {
  switch (static_cast<MetaType>(entry.type)) {
    case MetaType::U32:
      return orBad(in.read(entry.u32), "u32");
    case MetaType::I32:
      return orBad(in.read(entry.i32), "i32");
    case MetaType::F32:
      return orBad(in.read(entry.f32), "f32");
    case MetaType::U64:
      return orBad(in.read(entry.u64), "u64");
    case MetaType::Str:
      return orBad(readString(in, entry.str), "str");
    case MetaType::U32Array:
      return orBad(readArray(in, entry), "array");
  }
  return invalidFormat("ZEM2: unknown meta type");
}

Status readEntry(ByteCursor& in, ZEM2Reader::MetaEntry& entry) {
  uint16_t keyLength = 0;
  if (!in.read(keyLength) || !in.read(entry.key, keyLength)) return orBad(false, "key");
  if (!in.read(entry.type)) return orBad(false, "type");
  return readValue(in, entry);
}

const ZEM2Reader::MetaEntry* findEntry(const std::vector<ZEM2Reader::MetaEntry>& entries,
                                       const char* key, MetaType type) {
  if (key == nullptr) return nullptr;
  const std::string_view wanted(key);
  for (const auto& entry : entries) {
    if (entry.key == wanted && entry.type == static_cast<uint8_t>(type)) return &entry;
  }
  return nullptr;
}

template <typename T>
bool getValue(const std::vector<ZEM2Reader::MetaEntry>& entries, const char* key, MetaType type,
              T ZEM2Reader::MetaEntry::*field, T& out) {
  const ZEM2Reader::MetaEntry* entry = findEntry(entries, key, type);
  if (entry == nullptr) return false;
  out = entry->*field;
  return true;
}

}  // namespace

Status ZEM2Reader::parseMeta() {
  meta_.clear();
  ByteCursor in(sectionData(SectionType::Meta), sectionSize(SectionType::Meta));
  uint32_t count = 0;
  if (!in.read(count)) return invalidFormat("ZEM2: missing meta section");
  // Nothing is reserved: the count is a claim, the bytes that follow are facts.
  for (uint32_t i = 0; i < count; ++i) {
    MetaEntry entry;
    if (Status status = readEntry(in, entry); !status.ok()) return status;
    meta_.push_back(std::move(entry));
  }
  return {};
}

bool ZEM2Reader::metaAt(size_t i, MetaEntryView& out) const {
  if (i >= meta_.size()) return false;
  const MetaEntry& entry = meta_[i];
  out = {entry.key, entry.type, entry.u32, entry.i32, entry.f32, entry.u64, entry.str, entry.arr};
  return true;
}

bool ZEM2Reader::getMetaU32(const char* key, uint32_t& out) const {
  return getValue(meta_, key, MetaType::U32, &MetaEntry::u32, out);
}

bool ZEM2Reader::getMetaI32(const char* key, int32_t& out) const {
  return getValue(meta_, key, MetaType::I32, &MetaEntry::i32, out);
}

bool ZEM2Reader::getMetaF32(const char* key, float& out) const {
  return getValue(meta_, key, MetaType::F32, &MetaEntry::f32, out);
}

bool ZEM2Reader::getMetaU64(const char* key, uint64_t& out) const {
  return getValue(meta_, key, MetaType::U64, &MetaEntry::u64, out);
}

bool ZEM2Reader::getMetaStr(const char* key, std::string& out) const {
  return getValue(meta_, key, MetaType::Str, &MetaEntry::str, out);
}

bool ZEM2Reader::getMetaU32Array(const char* key, const uint32_t*& data, uint64_t& count) const {
  const MetaEntry* entry = findEntry(meta_, key, MetaType::U32Array);
  if (entry == nullptr) return false;
  data = entry->arr.data();
  count = entry->arrCount;
  return true;
}

}  // namespace kiv
