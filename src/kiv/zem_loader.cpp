// SPDX-License-Identifier: Apache-2.0
#include "kiv/zem_loader.h"

#include <algorithm>

namespace kiv {
namespace {

DType knownDType(uint16_t code) {
  return code <= static_cast<uint16_t>(DType::Q5_1) ? static_cast<DType>(code) : DType::Q8_K;
}

TensorView makeView(const ZEM2Reader& reader, size_t i) {
  const zem2::TensorView raw = reader.tensorView(i);
  const zem2::TensorEntry& entry = reader.tensors()[i];
  TensorView view;
  view.data = raw.ptr;
  view.size = raw.size;
  view.dtype = knownDType(raw.dtype);
  std::copy(std::begin(raw.shape), std::end(raw.shape), view.shape.begin());
  view.ndim = std::min(raw.ndim, zem2::kMaxDims);
  // The type that counts is the index's: a table that names another would send
  // the same bytes to two different decoders.
  view.quant.quantType = static_cast<uint16_t>(view.dtype);
  view.quant.blockSize = raw.blockSize;
  view.quant.bytesPerBlock = raw.bytesPerBlock;
  if (i < reader.quantInfoCount()) {
    const zem2::QuantEntry& quant = reader.quantEntry(i);
    view.quant.scaleBytes = quant.scaleBytes;
    view.quant.scaleOffset = quant.scaleOffset;
    view.quant.zeroOffset = quant.zeroOffset;
  }
  view.name.assign(entry.name, std::min<size_t>(entry.nameLen, zem2::kMaxNameBytes));
  return view;
}

}  // namespace

Status ZEMLoader::open(const char* path) {
  close();
  try {
    return openClosed(path);
  } catch (...) {
    close();
    throw;
  }
}

Status ZEMLoader::openClosed(const char* path) {
  if (Status status = reader_.open(path); !status.ok()) return status;

  const ZEM2Reader::Header& header = reader_.header();
  info_ = {header.modelType, header.hiddenSize, header.layerCount, header.vocabSize,
           header.tensorCount};
  views_.reserve(info_.tensorCount);
  for (size_t i = 0; i < info_.tensorCount; ++i) views_.push_back(makeView(reader_, i));

  if (!reader_.readTokenizer(tokenizer_)) {
    return invalidFormat("ZEMLoader: no tokenizer section");
  }
  chatTemplate_ = tokenizer_.chatTemplate;
  if (const uint8_t* graph = reader_.sectionData(ZEM2Reader::SectionType::Graph)) {
    graph_.assign(reinterpret_cast<const char*>(graph),
                  reader_.sectionSize(ZEM2Reader::SectionType::Graph));
  }
  valid_ = true;
  return {};
}

void ZEMLoader::close() {
  reader_.close();
  info_ = {};
  views_.clear();
  tokenizer_ = {};
  chatTemplate_.clear();
  graph_.clear();
  valid_ = false;
}

const TensorView* ZEMLoader::findTensor(const std::string& name) const {
  if (!valid_) return nullptr;
  // Written out: the file may not be sorted, which std::lower_bound requires.
  size_t lo = 0;
  size_t hi = views_.size();
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    if (views_[mid].name < name) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo < views_.size() && views_[lo].name == name ? &views_[lo] : nullptr;
}

bool ZEMLoader::holdsBytes(const TensorView& view, uint64_t bytes) const {
  const uint8_t* base = reader_.weightBase();
  if (base == nullptr) return false;
  // A view before the section gives a huge offset, which the comparison refuses.
  const uint64_t offset =
      reinterpret_cast<uintptr_t>(view.data) - reinterpret_cast<uintptr_t>(base);
  return offset <= reader_.weightSize() && bytes <= reader_.weightSize() - offset;
}

}  // namespace kiv
