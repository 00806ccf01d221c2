// SPDX-License-Identifier: Apache-2.0
#include "kiv/container/gguf.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <unordered_set>
#include <utility>

#include "kiv/container/byte_cursor.h"
#include "kiv/math/checked.h"

namespace kiv {
namespace {

constexpr std::string_view kMagic = "GGUF";
constexpr uint32_t kOldestVersion = 2;
constexpr uint32_t kNewestVersion = 3;
constexpr uint64_t kDefaultAlignment = 32;
constexpr uint64_t kMaxAlignment = 1 << 20;
constexpr uint32_t kMaxDims = 8;
// Far above what models have; bounds the memory that a file can make us use.
constexpr uint64_t kMaxValues = 1 << 16;
constexpr uint64_t kMaxTensors = 1 << 16;
constexpr uint64_t kLengthBytes = 8;  // in front of a text

std::string_view textAt(const uint8_t* bytes, uint64_t size) {
  return {reinterpret_cast<const char*>(bytes), static_cast<size_t>(size)};
}

const uint8_t* bytesOf(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

// Bytes of one element; 0 for texts and unknown types.
uint64_t elementBytes(GgufValueType type) {
  switch (type) {
    case GgufValueType::U8:
    case GgufValueType::I8:
    case GgufValueType::Bool:
      return 1;
    case GgufValueType::U16:
    case GgufValueType::I16:
      return 2;
    case GgufValueType::U32:
    case GgufValueType::I32:
    case GgufValueType::F32:
      return 4;
    case GgufValueType::U64:
    case GgufValueType::I64:
    case GgufValueType::F64:
      return 8;
    case GgufValueType::Str:
    case GgufValueType::Array:
      break;
  }
  return 0;
}

bool isSigned(GgufValueType type) {
  return type == GgufValueType::I8 || type == GgufValueType::I16 || type == GgufValueType::I32 ||
         type == GgufValueType::I64;
}

bool isInteger(GgufValueType type) {
  return elementBytes(type) != 0 && type != GgufValueType::F32 && type != GgufValueType::F64;
}

// Element `i` of integers, sign extended.
uint64_t integerAt(std::string_view payload, GgufValueType type, uint64_t i) {
  const uint64_t width = elementBytes(type);
  uint64_t value = 0;
  for (uint64_t b = 0; b < width; ++b) {
    value |= static_cast<uint64_t>(bytesOf(payload)[i * width + b]) << (8 * b);
  }
  if (!isSigned(type) || width == 0) return value;
  const uint64_t sign = uint64_t{1} << (8 * width - 1);
  return (value ^ sign) - sign;
}

bool readText(ByteCursor& cursor, std::string_view& out) {
  uint64_t length = 0;
  const uint8_t* bytes = nullptr;
  if (!cursor.read(length) || !cursor.view(bytes, length)) return false;
  out = textAt(bytes, length);
  return true;
}

// For messages: a name may be of any length and hold any bytes.
std::string quoted(std::string_view name) {
  return "'" + std::string(name.substr(0, 80)) + (name.size() > 80 ? "..." : "") + "'";
}

}  // namespace

bool GgufValue::getUint(uint64_t& out) const {
  if (array || !isInteger(type)) return false;
  const uint64_t value = integerAt(payload, type, 0);
  if (isSigned(type) && static_cast<int64_t>(value) < 0) return false;
  out = value;
  return true;
}

bool GgufValue::getFloat(double& out) const {
  if (array) return false;
  if (type == GgufValueType::F32) {
    out = std::bit_cast<float>(static_cast<uint32_t>(integerAt(payload, GgufValueType::U32, 0)));
  } else if (type == GgufValueType::F64) {
    out = std::bit_cast<double>(integerAt(payload, GgufValueType::U64, 0));
  } else if (isInteger(type)) {
    const uint64_t value = integerAt(payload, type, 0);
    out = isSigned(type) ? static_cast<double>(static_cast<int64_t>(value))
                         : static_cast<double>(value);
  } else {
    return false;
  }
  return true;
}

bool GgufValue::getBool(bool& out) const {
  if (array || type != GgufValueType::Bool) return false;
  out = integerAt(payload, type, 0) != 0;
  return true;
}

bool GgufValue::getText(std::string_view& out) const {
  if (array || type != GgufValueType::Str) return false;
  out = payload.substr(kLengthBytes);
  return true;
}

bool GgufValue::getUints(std::vector<uint64_t>& out) const {
  if (!isInteger(type)) return false;
  out.resize(count);
  for (uint64_t i = 0; i < count; ++i) out[i] = integerAt(payload, type, i);
  return true;
}

bool GgufValue::getTexts(std::vector<std::string_view>& out) const {
  if (!array || type != GgufValueType::Str) return false;
  out.clear();
  out.reserve(count);
  ByteCursor cursor(bytesOf(payload), payload.size());
  std::string_view text;
  while (readText(cursor, text)) out.push_back(text);
  return true;
}

class GgufFile::Parser {
 public:
  explicit Parser(GgufFile& gguf)
      : gguf_(gguf), begin_(gguf.file_.data()), size_(gguf.file_.size()), cursor_(begin_, size_) {}

