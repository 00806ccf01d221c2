// SPDX-License-Identifier: Apache-2.0
#include "host/model_file.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <set>
#include <utility>

#include "compat/files.h"
#include "console/terminal.h"
#include "console/text.h"
#include "kiv/tensor.h"
#include "kiv/zem_loader.h"

namespace zemtool {
namespace {

// Why `path` cannot be read as a file; empty when it can be.
std::string fileProblem(const std::string& path) {
  using Type = std::filesystem::file_type;
  const Type type = compat::typeOf(path.c_str());
  if (type == Type::directory) return "it is a directory";
  // Opening a pipe would wait for its other end.
  if (type != Type::regular && type != Type::not_found && type != Type::none) {
    return "it is not a regular file";
  }
  const int fd = compat::openToRead(path.c_str());
  if (fd < 0) return std::strerror(errno);
  ::close(fd);
  return {};
}

uint64_t saturatingProduct(uint64_t a, uint64_t b) {
  uint64_t product = 0;
  return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<uint64_t>::max() : product;
}

std::string typeName(uint16_t code) {
  const char* name = kiv::dtypeName(static_cast<kiv::DType>(code));
  return *name == '?' ? "type " + std::to_string(code) : name;
}

bool isEmbeddingApart(const kiv::ZEM2Reader& reader, const kiv::zem2::TensorEntry& tensor) {
  const auto* embedding = reader.findTensor("token_embd.weight");
  return embedding != nullptr && embedding->offset == tensor.offset &&
         embedding->size == tensor.size && reader.findTensor("output.weight") != nullptr &&
         reader.findTensor("output.weight")->offset != embedding->offset;
}

}  // namespace

void openContainer(kiv::ZEM2Reader& reader, const std::string& path) {
  requireReadable(path);
  const kiv::Status status = reader.open(path.c_str());
  if (!status.ok()) throw Failure(path + " is not a model file: " + status.message());
}

kiv::Tokenizer openTokenizer(const std::string& path) {
  kiv::ZEM2Reader reader;
  openContainer(reader, path);
  kiv::TokenizerData data;
  if (!reader.readTokenizer(data)) throw Failure(path + " has no readable tokenizer");
  kiv::Tokenizer tokenizer;
  if (const kiv::Status status = tokenizer.load(std::move(data)); !status.ok()) {
    throw Failure(path + ": " + status.message());
  }
  return tokenizer;
}

void requireReadable(const std::string& path) {
  const std::string problem = fileProblem(path);
  if (!problem.empty()) throw Failure("cannot read " + path + ": " + problem);
}

std::string modelProblem(const std::string& path) {
  if (std::string problem = fileProblem(path); !problem.empty()) return problem;
  kiv::ZEMLoader loader;
  if (const kiv::Status status = loader.open(path.c_str()); !status.ok()) return status.message();
  std::string architecture;
  if (!loader.getMetaStr("general.architecture", architecture)) {
    return "its metadata has no general.architecture";
  }
  if (architecture != "qwen35") return "its architecture is \"" + architecture + "\"";
  for (size_t i = 0; i < loader.tensorCount(); ++i) {
    if (tensorFacts(loader.reader(), i).outside) {
      return "tensor " + loader.tensorView(i).name + " lies outside the weight data";
    }
  }
  return {};
}

std::string modelName(const kiv::ZEM2Reader& reader, const std::string& path) {
  std::string name;
  if (reader.getMetaStr("general.name", name) && !name.empty()) return name;
  return compat::nameOf(compat::pathOf(path).filename());
}

TensorFacts tensorFacts(const kiv::ZEM2Reader& reader, size_t index) {
  const kiv::zem2::TensorEntry& entry = reader.tensors()[index];
  TensorFacts facts;
  facts.name.assign(entry.name, std::min<size_t>(entry.nameLen, kiv::zem2::kMaxNameBytes));
  facts.type = typeName(entry.dtype);
  facts.elements = 1;
  const size_t dims = std::min<size_t>(entry.ndim, kiv::zem2::kMaxDims);
  for (size_t i = 0; i < dims; ++i) {
    facts.shape.push_back(entry.shape[i]);
    facts.elements = saturatingProduct(facts.elements, entry.shape[i]);
  }
  facts.offset = entry.offset;
  facts.bytes = entry.size;
  facts.outside =
      entry.offset > reader.weightSize() || entry.size > reader.weightSize() - entry.offset;
  return facts;
}

WeightTotals weightTotals(const kiv::ZEM2Reader& reader) {
  WeightTotals totals;
  std::set<std::pair<uint64_t, uint64_t>> seen;
  for (uint32_t i = 0; i < reader.tensorCount(); ++i) {
    const kiv::zem2::TensorEntry& entry = reader.tensors()[i];
    if (!seen.emplace(entry.offset, entry.size).second) continue;
    totals.elements += tensorFacts(reader, i).elements;
    totals.bytes += entry.size;
    if (!isEmbeddingApart(reader, entry)) totals.bytesPerToken += entry.size;
  }
  return totals;
}

}  // namespace zemtool
