// SPDX-License-Identifier: Apache-2.0
// How the scripted machine's functions are written: each begins with a FakeCall,
// through which it reaches the machine and its objects.
#pragma once

#include <any>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

#include "support/fake_vulkan.h"

namespace zemtest {

using namespace kiv;

static_assert(sizeof(VkFence) == sizeof(uint64_t) && sizeof(VkInstance) == sizeof(uint64_t),
              "handles of both kinds are made from one counter");

template <typename Handle>
uint64_t idOf(Handle handle) {
  uint64_t id = 0;
  std::memcpy(&id, &handle, sizeof id);
  return id;
}

template <typename Handle>
Handle handleOfId(uint64_t id) {
  Handle handle{};
  std::memcpy(&handle, &id, sizeof handle);
  return handle;
}

// One call of one function: locks the machine, counts the call, runs what a test
// wants to happen during it and finds out whether it has to fail.
class FakeCall {
 public:
  explicit FakeCall(const char* function);
  // A look at the machine for a test's sake: not a call, so nothing counts it.
  struct Look {};
  FakeCall(const char* what, Look);
  FakeCall(const FakeCall&) = delete;
  FakeCall& operator=(const FakeCall&) = delete;

  FakeVulkan& machine() const { return machine_; }
  FakeRequests& requests() const { return machine_.requests; }
  bool fails() const { return result_ != VK_SUCCESS; }
  VkResult result() const { return result_; }

  // A test failure in the name of this function when the condition is false.
  void require(bool condition, const char* what) const;

  // The live object behind a handle; null, and a test failure, when there is none.
  template <typename Handle>
  FakeVulkan::Object* find(Handle handle, VkObjectType type) const {
    return findObject(idOf(handle), type);
  }

  // The record of a live object; null, and a test failure, when there is none.
  template <typename Detail, typename Handle>
  Detail* detail(Handle handle, VkObjectType type) const {
    auto* object = findObject(idOf(handle), type);
    return object == nullptr ? nullptr : std::any_cast<Detail>(&object->detail);
  }
  // Calls `visit` with the record of every live object of a type.
  template <typename Detail, typename Visit>
  void forEach(VkObjectType type, Visit visit) const {
    for (auto& [handle, object] : machine_.objects_) {
      if (object.type == type) visit(*std::any_cast<Detail>(&object.detail));
    }
  }

  // A new object, or a handle of nothing when this call fails.
  template <typename Handle>
  VkResult create(VkObjectType type, uint64_t parent, Handle* out, std::any detail = {}) const {
    *out = handleOfId<Handle>(createObject(type, parent, std::move(detail)));
    return result_;
  }

  // Destroying the null handle does nothing, in Vulkan as well.
  template <typename Handle>
  void destroy(Handle handle, VkObjectType type) const {
    if (handle != VK_NULL_HANDLE) destroyObject(idOf(handle), type);
  }
  template <typename Handle>
  void destroyChildren(Handle parent, VkObjectType type) const {
    destroyChildrenOf(idOf(parent), type);
  }

 private:
  FakeVulkan::Object* findObject(uint64_t handle, VkObjectType type) const;
  uint64_t createObject(VkObjectType type, uint64_t parent, std::any detail) const;
  void destroyObject(uint64_t handle, VkObjectType type) const;
  void destroyChildrenOf(uint64_t parent, VkObjectType type) const;

  FakeVulkan& machine_;
  std::lock_guard<std::recursive_mutex> lock_;
  const char* function_;
  VkResult result_ = VK_SUCCESS;
};

using FakeFunctions = std::map<std::string_view, PFN_vkVoidFunction>;

// Checks that a function is what its callers will take it for.
template <typename Pfn>
PFN_vkVoidFunction erase(Pfn function) {
  return reinterpret_cast<PFN_vkVoidFunction>(function);
}

// What a context calls: instance, devices, command pools and buffers, fences.
const FakeFunctions& contextFunctions();
// Buffers and device memory.
const FakeFunctions& memoryFunctions();
// Shader modules, pipelines, descriptor sets.
const FakeFunctions& pipelineFunctions();
// What is recorded into a command buffer.
const FakeFunctions& commandFunctions();

}  // namespace zemtest
