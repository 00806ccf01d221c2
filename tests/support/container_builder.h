// SPDX-License-Identifier: Apache-2.0
// Containers made in memory, and ways to damage them.
//
// Nothing here uses the library's writer, its checksum or its records: offsets
// and arithmetic are stated a second time, so that a mistake on one side shows.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kiv/tensor.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2.h"

namespace zemtest {

using Bytes = std::vector<uint8_t>;

// ---- Little-endian bytes ----

inline void putUint(Bytes& out, uint64_t value, size_t width) {
  for (size_t i = 0; i < width; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}
inline void putU16(Bytes& out, uint16_t value) { putUint(out, value, 2); }
inline void putU32(Bytes& out, uint32_t value) { putUint(out, value, 4); }
inline void putU64(Bytes& out, uint64_t value) { putUint(out, value, 8); }
inline void putF32(Bytes& out, float value) { putU32(out, std::bit_cast<uint32_t>(value)); }
inline void putI32(Bytes& out, int32_t value) { putU32(out, static_cast<uint32_t>(value)); }
inline void putText(Bytes& out, std::string_view text) {
  for (const char c : text) out.push_back(static_cast<uint8_t>(c));
}
inline void putString(Bytes& out, std::string_view text) {  // u32 length, bytes
  putU32(out, static_cast<uint32_t>(text.size()));
  putText(out, text);
}

inline uint64_t getUint(const Bytes& bytes, size_t offset, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) {
    value |= static_cast<uint64_t>(bytes.at(offset + i)) << (8 * i);
  }
  return value;
}
inline void setUint(Bytes& bytes, size_t offset, size_t width, uint64_t value) {
  for (size_t i = 0; i < width; ++i) bytes.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
}

// The container's checksum, one bit at a time.
inline uint64_t bitwiseCrc(const uint8_t* data, size_t size) {
  uint64_t crc = 0;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1) != 0 ? (crc >> 1) ^ 0x42F0E1EBA9EA3693 : crc >> 1;
    }
  }
  return crc;
}

// ---- The fields of a finished container ----

struct HeaderField {
  size_t offset, width;
};
namespace header {
inline constexpr HeaderField magic{0, 4}, version{4, 4}, endian{8, 4}, sectionCount{12, 4},
    modelType{16, 4}, padding0{20, 4}, hiddenSize{24, 8}, layerCount{32, 4}, vocabSize{36, 4},
    tensorCount{40, 4}, reserved{44, 8}, padding1{52, 4}, crc64{56, 8};
}  // namespace header

struct SectionField {
  size_t offset, width;
};
namespace section {
inline constexpr SectionField type{0, 4}, flags{4, 4}, offset{8, 8}, size{16, 8};
}  // namespace section

struct TensorField {
  size_t offset, width;
};
namespace tensor {
inline constexpr TensorField nameLen{64, 2}, dtype{66, 2}, ndim{68, 2}, pad{70, 2}, shape0{72, 8},
    shape1{80, 8}, shape2{88, 8}, shape3{96, 8}, offset{104, 8}, size{112, 8}, reserved{120, 8};
}  // namespace tensor

inline constexpr size_t kHeaderBytes = 64, kSectionBytes = 24, kTensorBytes = 128, kQuantBytes = 32;

inline uint64_t get(const Bytes& file, HeaderField field) {
  return getUint(file, field.offset, field.width);
}
inline void set(Bytes& file, HeaderField field, uint64_t value) {
  setUint(file, field.offset, field.width, value);
}

// Entry `i` of the section table.
inline uint64_t get(const Bytes& file, size_t i, SectionField field) {
  return getUint(file, kHeaderBytes + kSectionBytes * i + field.offset, field.width);
}
inline void set(Bytes& file, size_t i, SectionField field, uint64_t value) {
  setUint(file, kHeaderBytes + kSectionBytes * i + field.offset, field.width, value);
}

// Position in the section table of the first section of this type.
inline size_t sectionIndex(const Bytes& file, kiv::zem2::SectionType type) {
  const size_t count = get(file, header::sectionCount);
  for (size_t i = 0; i < count; ++i) {
    if (get(file, i, section::type) == static_cast<uint64_t>(type)) return i;
  }
  throw std::out_of_range("the container has no such section");
}
inline size_t sectionOffset(const Bytes& file, kiv::zem2::SectionType type) {
  return get(file, sectionIndex(file, type), section::offset);
}
inline size_t sectionSize(const Bytes& file, kiv::zem2::SectionType type) {
  return get(file, sectionIndex(file, type), section::size);
}

