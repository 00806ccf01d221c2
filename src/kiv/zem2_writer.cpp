// SPDX-License-Identifier: Apache-2.0
#include "kiv/zem2_writer.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "compat/replacing_file.h"
#include "kiv/math/checked.h"
#include "kiv/quant_k.h"

namespace kiv {
namespace {

using zem2::MetaType;
using zem2::SectionType;

static_assert(std::endian::native == std::endian::little,
              "the records of the format are written as they lie in memory");

constexpr uint64_t kMaxFileBytes = std::numeric_limits<int64_t>::max();

uint64_t alignUp(uint64_t n) {
  return (n + zem2::kAlignment - 1) / zem2::kAlignment * zem2::kAlignment;
}

template <typename T>
void put(std::string& out, const T& value) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.append(bytes, sizeof(T));
}

template <typename T>
void putArray(std::string& out, const std::vector<T>& values) {
  put(out, static_cast<uint32_t>(values.size()));
  out.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T));
}

void putString(std::string& out, const std::string& text) {
  put(out, static_cast<uint32_t>(text.size()));
  out += text;
}

void putStrings(std::string& out, const std::vector<std::string>& texts) {
  put(out, static_cast<uint32_t>(texts.size()));
  for (const std::string& text : texts) putString(out, text);
}

bool fitsU32(size_t n) { return n <= std::numeric_limits<uint32_t>::max(); }

bool allFitU32(const std::vector<std::string>& texts) {
  return std::all_of(texts.begin(), texts.end(),
                     [](const std::string& text) { return fitsU32(text.size()); });
}

// Whether the tables fit the section's counts and lengths.
Status checkTokenizer(const TokenizerData& data) {
  const size_t largest = std::max(
      {data.tokens.size(), data.scores.size(), data.tokenTypes.size(), data.merges.size()});
  if (largest > zem2::kMaxTokenizerCount) {
    return invalidFormat("the tokenizer has a table of more than 67108864 entries");
  }
  if (!fitsU32(data.chatTemplate.size()) || !allFitU32(data.tokens) || !allFitU32(data.merges)) {
    return invalidFormat("the tokenizer has a text of 4 GiB or more");
  }
  return {};
}

std::string tokenizerBytes(const TokenizerData& data) {
  std::string out(zem2::kTokenizerMagic, sizeof(zem2::kTokenizerMagic));
  putString(out, data.chatTemplate);
  putStrings(out, data.tokens);
  putArray(out, data.scores);
  putArray(out, data.tokenTypes);
  putStrings(out, data.merges);
  for (const int32_t id : {data.bosId, data.eosId, data.unkId, data.padId}) put(out, id);
  put(out, static_cast<uint8_t>(data.addBos ? 1 : 0));
  return out;
}

// Where a block keeps its scales: scaleBytes bytes from scaleOffset on, and at
// zeroOffset the factor of the minima (0: the type has none). Plain numbers
// have no scales.
zem2::QuantEntry quantEntry(DType type) {
  zem2::QuantEntry entry{};
  const uint64_t block = dtypeBlockSize(type);
  entry.quantType = static_cast<uint16_t>(type);
  entry.blockSize = static_cast<uint16_t>(block);
  entry.bytesPerBlock = static_cast<uint32_t>(dtypeBytes(type, block));
  switch (type) {
    case DType::Q4_0:
    case DType::Q8_0:
    case DType::Q8_K:
      entry.scaleBytes = sizeof(uint16_t);
      break;
    case DType::Q4_K:
    case DType::Q5_K:
      entry.scaleBytes = offsetof(quant::Q4KBlock, scales) + sizeof(quant::Q4KBlock::scales);
      entry.zeroOffset = offsetof(quant::Q4KBlock, dmin);
      break;
    case DType::Q6_K:
      entry.scaleOffset = offsetof(quant::Q6KBlock, scales);
      entry.scaleBytes = sizeof(quant::Q6KBlock) - offsetof(quant::Q6KBlock, scales);
      break;
    default:
      break;
  }
  return entry;
}

