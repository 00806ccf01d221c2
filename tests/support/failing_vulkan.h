// SPDX-License-Identifier: Apache-2.0
// Makes single functions of the machine's own Vulkan fail.
#pragma once

#include <gtest/gtest.h>

#include <type_traits>

#include "kiv/vulkan/vulkan_api.h"

namespace zemtest {

using namespace kiv;

// While one lives, `times` calls of `Function`, beginning with the nth from its
// construction on (1: the next), return an error and do nothing; all others go
// through. Instance and device functions must have been loaded. One at a time
// for each function.
//
//   const FailingCall<vkMapMemory> failure(2);
template <auto& Function, typename Pfn = std::remove_reference_t<decltype(Function)>>
class FailingCall;

template <auto& Function, typename... Args>
class FailingCall<Function, VkResult(VKAPI_PTR*)(Args...)> {
 public:
  explicit FailingCall(int nth = 1, int times = 1) {
    EXPECT_NE(Function, nullptr);
    original_ = Function;
    calls_ = 0;
    first_ = nth;
    times_ = times;
    Function = call;
  }
  ~FailingCall() { Function = original_; }
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  // Whether the nth call has come.
  bool happened() const { return calls_ >= first_; }

 private:
  static VKAPI_ATTR VkResult VKAPI_CALL call(Args... args) {
    ++calls_;
    const bool fails = calls_ >= first_ && calls_ - first_ < times_;
    return fails ? VK_ERROR_OUT_OF_DEVICE_MEMORY : original_(args...);
  }

  static inline VkResult(VKAPI_PTR* original_)(Args...) = nullptr;
  static inline int calls_ = 0;
  static inline int first_ = 0;
  static inline int times_ = 0;
};

}  // namespace zemtest
