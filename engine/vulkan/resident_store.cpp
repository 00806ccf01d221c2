// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/resident_store.h"

#include <string>
#include <utility>

#include "engine/vulkan/resident_weights.h"

namespace zem {
namespace {

using kiv::Status;
using kiv::vulkan::BufferUse;

size_t pagesFor(size_t positions) { return (positions + kPagePositions - 1) / kPagePositions; }

}  // namespace

Status ResidentStore::create(kiv::vulkan::VulkanContext& ctx, const Weights& weights,
                             const StoreSizes& sizes) {
  const Shape& shape = weights.shape();
  ctx_ = &ctx;
  sizes_ = {shape.keyHeads, shape.valueHeads, shape.stateSize};
  pages_ = PageLayout(shape, weights.fullLayers(), sizes.cacheType);
  stateFloats_ = sizes_.stateFloats() + sizes_.windowFloats();
  conversations_ = sizes.conversations;
  pageCount_ = pagesFor(sizes.positions);
  Status status = checkSizes(storageBufferLimit(ctx));
  states_.resize(weights.linearLayers());
  cache_.resize(weights.fullLayers());
  for (size_t i = 0; i < states_.size() && status.ok(); ++i) {
    status = states_[i].create(ctx, conversations_ * stateFloats_ * sizeof(float),
                               BufferUse::DeviceLocal);
  }
  for (size_t i = 0; i < cache_.size() && status.ok(); ++i) {
    status = cache_[i].create(ctx, pageCount_ * layerPageBytes(), BufferUse::DeviceLocal);
  }
  if (!status.ok()) return status;
  for (size_t i = conversations_; i > 0; --i) freePlaces_.push_back(static_cast<uint32_t>(i - 1));
  for (size_t i = pageCount_; i > 0; --i) freePages_.push_back(static_cast<uint32_t>(i - 1));
  return {};
}

Status ResidentStore::checkSizes(uint64_t mostBytes) const {
  const uint64_t states = conversations_ * stateFloats_ * sizeof(float);
  const uint64_t cache = pageCount_ * layerPageBytes();
  if (states <= mostBytes && cache <= mostBytes) return {};
  const bool tooMany = states > mostBytes;
  return kiv::unsupported((tooMany ? std::to_string(conversations_) + " conversations"
                                   : std::to_string(pageCount_ * kPagePositions) + " positions") +
                          " take " + std::to_string(tooMany ? states : cache) +
                          " bytes of a layer, a storage buffer of the device takes " +
                          std::to_string(mostBytes));
}

Status ResidentStore::begin(ResidentSequence& out) {
  out.release();
  if (freePlaces_.empty()) {
    return kiv::unsupported("the device has room for " + std::to_string(conversations_) +
                            " conversations, and all are taken");
  }
  const uint32_t place = freePlaces_.back();
  if (Status status = zero(place); !status.ok()) return status;
  freePlaces_.pop_back();
  out.store_ = this;
  out.place_ = place;
  return {};
}

Status ResidentStore::reset(ResidentSequence& sequence) {
  sequence.broken_ = true;
  if (Status status = zero(sequence.place_); !status.ok()) return status;
  giveBackPages(sequence);
  sequence.length_ = 0;
  sequence.broken_ = false;
  return {};
}

Status ResidentStore::zero(uint32_t place) {
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  if (Status status = ctx_->beginCommand(&cmd); !status.ok()) return status;
  kiv::vulkan::recordFullBarrier(cmd);
  const VkDeviceSize bytes = stateFloats_ * sizeof(float);
  for (const kiv::vulkan::VulkanBuffer& layer : states_) {
    vkCmdFillBuffer(cmd, layer.handle(), place * bytes, bytes, 0);
  }
  kiv::vulkan::recordFullBarrier(cmd);
  return ctx_->submitAndWait(cmd);
}

Status ResidentStore::reserve(ResidentSequence& sequence, size_t count) {
  const size_t needed = pagesFor(sequence.length_ + count);
  const size_t has = sequence.pages_.size();
  if (needed > has && needed - has > freePages_.size()) {
    return kiv::unsupported(std::to_string(sequence.length_ + count) + " positions need " +
                            std::to_string(needed - has) + " more pages of " +
                            std::to_string(kPagePositions) + " positions, the device has " +
                            std::to_string(freePages_.size()) + " of " +
                            std::to_string(pageCount_) + " left");
  }
  sequence.pages_.reserve(needed);
  while (sequence.pages_.size() < needed) {
    sequence.pages_.push_back(freePages_.back());
    freePages_.pop_back();
  }
  return {};
}

Status ResidentStore::read(const ResidentSequence& from, SequenceState& to) {
  to.reset();
  to.reserve(from.length_);
  Transfer transfer(*ctx_);
  Status status;
  const size_t bytes = stateFloats_ * sizeof(float);
  for (size_t i = 0; i < states_.size() && status.ok(); ++i) {
    status = transfer.read(states_[i], from.place_ * bytes, to.recurrent().matrices(i), bytes);
  }
  const size_t slice = layerPageBytes();
  for (size_t p = 0; p < pagesFor(from.length_); ++p) {
    auto* page = static_cast<uint8_t*>(to.page(p).data());
    for (size_t i = 0; i < cache_.size() && status.ok(); ++i) {
      status = transfer.read(cache_[i], from.pages_[p] * slice, page + i * slice, slice);
    }
  }
  if (status.ok()) status = transfer.finish();
  if (!status.ok()) {
    to.reset();
    return status;
  }
  to.advance(from.length_);
  return {};
}

Status ResidentStore::write(SequenceState& from, ResidentSequence& to) {
  to.broken_ = true;
  giveBackPages(to);
  to.length_ = 0;
  if (Status status = reserve(to, from.length()); !status.ok()) return status;
  Transfer transfer(*ctx_);
  Status status;
  const size_t bytes = stateFloats_ * sizeof(float);
  for (size_t i = 0; i < states_.size() && status.ok(); ++i) {
    status = transfer.write(from.recurrent().matrices(i), states_[i], to.place_ * bytes, bytes);
  }
  const size_t slice = layerPageBytes();
  for (size_t p = 0; p < to.pages_.size(); ++p) {
    const auto* page = static_cast<const uint8_t*>(from.page(p).data());
    for (size_t i = 0; i < cache_.size() && status.ok(); ++i) {
      status = transfer.write(page + i * slice, cache_[i], to.pages_[p] * slice, slice);
    }
  }
  if (status.ok()) status = transfer.finish();
  if (!status.ok()) return status;
  to.advance(from.length());
  return {};
}

void ResidentStore::giveBack(ResidentSequence& sequence) {
  giveBackPages(sequence);
  freePlaces_.push_back(sequence.place_);
}

void ResidentStore::giveBackPages(ResidentSequence& sequence) {
  freePages_.insert(freePages_.end(), sequence.pages_.begin(), sequence.pages_.end());
  sequence.pages_.clear();
}

ResidentSequence& ResidentSequence::operator=(ResidentSequence&& other) noexcept {
  if (this == &other) return *this;
  release();
  store_ = std::exchange(other.store_, nullptr);
  place_ = other.place_;
  pages_ = std::exchange(other.pages_, {});
  length_ = std::exchange(other.length_, 0);
  broken_ = std::exchange(other.broken_, false);
  return *this;
}

void ResidentSequence::release() {
  if (store_ != nullptr) store_->giveBack(*this);
  store_ = nullptr;
  length_ = 0;
  broken_ = false;
}

}  // namespace zem
