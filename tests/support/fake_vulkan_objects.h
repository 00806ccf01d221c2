// SPDX-License-Identifier: Apache-2.0
// What the scripted machine remembers of its objects, beyond what all of them
// have in common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "support/fake_vulkan_call.h"

namespace zemtest {

using namespace kiv;

struct FakeLogicalDevice {
  size_t index;  // of the physical device
};

// Bytes that cost nothing until they are touched, so that a test may allocate
// as much as a large card has. They begin as zeroes.
class LazyBytes {
 public:
  explicit LazyBytes(size_t size);
  ~LazyBytes();
  LazyBytes(const LazyBytes&) = delete;
  LazyBytes& operator=(const LazyBytes&) = delete;

  std::span<uint8_t> span() const { return {data_, size_}; }

 private:
  uint8_t* data_;
  size_t size_;
};

struct FakeMemory {
  std::shared_ptr<LazyBytes> bytes;
  uint32_t heap = 0;
  uint32_t type = 0;
  bool mapped = false;
};

struct FakeBuffer {
  VkBufferCreateInfo info;
  VkMemoryRequirements requirements;
  VkDeviceMemory memory = VK_NULL_HANDLE;
  VkDeviceSize offset = 0;
};

struct FakeDescriptorPool {
  uint32_t setsLeft;
  uint32_t maxSets;
};
struct FakeDescriptorSet {
  std::map<uint32_t, VkDescriptorBufferInfo> written;  // by binding
};

// The bytes of a buffer; an empty span, and a test failure, when the buffer or its
// memory does not or no longer exist or the bytes lie outside.
std::span<uint8_t> bytesAt(const FakeCall& call, VkBuffer buffer, VkDeviceSize offset,
                           VkDeviceSize size);

// The physical device of a logical one, or of a command buffer's.
const FakeDevice& deviceOf(const FakeCall& call, VkDevice device);
const FakeDevice& deviceOf(const FakeCall& call, VkCommandBuffer cmd);

enum CommandState : uint64_t { kInitial, kRecording, kExecutable };

struct FakeCommandBuffer {
  std::vector<std::function<void(const FakeCall&)>> commands;
  // What is bound while it is recorded.
  VkPipeline pipeline = VK_NULL_HANDLE;
  VkDescriptorSet set = VK_NULL_HANDLE;
  std::vector<uint8_t> push;
};

}  // namespace zemtest
