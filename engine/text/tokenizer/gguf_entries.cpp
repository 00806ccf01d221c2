// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer/gguf_entries.h"

#include <array>
#include <cstdint>

#include "engine/text/tokenizer/read_error.h"
#include "kiv/container/byte_cursor.h"

namespace zem::text {
namespace {

using kiv::GgufValueType;

constexpr uint64_t kMaxEntries = 65536;
constexpr std::string_view kMagic = "GGUF";
// By type; 0 for those that have no fixed size.
constexpr std::array<uint64_t, 13> kElementBytes = {1, 1, 2, 2, 4, 4, 4, 1, 0, 0, 8, 8, 8};

class EntryReader {
 public:
  explicit EntryReader(std::string_view bytes)
      : cursor_(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()) {}

  std::vector<kiv::GgufValue> read() {
    if (take(kMagic.size()) != kMagic) throw ReadError("not a GGUF file");
    const auto version = number<uint32_t>();
    if (version != 2 && version != 3) {
      throw ReadError("GGUF version " + std::to_string(version) + ", needs 2 or 3");
    }
    (void)number<uint64_t>();  // tensors
    const auto count = number<uint64_t>();
    if (count > kMaxEntries) throw ReadError(std::to_string(count) + " entries, more than 65536");
    std::vector<kiv::GgufValue> values;
    while (values.size() < count) values.push_back(entry());
    return values;
  }

 private:
  std::string_view take(uint64_t length) {
    const uint8_t* at = nullptr;
    if (!cursor_.view(at, length)) throw ReadError("the bytes end inside a GGUF entry");
    return {reinterpret_cast<const char*>(at), length};
  }

  template <typename T>
  T number() {
    T value = 0;
    if (!cursor_.read(value)) throw ReadError("the bytes end inside a GGUF entry");
    return value;
  }

  GgufValueType type() {
    const auto code = number<uint32_t>();
    if (code >= kElementBytes.size()) {
      throw ReadError("a GGUF entry of the unknown type " + std::to_string(code));
    }
    return static_cast<GgufValueType>(code);
  }

  kiv::GgufValue entry() {
    kiv::GgufValue value;
    value.key = take(number<uint64_t>());
    value.type = type();
    if (value.type == GgufValueType::Array) {
      value.array = true;
      value.type = type();
      value.count = number<uint64_t>();
    }
    value.payload = payload(value.type, value.count);
    return value;
  }

  std::string_view payload(GgufValueType type, uint64_t count) {
    if (type == GgufValueType::Array) throw ReadError("a GGUF entry that is a list of lists");
    if (type != GgufValueType::Str) {
      const uint64_t each = kElementBytes[static_cast<size_t>(type)];
      if (count > cursor_.remaining() / each) throw ReadError("the bytes end inside a GGUF entry");
      return take(count * each);
    }
    const kiv::ByteCursor begin = cursor_;
    for (uint64_t i = 0; i < count; ++i) (void)take(number<uint64_t>());
    const uint64_t length = begin.remaining() - cursor_.remaining();
    cursor_ = begin;
    return take(length);
  }

  kiv::ByteCursor cursor_;
};

}  // namespace

std::vector<kiv::GgufValue> readGgufEntries(std::string_view bytes) {
  return EntryReader(bytes).read();
}

}  // namespace zem::text