  Status parse() {
    if (parseHeader() && parseValues() && parseTensors() && placeTensors() && checkOverlap()) {
      return {};
    }
    return invalidFormat(gguf_.file_.path() + ": " + problem_);
  }

 private:
  bool fail(std::string problem) {
    problem_ = std::move(problem);
    return false;
  }
  bool cutShort(const std::string& where) { return fail("the file ends inside " + where); }

  uint64_t position() const { return size_ - cursor_.remaining(); }

  bool parseHeader();
  bool parseValues();
  bool parseValue(GgufValue& value);
  bool parsePayload(GgufValue& value);
  bool parseTensors();
  bool parseTensor(GgufTensor& tensor, uint64_t& offset);
  bool measure(GgufTensor& tensor);
  bool placeTensors();
  bool checkOverlap();

  GgufFile& gguf_;
  const uint8_t* begin_;
  uint64_t size_;
  ByteCursor cursor_;
  uint64_t tensorCount_ = 0;
  uint64_t valueCount_ = 0;
  std::vector<uint64_t> offsets_;
  std::string problem_;
};

bool GgufFile::Parser::parseHeader() {
  const uint8_t* magic = nullptr;
  if (!cursor_.view(magic, kMagic.size()) || textAt(magic, kMagic.size()) != kMagic) {
    return fail("not a GGUF file");
  }
  uint32_t version = 0;
  if (!cursor_.read(version)) return cutShort("its header");
  if (version == uint32_t{kNewestVersion} << 24U || version == uint32_t{kOldestVersion} << 24U) {
    return fail("a big-endian GGUF file, needs a little-endian one");
  }
  if (version < kOldestVersion || version > kNewestVersion) {
    return fail("GGUF version " + std::to_string(version) + ", needs 2 or 3");
  }
  if (!cursor_.read(tensorCount_) || !cursor_.read(valueCount_)) return cutShort("its header");
  return true;
}

bool GgufFile::Parser::parseValues() {
  constexpr uint64_t kSmallest = kLengthBytes + sizeof(uint32_t) + 1;
  if (valueCount_ > std::min(kMaxValues, cursor_.remaining() / kSmallest)) {
    return fail("states " + std::to_string(valueCount_) + " metadata entries, more than fit");
  }
  gguf_.values_.resize(valueCount_);
  for (uint64_t i = 0; i < valueCount_; ++i) {
    GgufValue& value = gguf_.values_[i];
    if (!parseValue(value)) return false;
    if (!gguf_.byKey_.emplace(value.key, i).second) {
      return fail("metadata key " + quoted(value.key) + " occurs twice");
    }
  }
  return true;
}

bool GgufFile::Parser::parseValue(GgufValue& value) {
  const uint64_t start = position();
  if (!readText(cursor_, value.key)) return cutShort("a metadata key");
  uint32_t type = 0;
  if (!cursor_.read(type)) return cutShort("metadata " + quoted(value.key));
  if (type == static_cast<uint32_t>(GgufValueType::Array)) {
    value.array = true;
    if (!cursor_.read(type) || !cursor_.read(value.count)) {
      return cutShort("metadata " + quoted(value.key));
    }
    if (type == static_cast<uint32_t>(GgufValueType::Array)) {
      return fail("metadata " + quoted(value.key) + " is an array of arrays");
    }
  }
  if (type > static_cast<uint32_t>(GgufValueType::F64)) {
    return fail("metadata " + quoted(value.key) + " has the unknown type " + std::to_string(type));
  }
  value.type = static_cast<GgufValueType>(type);
  if (!parsePayload(value)) return cutShort("metadata " + quoted(value.key));
  value.entry = textAt(begin_ + start, position() - start);
  return true;
}

bool GgufFile::Parser::parsePayload(GgufValue& value) {
  const uint64_t start = position();
  if (value.type == GgufValueType::Str) {
    if (value.count > cursor_.remaining() / kLengthBytes) return false;
    std::string_view text;
    for (uint64_t i = 0; i < value.count; ++i) {
      if (!readText(cursor_, text)) return false;
    }
  } else {
    uint64_t bytes = 0;
    const uint8_t* elements = nullptr;
    if (!checkedMul(value.count, elementBytes(value.type), bytes)) return false;
    if (!cursor_.view(elements, bytes)) return false;
  }
  value.payload = textAt(begin_ + start, position() - start);
  return true;
}

bool GgufFile::Parser::parseTensors() {
  constexpr uint64_t kSmallest = kLengthBytes + 2 * sizeof(uint32_t) + sizeof(uint64_t);
  if (tensorCount_ > std::min(kMaxTensors, cursor_.remaining() / kSmallest)) {
    return fail("states " + std::to_string(tensorCount_) + " tensors, more than fit");
  }
  gguf_.tensors_.resize(tensorCount_);
  offsets_.resize(tensorCount_);
  std::unordered_set<std::string_view> names;
  for (uint64_t i = 0; i < tensorCount_; ++i) {
    GgufTensor& tensor = gguf_.tensors_[i];
    if (!parseTensor(tensor, offsets_[i]) || !measure(tensor)) return false;
    if (!names.insert(tensor.name).second) {
      return fail("tensor " + quoted(tensor.name) + " occurs twice");
    }
  }
  return true;
}

bool GgufFile::Parser::parseTensor(GgufTensor& tensor, uint64_t& offset) {
  if (!readText(cursor_, tensor.name)) return cutShort("a tensor's name");
  const std::string where = "the description of tensor " + quoted(tensor.name);
  uint32_t dims = 0;
  if (!cursor_.read(dims)) return cutShort(where);
  if (dims > kMaxDims) {
    return fail("tensor " + quoted(tensor.name) + " has " + std::to_string(dims) +
                " extents, more than " + std::to_string(kMaxDims));
  }
  tensor.shape.resize(dims);
  for (uint64_t& extent : tensor.shape) {
    if (!cursor_.read(extent)) return cutShort(where);
  }
  uint32_t type = 0;
  if (!cursor_.read(type) || !cursor_.read(offset)) return cutShort(where);
  tensor.type = static_cast<GgufType>(type);
  return true;
}

bool GgufFile::Parser::measure(GgufTensor& tensor) {
  const uint64_t block = ggufBlockSize(tensor.type);
  if (block == 0) return true;
  const uint64_t row = tensor.shape.empty() ? 1 : tensor.shape[0];
  if (row % block != 0) {
    return fail("tensor " + quoted(tensor.name) + " has rows of " + std::to_string(row) +
                " elements, no multiple of the " + std::to_string(block) + " of a " +
                ggufTypeName(tensor.type) + " block");
  }
  bool fits = checkedMul(row / block, ggufBlockBytes(tensor.type), tensor.bytes);
  for (size_t i = 1; i < tensor.shape.size(); ++i) {
    fits = fits && checkedMul(tensor.bytes, tensor.shape[i], tensor.bytes);
  }
  return fits || fail("tensor " + quoted(tensor.name) + " is larger than a file can be");
}

// Offsets count from the first multiple of the alignment behind the descriptions.
bool GgufFile::Parser::placeTensors() {
  uint64_t alignment = kDefaultAlignment;
  if (const GgufValue* value = gguf_.find("general.alignment")) {
    if (!value->getUint(alignment) || !std::has_single_bit(alignment) ||
        alignment > kMaxAlignment) {
      return fail("metadata 'general.alignment' is no power of two up to " +
                  std::to_string(kMaxAlignment));
    }
  }
  if (tensorCount_ == 0) return true;
  const uint64_t start = (position() + alignment - 1) / alignment * alignment;
  for (uint64_t i = 0; i < tensorCount_; ++i) {
    GgufTensor& tensor = gguf_.tensors_[i];
    const uint64_t room = start <= size_ ? size_ - start : 0;
    if (start > size_ || offsets_[i] > room || tensor.bytes > room - offsets_[i]) {
      return fail("tensor " + quoted(tensor.name) + " lies outside the file, which has " +
                  std::to_string(size_) + " bytes; was it copied whole?");
    }
    if (offsets_[i] % alignment != 0) {
      return fail("tensor " + quoted(tensor.name) + " is not aligned to " +
                  std::to_string(alignment) + " bytes");
    }
    tensor.data = begin_ + start + offsets_[i];
  }
  return true;
}

bool GgufFile::Parser::checkOverlap() {
  std::vector<const GgufTensor*> sorted;
  for (const GgufTensor& tensor : gguf_.tensors_) {
    if (tensor.bytes > 0) sorted.push_back(&tensor);
  }
  std::sort(sorted.begin(), sorted.end(),
            [](const GgufTensor* a, const GgufTensor* b) { return a->data < b->data; });
  for (size_t i = 1; i < sorted.size(); ++i) {
    if (sorted[i]->data < sorted[i - 1]->data + sorted[i - 1]->bytes) {
      return fail("tensors " + quoted(sorted[i - 1]->name) + " and " + quoted(sorted[i]->name) +
                  " overlap");
    }
  }
  return true;
}

Status GgufFile::open(const std::string& path) {
  values_.clear();
  byKey_.clear();
  tensors_.clear();
  if (Status s = file_.open(path); !s.ok()) return s;
  Status s = Parser(*this).parse();
  if (!s.ok()) {
    values_.clear();
    byKey_.clear();
    tensors_.clear();
    file_.close();
  }
  return s;
}

const GgufValue* GgufFile::find(std::string_view key) const {
  const auto found = byKey_.find(key);
  return found == byKey_.end() ? nullptr : &values_[found->second];
}

}  // namespace kiv