bool writtenByItself(SectionType type) {
  switch (type) {
    case SectionType::Meta:
    case SectionType::Tokenizer:
    case SectionType::Graph:
    case SectionType::TensorIndex:
    case SectionType::QuantInfo:
    case SectionType::WeightData:
      return true;
    default:
      return false;
  }
}

// For messages: a name may be of any length and hold any bytes.
std::string nameInQuotes(const std::string& name) {
  return "'" + (name.size() > 80 ? name.substr(0, 80) + "..." : name) + "'";
}

}  // namespace

struct ZEM2Writer::Impl {
  enum class State { Declaring, Streaming, Finished, Failed };

  struct Tensor {
    DType type = DType::F32;
    std::vector<uint64_t> shape;
    uint64_t bytes = 0;
    uint64_t offset = 0;  // in WeightData
    std::string target;   // of an alias; empty for a tensor with its own bytes
  };

  struct Section {
    SectionType type;
    std::string bytes;
  };

  // Every failure is final: the partial file goes, and later calls repeat it.
  Status fail(Status status) {
    if (state == State::Failed) return failure;
    state = State::Failed;
    failure = std::move(status);
    file.discard();
    return failure;
  }
  Status failInvalid(const std::string& message) {
    return fail(invalidFormat("ZEM2Writer: " + message));
  }
  Status failIO() { return fail(ioError(file.error())); }

  // For the declaring calls, which have no result: begin() returns the failure.
  bool declaring() {
    if (state == State::Streaming) (void)failInvalid("a declaration after begin()");
    return state == State::Declaring;
  }
  void refuse(const std::string& message) { (void)failInvalid(message); }

  Status misuse(const char* call) {
    if (state == State::Failed) return failure;
    const std::string message = std::string(call) + " called out of order";
    if (state == State::Finished) {
      return invalidFormat("ZEM2Writer: " + message);
    }
    return failInvalid(message);
  }

  // `count` is the length that a text or an array states in 32 bits.
  template <typename Encode>
  void addMeta(const std::string& key, MetaType type, size_t count, const Encode& encodeValue) {
    if (!declaring()) return;
    if (key.size() > std::numeric_limits<uint16_t>::max()) {
      return refuse("metadata key " + nameInQuotes(key) + " is longer than 65535 bytes");
    }
    if (!fitsU32(count)) return refuse("metadata " + nameInQuotes(key) + " is too long");
    put(meta, static_cast<uint16_t>(key.size()));
    meta += key;
    put(meta, static_cast<uint8_t>(type));
    encodeValue(meta);
    ++metaCount;
  }

  bool nameIsGood(const std::string& name);
  void addTensor(const std::string& name, Tensor tensor);
  Status layOut();
  std::vector<Section> buildSections();
  std::string indexBytes() const;
  Status writeFront(const std::vector<Section>& sections);
  bool padTo(uint64_t offset);
  Status startNextTensor();
  zem2::Header header() const;

  State state = State::Declaring;
  Status failure;

  ZEM2ModelHeader model;
  std::string meta;
  uint32_t metaCount = 0;
  std::string tokenizer;  // encoded; empty when there is none
  std::string graph;
  bool hasGraph = false;
  std::vector<Section> extra;
  std::map<std::string, Tensor> tensors;  // the order that the index needs

  compat::ReplacingFile file;
  std::vector<zem2::SectionEntry> table;
  std::vector<std::string> order;
  uint64_t totalBytes = 0;
  uint64_t weightBytes = 0;  // with the padding between tensors
  uint64_t weightStart = 0;
  size_t nextTensor = 0;  // in order; the one before it is being written
  uint64_t bytesLeft = 0;
};

bool ZEM2Writer::Impl::nameIsGood(const std::string& name) {
  const auto refuseIf = [&](bool wrong, const char* what) {
    if (wrong) refuse("tensor name " + nameInQuotes(name) + " " + what);
    return wrong;
  };
  // A search by name stops at a NUL byte.
  return !refuseIf(name.empty(), "is empty") &&
         !refuseIf(name.size() > zem2::kMaxNameBytes, "is longer than 64 bytes") &&
         !refuseIf(name.find('\0') != std::string::npos, "contains a NUL byte") &&
         !refuseIf(tensors.count(name) != 0, "is used twice");
}