// Entry `i` of the tensor index, which is sorted by name.
inline size_t tensorOffset(const Bytes& file, size_t i) {
  return sectionOffset(file, kiv::zem2::SectionType::TensorIndex) + kTensorBytes * i;
}
inline uint64_t get(const Bytes& file, size_t i, TensorField field) {
  return getUint(file, tensorOffset(file, i) + field.offset, field.width);
}
inline void set(Bytes& file, size_t i, TensorField field, uint64_t value) {
  setUint(file, tensorOffset(file, i) + field.offset, field.width, value);
}
// Position in the index of the tensor of this name.
inline size_t tensorIndex(const Bytes& file, std::string_view name) {
  const size_t count = get(file, header::tensorCount);
  for (size_t i = 0; i < count; ++i) {
    const auto* at = reinterpret_cast<const char*>(file.data() + tensorOffset(file, i));
    if (std::string_view(at, get(file, i, tensor::nameLen)) == name) return i;
  }
  throw std::out_of_range("the container has no such tensor");
}

// Makes the checksum fit again after header or section table were changed, so
// that a test meets the check behind it.
inline void reseal(Bytes& file) {
  const size_t wanted = kHeaderBytes + kSectionBytes * get(file, header::sectionCount);
  const size_t end = std::min(wanted, file.size());
  Bytes covered(file.begin(), file.begin() + header::crc64.offset);
  covered.insert(covered.end(), file.begin() + kHeaderBytes,
                 file.begin() + static_cast<ptrdiff_t>(end));
  set(file, header::crc64, bitwiseCrc(covered.data(), covered.size()));
}

// ---- The builder ----

// The container's spelling of a tokenizer.
inline Bytes tokenizerBytes(const kiv::TokenizerData& data) {
  Bytes out;
  putText(out, "TKNZ");
  putString(out, data.chatTemplate);
  putU32(out, static_cast<uint32_t>(data.tokens.size()));
  for (const auto& token : data.tokens) putString(out, token);
  putU32(out, static_cast<uint32_t>(data.scores.size()));
  for (float score : data.scores) putF32(out, score);
  putU32(out, static_cast<uint32_t>(data.tokenTypes.size()));
  for (int32_t type : data.tokenTypes) putI32(out, type);
  putU32(out, static_cast<uint32_t>(data.merges.size()));
  for (const auto& merge : data.merges) putString(out, merge);
  for (int32_t id : {data.bosId, data.eosId, data.unkId, data.padId}) putI32(out, id);
  out.push_back(data.addBos ? 1 : 0);
  return out;
}

// Collects the parts of a container; build() lays them out. A builder on which
// nothing was called gives a container that opens: no metadata, no tensors, a
// tokenizer of three tokens. Setters return the builder, for chains.
class ContainerBuilder {
 public:
  ContainerBuilder() {
    kiv::TokenizerData tiny;
    tiny.tokens = {"a", "b", "ab"};
    tokenizer(tiny);
  }

  ContainerBuilder& modelType(uint32_t v) { return modelType_ = v, *this; }
  ContainerBuilder& hiddenSize(uint64_t v) { return hiddenSize_ = v, *this; }
  ContainerBuilder& layerCount(uint32_t v) { return layerCount_ = v, *this; }
  ContainerBuilder& vocabSize(uint32_t v) { return vocabSize_ = v, *this; }

  ContainerBuilder& addMetaU32(std::string_view key, uint32_t v) {
    return putU32(beginMeta(key, 0), v), *this;
  }
  ContainerBuilder& addMetaI32(std::string_view key, int32_t v) {
    return putI32(beginMeta(key, 1), v), *this;
  }
  ContainerBuilder& addMetaF32(std::string_view key, float v) {
    return putF32(beginMeta(key, 2), v), *this;
  }
  ContainerBuilder& addMetaU64(std::string_view key, uint64_t v) {
    return putU64(beginMeta(key, 3), v), *this;
  }
  ContainerBuilder& addMetaStr(std::string_view key, std::string_view v) {
    return putString(beginMeta(key, 4), v), *this;
  }
  ContainerBuilder& addMetaU32Array(std::string_view key, const std::vector<uint32_t>& v) {
    Bytes& out = beginMeta(key, 5);
    putU32(out, static_cast<uint32_t>(v.size()));
    for (uint32_t element : v) putU32(out, element);
    return *this;
  }
  // The whole Meta payload, in place of the entries added so far.
  ContainerBuilder& rawMeta(Bytes payload) { return meta_ = std::move(payload), *this; }

