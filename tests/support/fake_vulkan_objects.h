// What the scripted machine remembers of its objects, beyond what all of them
// have in common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/fake_vulkan_call.h"

namespace kiv::test {

struct FakeLogicalDevice {
  size_t index;  // of the physical device
};

// ---- memory

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
  uint32_t type = 0;
  uint32_t heap = 0;
  VkMemoryPropertyFlags flags = 0;
  bool mapped = false;
  VkAccessFlags hidden = 0;  // kinds of writes that no barrier has shown the host
};

struct FakeBuffer {
  VkBufferCreateInfo info;
  VkMemoryRequirements requirements;
  VkDeviceMemory memory = VK_NULL_HANDLE;
  VkDeviceSize offset = 0;
};

// Where bytes of a buffer lie; an empty span, and a test failure, when they do
// not or no longer exist.
struct FakeRange {
  VkDeviceMemory memory = VK_NULL_HANDLE;
  VkDeviceSize begin = 0, end = 0;
  std::span<uint8_t> bytes;
};
FakeRange rangeOf(const FakeCall& call, VkBuffer buffer, VkDeviceSize offset, VkDeviceSize size);

// The physical device of a logical one.
const FakeDevice& deviceOf(const FakeCall& call, VkDevice device);

// ---- pipelines

struct FakeShaderModule {
  std::shared_ptr<const std::vector<uint32_t>> code;
};
struct FakeSetLayout {
  std::vector<VkDescriptorSetLayoutBinding> bindings;
};
struct FakePipelineLayout {
  std::vector<FakeSetLayout> sets;
  std::vector<VkPushConstantRange> push;
  VkDevice device;
};
struct FakePipeline {
  FakePipelineLayout layout;
  std::shared_ptr<const std::vector<uint32_t>> code;
};
struct FakeDescriptorPool {
  uint32_t setsLeft;
  uint64_t buffersLeft;
  uint32_t maxSets;
  uint64_t maxBuffers;
};
struct FakeDescriptorSet {
  size_t bindings;
  std::map<uint32_t, VkDescriptorBufferInfo> written;  // by binding
  int updates = 0;
};

// ---- commands

enum CommandState : uint64_t { kInitial, kRecording, kExecutable };

// One submission while it is carried out.
struct FakeExecution {
  const FakeCall& call;
  FakeSubmission done;
  std::vector<FakeRange> unseenByDevice;  // written by transfers, no barrier yet
};

struct FakeCommandBuffer {
  std::vector<std::function<void(FakeExecution&)>> commands;
  // What is bound while it is recorded.
  VkPipeline pipeline = VK_NULL_HANDLE;
  VkDescriptorSet set = VK_NULL_HANDLE;
  int setUpdates = 0;  // how many the set had seen when it was bound
  std::vector<std::optional<uint8_t>> push;
};

// Carries out what was recorded.
void execute(const FakeCall& call, VkCommandBuffer cmd);

}  // namespace kiv::test
