// SPDX-License-Identifier: Apache-2.0
#include "convert/safetensors.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

#include "console/terminal.h"
#include "console/text.h"
#include "convert/json_file.h"
#include "kiv/container/byte_cursor.h"

namespace zemtool {
namespace {

// A header takes about 100 bytes a tensor; this is room for 160 000 of them.
constexpr uint64_t kMaxHeaderBytes = uint64_t{16} << 20;
constexpr size_t kMaxExtents = 16;

struct ElementType {
  std::string_view name;
  uint64_t bits;
};

constexpr std::array<ElementType, 16> kElementTypes = {{{"F32", 32},
                                                        {"BF16", 16},
                                                        {"F16", 16},
                                                        {"F64", 64},
                                                        {"I64", 64},
                                                        {"I32", 32},
                                                        {"I16", 16},
                                                        {"I8", 8},
                                                        {"U64", 64},
                                                        {"U32", 32},
                                                        {"U16", 16},
                                                        {"U8", 8},
                                                        {"BOOL", 8},
                                                        {"F8_E4M3", 8},
                                                        {"F8_E5M2", 8},
                                                        {"F8_E8M0", 8}}};

bool multiply(uint64_t a, uint64_t b, uint64_t& product) {
  return !__builtin_mul_overflow(a, b, &product);
}

class TableReader {
 public:
  explicit TableReader(const kiv::MappedFile& file) : file_(file) {}

  std::vector<SafetensorsEntry> read() {
    const json header = parseJson(headerText(), file_.path());
    std::vector<SafetensorsEntry> entries;
    for (const auto& [name, value] : header.items()) {
      if (name != "__metadata__") entries.push_back(entry(name, value));
    }
    checkOverlap(entries);
    return entries;
  }

 private:
  [[noreturn]] void fail(const std::string& problem) const {
    throw Failure(file_.path() + ": " + problem);
  }
  [[noreturn]] void fail(const std::string& name, const std::string& problem) const {
    fail("tensor '" + escapeControls(name.substr(0, 120)) + "' " + problem);
  }

  std::string_view headerText() {
    kiv::ByteCursor cursor(file_.data(), file_.size());
    uint64_t length = 0;
    const uint8_t* text = nullptr;
    if (!cursor.read(length)) fail("not a safetensors file: it has no header");
    if (length > kMaxHeaderBytes) {
      fail("not a safetensors file: it states a header of " + std::to_string(length) +
           " bytes, at most " + std::to_string(kMaxHeaderBytes) + " are expected");
    }
    if (!cursor.view(text, length)) {
      fail("the file ends inside its header; was it copied whole?");
    }
    data_ = text + length;
    dataBytes_ = cursor.remaining();
    return {reinterpret_cast<const char*>(text), length};
  }

  SafetensorsEntry entry(const std::string& name, const json& value) const {
    SafetensorsEntry entry;
    entry.name = name;
    const json* type = member(value, "dtype");
    const json* shape = member(value, "shape");
    const json* offsets = member(value, "data_offsets");
    if (type == nullptr || !type->is_string()) fail(name, "has no dtype");
    if (shape == nullptr || !shape->is_array()) fail(name, "has no shape");
    if (offsets == nullptr || !offsets->is_array()) fail(name, "has no data_offsets");
    entry.type = type->get<std::string>();
    if (shape->size() > kMaxExtents) fail(name, "has more than 16 extents");
    entry.shape = numbers(name, *shape, "shape");
    place(entry, numbers(name, *offsets, "data_offsets"));
    return entry;
  }

  std::vector<uint64_t> numbers(const std::string& name, const json& list, const char* what) const {
    std::vector<uint64_t> values;
    for (const json& value : list) {
      if (!value.is_number_unsigned()) {
        fail(name, std::string("has a ") + what + " that is not of whole numbers");
      }
      values.push_back(value.get<uint64_t>());
    }
    return values;
  }

  void place(SafetensorsEntry& entry, const std::vector<uint64_t>& offsets) const {
    if (offsets.size() != 2 || offsets[0] > offsets[1]) {
      fail(entry.name, "has data_offsets that are not a begin and an end");
    }
    if (offsets[1] > dataBytes_) {
      fail(entry.name, "ends at byte " + std::to_string(offsets[1]) +
                           " of the data, the file has " + std::to_string(dataBytes_) +
                           "; was it copied whole?");
    }
    entry.data = data_ + offsets[0];
    entry.bytes = offsets[1] - offsets[0];
    checkSize(entry);
  }

  // An unknown type has an unknown size. The conversion never reads such a tensor.
  void checkSize(const SafetensorsEntry& entry) const {
    const auto* type = std::find_if(kElementTypes.begin(), kElementTypes.end(),
                                    [&](const ElementType& t) { return t.name == entry.type; });
    if (type == kElementTypes.end()) return;
    uint64_t bytes = type->bits / 8;
    for (const uint64_t extent : entry.shape) {
      if (!multiply(bytes, extent, bytes)) fail(entry.name, "is larger than a file can be");
    }
    if (bytes != entry.bytes) {
      fail(entry.name, "has " + std::to_string(entry.bytes) + " bytes, its shape needs " +
                           std::to_string(bytes));
    }
  }

  void checkOverlap(const std::vector<SafetensorsEntry>& entries) const {
    std::vector<const SafetensorsEntry*> sorted;
    for (const SafetensorsEntry& entry : entries) {
      if (entry.bytes > 0) sorted.push_back(&entry);
    }
    std::sort(sorted.begin(), sorted.end(),
              [](const auto* a, const auto* b) { return a->data < b->data; });
    for (size_t i = 1; i < sorted.size(); ++i) {
      if (sorted[i]->data < sorted[i - 1]->data + sorted[i - 1]->bytes) {
        fail(sorted[i]->name,
             "overlaps '" + escapeControls(sorted[i - 1]->name.substr(0, 120)) + "'");
      }
    }
  }

  const kiv::MappedFile& file_;
  const uint8_t* data_ = nullptr;
  uint64_t dataBytes_ = 0;
};

}  // namespace

std::vector<SafetensorsEntry> readSafetensors(const kiv::MappedFile& file) {
  return TableReader(file).read();
}

}  // namespace zemtool