void ZEM2Writer::Impl::addTensor(const std::string& name, Tensor tensor) {
  if (tensor.shape.size() > zem2::kMaxDims) {
    return refuse("tensor " + nameInQuotes(name) + " has more than 4 extents");
  }
  if (std::count(tensor.shape.begin(), tensor.shape.end(), 0) != 0) {
    return refuse("tensor " + nameInQuotes(name) + " has an extent of 0");
  }
  tensor.bytes = dtypeBytes(tensor.type, 1);
  if (tensor.bytes == 0) {
    return refuse("tensor " + nameInQuotes(name) + " has a type without a layout, " +
                  dtypeName(tensor.type));
  }
  if (!tensor.shape.empty()) tensor.bytes = dtypeBytes(tensor.type, tensor.shape[0]);
  bool fits = tensor.bytes != 0;
  for (size_t i = 1; i < tensor.shape.size(); ++i) {
    fits = fits && checkedMul(tensor.bytes, tensor.shape[i], tensor.bytes);
  }
  if (!fits || tensor.bytes > kMaxFileBytes) {
    return refuse("tensor " + nameInQuotes(name) + " is larger than a file can be");
  }
  tensors.emplace(name, std::move(tensor));
}

// Resolves aliases and gives every tensor its place.
Status ZEM2Writer::Impl::layOut() {
  if (!fitsU32(tensors.size())) return failInvalid("more tensors than the header can count");
  for (auto& [name, tensor] : tensors) {
    if (!tensor.target.empty()) continue;
    tensor.offset = alignUp(weightBytes);
    weightBytes = tensor.offset + tensor.bytes;
    if (weightBytes > kMaxFileBytes) {
      return failInvalid("the tensors up to " + nameInQuotes(name) +
                         " are larger than a file can be");
    }
    totalBytes += tensor.bytes;
    order.push_back(name);
  }
  for (auto& [name, tensor] : tensors) {
    if (tensor.target.empty()) continue;
    const auto target = tensors.find(tensor.target);
    if (target == tensors.end() || !target->second.target.empty()) {
      return failInvalid("alias " + nameInQuotes(name) + " stands for " +
                         nameInQuotes(tensor.target) + ", which is not a tensor of its own");
    }
    tensor.type = target->second.type;
    tensor.shape = target->second.shape;
    tensor.bytes = target->second.bytes;
    tensor.offset = target->second.offset;
  }
  return {};
}

std::string ZEM2Writer::Impl::indexBytes() const {
  std::string out;
  for (const auto& [name, tensor] : tensors) {
    zem2::TensorEntry entry{};
    std::memcpy(entry.name, name.data(), name.size());
    entry.nameLen = static_cast<uint16_t>(name.size());
    entry.dtype = static_cast<uint16_t>(tensor.type);
    entry.ndim = static_cast<uint16_t>(tensor.shape.size());
    std::copy(tensor.shape.begin(), tensor.shape.end(), entry.shape);
    entry.offset = tensor.offset;
    entry.size = tensor.bytes;
    put(out, entry);
  }
  return out;
}

std::vector<ZEM2Writer::Impl::Section> ZEM2Writer::Impl::buildSections() {
  std::vector<Section> sections;
  std::string metaSection;
  put(metaSection, metaCount);
  metaSection += meta;
  sections.push_back({SectionType::Meta, std::move(metaSection)});
  if (!tokenizer.empty()) sections.push_back({SectionType::Tokenizer, std::move(tokenizer)});
  if (hasGraph) sections.push_back({SectionType::Graph, std::move(graph)});
  sections.push_back({SectionType::TensorIndex, indexBytes()});
  std::string quantInfo;
  for (const auto& entry : tensors) put(quantInfo, quantEntry(entry.second.type));
  sections.push_back({SectionType::QuantInfo, std::move(quantInfo)});
  std::move(extra.begin(), extra.end(), std::back_inserter(sections));
  return sections;
}