  ContainerBuilder& tokenizer(const kiv::TokenizerData& data) {
    return rawTokenizer(tokenizerBytes(data));
  }
  ContainerBuilder& rawTokenizer(Bytes payload) {
    tokenizer_ = std::move(payload);
    omitted_.erase(kiv::zem2::SectionType::Tokenizer);
    return *this;
  }
  ContainerBuilder& noTokenizer() { return omit(kiv::zem2::SectionType::Tokenizer); }

  // Without a call there is no Graph section; an empty one is possible.
  ContainerBuilder& graph(Bytes payload) {
    graph_ = std::move(payload);
    hasGraph_ = true;
    return *this;
  }

  // shape[0] is the innermost extent. `data` is stored as it is, whatever type
  // and shape say. Names above 64 bytes are cut.
  ContainerBuilder& addTensor(std::string name, kiv::DType dtype, std::vector<uint64_t> shape,
                              Bytes data) {
    tensors_.push_back({std::move(name), dtype, std::move(shape), std::move(data), {}});
    return *this;
  }
  // A second name for the bytes of `target`, which are stored once.
  ContainerBuilder& addTensorAlias(std::string name, kiv::DType dtype, std::vector<uint64_t> shape,
                                   std::string target) {
    tensors_.push_back({std::move(name), dtype, std::move(shape), {}, std::move(target)});
    return *this;
  }

  // Adds a QuantInfo section with one entry a tensor. Off unless asked for.
  ContainerBuilder& quantInfo(bool on = true) { return quantInfo_ = on, *this; }

  // A further section, behind the known ones in the table and in the file. Its
  // type may be one that the container has already.
  ContainerBuilder& addSection(kiv::zem2::SectionType type, Bytes payload) {
    extra_.emplace_back(type, std::move(payload));
    return *this;
  }
  // Leaves out a section that would be written otherwise.
  ContainerBuilder& omit(kiv::zem2::SectionType type) { return omitted_.insert(type), *this; }

  // The file: header, section table, Meta, Tokenizer, Graph, TensorIndex,
  // QuantInfo, WeightData, further sections; tensors sorted by name.
  Bytes build() const {
    const std::vector<Placed> placed = placeTensors();
    std::vector<Section> sections = planSections(placed);
    size_t end = kHeaderBytes + kSectionBytes * sections.size();
    for (Section& s : sections) {
      s.offset = align(end);
      end = s.offset + s.size;
    }

    Bytes file(end);
    writeHeader(file, sections.size());
    for (size_t i = 0; i < sections.size(); ++i) {
      const Section& s = sections[i];
      set(file, i, section::type, static_cast<uint64_t>(s.type));
      set(file, i, section::offset, s.offset);
      set(file, i, section::size, s.size);
      copyTo(file, s.offset, s.payload);
      if (s.type != kiv::zem2::SectionType::WeightData || !s.payload.empty()) continue;
      for (const Placed& p : placed) copyTo(file, s.offset + p.offset, p.tensor->data);
    }
    reseal(file);
    return file;
  }

 private:
  struct Tensor {
    std::string name;
    kiv::DType dtype;
    std::vector<uint64_t> shape;
    Bytes data;
    std::string target;  // of an alias; then data is empty
  };
  struct Placed {
    const Tensor* tensor;
    size_t offset;  // in WeightData
    size_t size;
  };
  struct Section {
    kiv::zem2::SectionType type;
    Bytes payload;  // left empty for the weights, which may be large
    size_t size;
    size_t offset = 0;
  };

  static size_t align(size_t offset) { return (offset + 63) / 64 * 64; }

  static void copyTo(Bytes& file, size_t offset, const Bytes& data) {
    if (!data.empty()) std::memcpy(file.data() + offset, data.data(), data.size());
  }

  Bytes& beginMeta(std::string_view key, uint8_t tag) {
    setUint(meta_, 0, 4, getUint(meta_, 0, 4) + 1);
    putU16(meta_, static_cast<uint16_t>(key.size()));
    putText(meta_, key);
    meta_.push_back(tag);
    return meta_;
  }

  // The tensors in name order with their places; names are unique, so the
  // unsigned byte order of std::string is the index's order.
  std::vector<Placed> placeTensors() const {
    std::vector<Placed> placed;
    for (const Tensor& t : tensors_) placed.push_back({&t, 0, t.data.size()});
    std::sort(placed.begin(), placed.end(),
              [](const Placed& a, const Placed& b) { return a.tensor->name < b.tensor->name; });
    std::map<std::string_view, Placed> stored;
    size_t end = 0;
    for (Placed& p : placed) {
      if (!p.tensor->target.empty()) continue;
      p.offset = align(end);
      end = p.offset + p.size;
      stored.emplace(p.tensor->name, p);
    }
    for (Placed& p : placed) {
      if (p.tensor->target.empty()) continue;
      const Placed& target = stored.at(p.tensor->target);
      p.offset = target.offset;
      p.size = target.size;
    }
    return placed;
  }

