// SPDX-License-Identifier: Apache-2.0
#include "support/fake_vulkan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "support/fake_vulkan_call.h"

namespace zemtest {

using namespace kiv;

namespace {

FakeVulkan* current = nullptr;

constexpr uint64_t kDeadHandle = 0xdead;

PFN_vkVoidFunction VKAPI_CALL findFunction(VkInstance, const char* name) {
  for (const FakeFunctions* functions :
       {&contextFunctions(), &memoryFunctions(), &pipelineFunctions(), &commandFunctions()}) {
    const auto found = functions->find(name);
    if (found != functions->end()) return found->second;
  }
  return nullptr;
}

void expectKnown(const std::string& function) {
  EXPECT_NE(findFunction(VK_NULL_HANDLE, function.c_str()), nullptr) << function;
}

}  // namespace

VkPhysicalDeviceLimits usualLimits() {
  VkPhysicalDeviceLimits limits{};
  limits.maxStorageBufferRange = uint32_t{1} << 27;
  limits.maxPerStageDescriptorStorageBuffers = 16;
  limits.maxPushConstantsSize = 128;
  limits.maxMemoryAllocationCount = 4096;
  limits.minStorageBufferOffsetAlignment = 256;
  limits.maxComputeSharedMemorySize = 65536;
  limits.maxComputeWorkGroupInvocations = 1024;
  for (uint32_t& count : limits.maxComputeWorkGroupCount) count = 65535;
  for (uint32_t& size : limits.maxComputeWorkGroupSize) size = 1024;
  return limits;
}

FakeVulkan::FakeVulkan(std::deque<FakeDevice> machine)
    : devices(std::move(machine)), previous_(vkGetInstanceProcAddr) {
  EXPECT_EQ(current, nullptr) << "one scripted machine at a time";
  current = this;
  volkInitializeCustom(findFunction);
}

FakeVulkan::~FakeVulkan() {
  for (const auto& [handle, object] : objects_) {
    ADD_FAILURE() << "an object of type " << object.type << " was never destroyed";
  }
  current = nullptr;
  if (previous_ != nullptr) {
    volkInitializeCustom(previous_);
  } else {
    // Nothing was loaded before: the next user opens the machine's own loader.
    vkGetInstanceProcAddr = nullptr;
    vkCreateInstance = nullptr;
  }
}

void FakeVulkan::fail(const std::string& function, VkResult result, int nth) {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  expectKnown(function);
  EXPECT_TRUE(canFail(function)) << function << " returns nothing";
  failures_[{function, calls_[function] + nth}] = result;
}

void FakeVulkan::during(const std::string& function, std::function<void()> action) {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  expectKnown(function);
  actions_[function] = std::move(action);
}

int FakeVulkan::calls(const std::string& function) const {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  expectKnown(function);
  const auto found = calls_.find(function);
  return found == calls_.end() ? 0 : found->second;
}

std::vector<std::string> FakeVulkan::log() const {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  return log_;
}

bool FakeVulkan::canFail(std::string_view function) {
  for (const std::string_view silent :
       {"vkDestroy", "vkFree", "vkGet", "vkCmd", "vkUnmap", "vkUpdate"}) {
    if (function.starts_with(silent)) return false;
  }
  return true;
}

size_t FakeVulkan::live() const {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  return objects_.size();
}

size_t FakeVulkan::live(VkObjectType type) const {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  return static_cast<size_t>(
      std::count_if(objects_.begin(), objects_.end(),
                    [type](const auto& entry) { return entry.second.type == type; }));
}

FakeCall::FakeCall(const char* function)
    : machine_(*current), lock_(machine_.mutex_), function_(function) {
  const int number = ++machine_.calls_[function];
  machine_.log_.emplace_back(function);
  if (auto action = machine_.actions_.extract(function)) action.mapped()();
  if (auto failure = machine_.failures_.extract({function, number})) result_ = failure.mapped();
}

FakeCall::FakeCall(const char* what, Look)
    : machine_(*current), lock_(machine_.mutex_), function_(what) {}

void FakeCall::require(bool condition, const char* what) const {
  if (!condition) ADD_FAILURE() << function_ << ": " << what;
}

FakeVulkan::Object* FakeCall::findObject(uint64_t handle, VkObjectType type) const {
  const auto found = machine_.objects_.find(handle);
  if (found != machine_.objects_.end() && found->second.type == type) return &found->second;
  ADD_FAILURE() << function_ << ": no live object of type " << type << " has handle " << handle;
  return nullptr;
}

uint64_t FakeCall::createObject(VkObjectType type, uint64_t parent, std::any detail) const {
  if (fails()) return kDeadHandle;
  const uint64_t handle = machine_.nextHandle_++;
  machine_.objects_[handle] = {.type = type, .parent = parent, .detail = std::move(detail)};
  return handle;
}

void FakeCall::destroyObject(uint64_t handle, VkObjectType type) const {
  if (findObject(handle, type) == nullptr) return;
  for (const auto& [child, object] : machine_.objects_) {
    if (object.parent != handle) continue;
    ADD_FAILURE() << function_ << ": a child of type " << object.type << " is still alive";
  }
  machine_.objects_.erase(handle);
}

void FakeCall::destroyChildrenOf(uint64_t parent, VkObjectType type) const {
  std::erase_if(machine_.objects_, [parent, type](const auto& entry) {
    return entry.second.type == type && entry.second.parent == parent;
  });
}

}  // namespace zemtest