bool ZEM2Writer::Impl::padTo(uint64_t offset) {
  static constexpr char kZeros[zem2::kAlignment] = {};
  return file.append(kZeros, static_cast<size_t>(offset - file.size()));
}

// Header and table stay zero until finish(), so that no reader accepts a file that is
// not whole.
Status ZEM2Writer::Impl::writeFront(const std::vector<Section>& sections) {
  table.resize(sections.size() + 1);
  const std::string zeros(sizeof(zem2::Header) + table.size() * sizeof(zem2::SectionEntry), '\0');
  bool written = file.append(zeros.data(), zeros.size());
  for (size_t i = 0; i < sections.size(); ++i) {
    written = written && padTo(alignUp(file.size()));
    table[i] = {static_cast<uint32_t>(sections[i].type), 0, file.size(), sections[i].bytes.size()};
    written = written && file.append(sections[i].bytes.data(), sections[i].bytes.size());
  }
  weightStart = alignUp(file.size());
  table.back() = {static_cast<uint32_t>(SectionType::WeightData), 0, weightStart, weightBytes};
  if (!written || !padTo(weightStart) || !file.flush()) return failIO();
  return {};
}

Status ZEM2Writer::Impl::startNextTensor() {
  if (nextTensor == order.size()) return failInvalid("more bytes than the tensors hold");
  const Tensor& tensor = tensors.at(order[nextTensor++]);
  bytesLeft = tensor.bytes;
  return padTo(weightStart + tensor.offset) ? Status() : failIO();
}

zem2::Header ZEM2Writer::Impl::header() const {
  zem2::Header h{};
  std::memcpy(h.magic, zem2::kMagic, sizeof(h.magic));
  h.version = zem2::kVersion;
  h.endian = zem2::kEndianMark;
  h.sectionCount = static_cast<uint32_t>(table.size());
  h.modelType = model.modelType;
  h.hiddenSize = model.hiddenSize;
  h.layerCount = model.layerCount;
  h.vocabSize = model.vocabSize;
  h.tensorCount = static_cast<uint32_t>(tensors.size());
  const auto* headerBytes = reinterpret_cast<const uint8_t*>(&h);
  const auto* tableBytes = reinterpret_cast<const uint8_t*>(table.data());
  h.crc64 = zem2::crc64Update(zem2::crc64Update(0, headerBytes, offsetof(zem2::Header, crc64)),
                              tableBytes, table.size() * sizeof(zem2::SectionEntry));
  return h;
}

ZEM2Writer::ZEM2Writer() : impl_(std::make_unique<Impl>()) {}
ZEM2Writer::~ZEM2Writer() = default;

void ZEM2Writer::setModel(const ZEM2ModelHeader& model) {
  if (impl_->declaring()) impl_->model = model;
}

void ZEM2Writer::setTokenizer(const TokenizerData& tokenizer) {
  if (!impl_->declaring()) return;
  if (Status fits = checkTokenizer(tokenizer); !fits.ok()) return impl_->refuse(fits.message());
  impl_->tokenizer = tokenizerBytes(tokenizer);
}

void ZEM2Writer::setGraph(std::string bytes) {
  if (!impl_->declaring()) return;
  impl_->graph = std::move(bytes);
  impl_->hasGraph = true;
}

void ZEM2Writer::addSection(zem2::SectionType type, std::string bytes) {
  if (!impl_->declaring()) return;
  if (writtenByItself(type)) {
    return impl_->refuse("section type " + std::to_string(static_cast<uint32_t>(type)) +
                         " has a call of its own");
  }
  impl_->extra.push_back({type, std::move(bytes)});
}

void ZEM2Writer::addMetaU32(const std::string& key, uint32_t value) {
  impl_->addMeta(key, MetaType::U32, 1, [&](std::string& out) { put(out, value); });
}

void ZEM2Writer::addMetaI32(const std::string& key, int32_t value) {
  impl_->addMeta(key, MetaType::I32, 1, [&](std::string& out) { put(out, value); });
}

void ZEM2Writer::addMetaF32(const std::string& key, float value) {
  impl_->addMeta(key, MetaType::F32, 1, [&](std::string& out) { put(out, value); });
}