  std::vector<Section> planSections(const std::vector<Placed>& placed) const {
    using kiv::zem2::SectionType;
    std::vector<Section> sections;
    const auto add = [&](SectionType type, Bytes payload) {
      const size_t size = payload.size();
      if (!omitted_.contains(type)) sections.push_back({type, std::move(payload), size});
    };
    add(SectionType::Meta, meta_);
    add(SectionType::Tokenizer, tokenizer_);
    if (hasGraph_) add(SectionType::Graph, graph_);
    add(SectionType::TensorIndex, indexBytes(placed));
    if (quantInfo_) add(SectionType::QuantInfo, quantBytes(placed));
    if (!omitted_.contains(SectionType::WeightData)) {
      size_t size = 0;
      for (const Placed& p : placed) size = std::max(size, p.offset + p.size);
      sections.push_back({SectionType::WeightData, {}, size});
    }
    for (const auto& [type, payload] : extra_) {
      sections.push_back({type, payload, payload.size()});
    }
    return sections;
  }

  static Bytes indexBytes(const std::vector<Placed>& placed) {
    Bytes out;
    for (const auto& [t, offset, size] : placed) {
      const size_t begin = out.size();
      const std::string_view name = std::string_view(t->name).substr(0, 64);
      putText(out, name);
      out.resize(begin + 64);
      putU16(out, static_cast<uint16_t>(name.size()));
      putU16(out, static_cast<uint16_t>(t->dtype));
      putU16(out, static_cast<uint16_t>(t->shape.size()));
      putU16(out, 0);
      for (size_t d = 0; d < 4; ++d) putU64(out, d < t->shape.size() ? t->shape[d] : 0);
      putU64(out, offset);
      putU64(out, size);
      putU64(out, 0);
    }
    return out;
  }

  // Block size, bytes, bytes that hold scales and where they begin, where the
  // super-scale of the minima lies. Zeroes for a type without a defined layout.
  static std::array<uint32_t, 5> blockLayout(kiv::DType dtype) {
    switch (dtype) {
      case kiv::DType::F32:
        return {1, 4, 0, 0, 0};
      case kiv::DType::F16:
      case kiv::DType::BF16:
        return {1, 2, 0, 0, 0};
      case kiv::DType::Q4_0:
        return {32, 18, 2, 0, 0};
      case kiv::DType::Q8_0:
        return {32, 34, 2, 0, 0};
      case kiv::DType::Q4_K:
        return {256, 144, 16, 0, 2};
      case kiv::DType::Q5_K:
        return {256, 176, 16, 0, 2};
      case kiv::DType::Q6_K:
        return {256, 210, 18, 192, 0};
      case kiv::DType::Q8_K:
        return {256, 290, 2, 0, 0};
      default:
        return {};
    }
  }

  static Bytes quantBytes(const std::vector<Placed>& placed) {
    Bytes out;
    for (const Placed& p : placed) {
      const auto [blockSize, blockBytes, scaleBytes, scaleOffset, zeroOffset] =
          blockLayout(p.tensor->dtype);
      putU16(out, static_cast<uint16_t>(p.tensor->dtype));
      putU16(out, static_cast<uint16_t>(blockSize));
      for (uint32_t v : {blockBytes, scaleBytes, scaleOffset, zeroOffset, 0U}) putU32(out, v);
      putU64(out, 0);
    }
    return out;
  }

  void writeHeader(Bytes& file, size_t sectionCount) const {
    std::memcpy(file.data(), "ZEM2", 4);
    set(file, header::version, 2);
    set(file, header::endian, 0x01020304);
    set(file, header::sectionCount, sectionCount);
    set(file, header::modelType, modelType_);
    set(file, header::hiddenSize, hiddenSize_);
    set(file, header::layerCount, layerCount_);
    set(file, header::vocabSize, vocabSize_);
    set(file, header::tensorCount, tensors_.size());
  }

  uint32_t modelType_ = 0;
  uint64_t hiddenSize_ = 0;
  uint32_t layerCount_ = 0;
  uint32_t vocabSize_ = 0;
  Bytes meta_ = Bytes(4);  // the count of entries, then the entries
  Bytes tokenizer_;
  Bytes graph_;
  bool hasGraph_ = false;
  bool quantInfo_ = false;
  std::vector<Tensor> tensors_;
  std::vector<std::pair<kiv::zem2::SectionType, Bytes>> extra_;
  std::set<kiv::zem2::SectionType> omitted_;
};

}  // namespace zemtest
