// SPDX-License-Identifier: Apache-2.0
// The tensor index, the quantisation table and raw tensor views.
#include <algorithm>
#include <cstring>

#include "kiv/zem2_reader.h"

namespace kiv {
namespace {

// Index order: unsigned bytes up to the first NUL, at most a name field's worth.
int compareName(const zem2::TensorEntry& entry, const char* name) {
  return std::strncmp(entry.name, name, zem2::kMaxNameBytes);
}

}  // namespace

Status ZEM2Reader::parseQuantInfo() {
  const size_t count = sectionSize(SectionType::QuantInfo) / sizeof(QuantEntry);
  quant_.resize(count);
  if (count > 0) {
    std::memcpy(quant_.data(), sectionData(SectionType::QuantInfo), count * sizeof(QuantEntry));
  }
  return {};
}

const uint8_t* ZEM2Reader::weightBase() const { return sectionData(SectionType::WeightData); }

const ZEM2Reader::TensorEntry* ZEM2Reader::tensors() const {
  return reinterpret_cast<const TensorEntry*>(sectionData(SectionType::TensorIndex));
}

const ZEM2Reader::TensorEntry* ZEM2Reader::findTensor(const char* name) const {
  if (!valid_ || name == nullptr) return nullptr;
  // Written out: the file may not be sorted, which std::lower_bound requires.
  const TensorEntry* index = tensors();
  uint32_t lo = 0;
  uint32_t hi = tensorCount();
  while (lo < hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    if (compareName(index[mid], name) < 0) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo < tensorCount() && compareName(index[lo], name) == 0 ? index + lo : nullptr;
}

zem2::TensorView ZEM2Reader::tensorView(size_t index) const {
  zem2::TensorView view;
  if (!valid_ || index >= tensorCount()) return view;
  const TensorEntry& entry = tensors()[index];
  // The offset is unchecked, so the sum may leave the mapping or wrap around:
  // fine for a number, undefined for a pointer.
  const uintptr_t address = reinterpret_cast<uintptr_t>(weightBase()) + entry.offset;
  view.ptr = reinterpret_cast<const uint8_t*>(address);  // NOLINT(performance-no-int-to-ptr)
  view.size = entry.size;
  view.dtype = entry.dtype;
  view.ndim = entry.ndim;
  const size_t used = std::min(entry.ndim, zem2::kMaxDims);
  for (size_t d = 0; d < used; ++d) view.shape[d] = entry.shape[d];
  if (index < quant_.size()) {
    view.quantType = quant_[index].quantType;
    view.blockSize = quant_[index].blockSize;
    view.bytesPerBlock = quant_[index].bytesPerBlock;
  }
  return view;
}

zem2::TensorView ZEM2Reader::tensorView(const char* name) const {
  const TensorEntry* entry = findTensor(name);
  return entry != nullptr ? tensorView(static_cast<size_t>(entry - tensors())) : zem2::TensorView{};
}

}  // namespace kiv