void ZEM2Writer::addMetaU64(const std::string& key, uint64_t value) {
  impl_->addMeta(key, MetaType::U64, 1, [&](std::string& out) { put(out, value); });
}

void ZEM2Writer::addMetaStr(const std::string& key, const std::string& value) {
  impl_->addMeta(key, MetaType::Str, value.size(),
                 [&](std::string& out) { putString(out, value); });
}

void ZEM2Writer::addMetaU32Array(const std::string& key, const std::vector<uint32_t>& value) {
  impl_->addMeta(key, MetaType::U32Array, value.size(),
                 [&](std::string& out) { putArray(out, value); });
}

void ZEM2Writer::addTensor(const std::string& name, DType type, std::vector<uint64_t> shape) {
  if (!impl_->declaring() || !impl_->nameIsGood(name)) return;
  Impl::Tensor tensor;
  tensor.type = type;
  tensor.shape = std::move(shape);
  impl_->addTensor(name, std::move(tensor));
}

void ZEM2Writer::addAlias(const std::string& name, std::string target) {
  if (!impl_->declaring() || !impl_->nameIsGood(name)) return;
  if (target.empty()) return impl_->refuse("alias " + nameInQuotes(name) + " has no target");
  impl_->tensors[name].target = std::move(target);
}

Status ZEM2Writer::begin(const std::string& path) {
  if (impl_->state != Impl::State::Declaring) return impl_->misuse("begin()");
  if (Status s = impl_->layOut(); !s.ok()) return s;
  const std::vector<Impl::Section> sections = impl_->buildSections();
  if (sections.size() + 1 > zem2::kMaxSections) return impl_->failInvalid("more than 16 sections");
  if (!impl_->file.open(path)) return impl_->failIO();
  if (Status s = impl_->writeFront(sections); !s.ok()) return s;
  impl_->state = Impl::State::Streaming;
  return {};
}

const std::vector<std::string>& ZEM2Writer::order() const { return impl_->order; }

uint64_t ZEM2Writer::tensorBytes(const std::string& name) const {
  const auto found = impl_->tensors.find(name);
  const bool own = found != impl_->tensors.end() && found->second.target.empty();
  return own ? found->second.bytes : 0;
}

uint64_t ZEM2Writer::totalBytes() const { return impl_->totalBytes; }

Status ZEM2Writer::write(const void* bytes, size_t count) {
  if (impl_->state != Impl::State::Streaming) return impl_->misuse("write()");
  const auto* from = static_cast<const uint8_t*>(bytes);
  while (count > 0) {
    if (impl_->bytesLeft == 0) {
      if (Status s = impl_->startNextTensor(); !s.ok()) return s;
    }
    const auto piece = static_cast<size_t>(std::min<uint64_t>(count, impl_->bytesLeft));
    if (!impl_->file.append(from, piece)) return impl_->failIO();
    from += piece;
    count -= piece;
    impl_->bytesLeft -= piece;
  }
  return {};
}

Status ZEM2Writer::finish() {
  if (impl_->state != Impl::State::Streaming) return impl_->misuse("finish()");
  if (impl_->bytesLeft > 0) {
    return impl_->failInvalid("tensor " + nameInQuotes(impl_->order[impl_->nextTensor - 1]) +
                              " lacks " + std::to_string(impl_->bytesLeft) + " bytes");
  }
  if (impl_->nextTensor < impl_->order.size()) {
    return impl_->failInvalid("tensor " + nameInQuotes(impl_->order[impl_->nextTensor]) +
                              " was not written");
  }
  const zem2::Header header = impl_->header();
  const size_t tableBytes = impl_->table.size() * sizeof(zem2::SectionEntry);
  if (!impl_->file.overwrite(0, &header, sizeof(header)) ||
      !impl_->file.overwrite(sizeof(header), impl_->table.data(), tableBytes) ||
      !impl_->file.commit()) {
    return impl_->failIO();
  }
  impl_->state = Impl::State::Finished;
  return {};
}

}  // namespace kiv
