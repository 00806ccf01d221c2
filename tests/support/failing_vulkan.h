// Makes single functions of the machine's own Vulkan fail.
#pragma once

#include <gtest/gtest.h>

#include <type_traits>

#include "kiv/vulkan/vulkan_api.h"

namespace kiv::test {

// While one lives, the nth call of `Function` from its construction on (1: the
// next) returns `result` and does nothing; all others go through. Instance and
// device functions must have been loaded. One at a time for each function.
//
//   const FailingCall<vkMapMemory> failure(2);
template <auto& Function, typename Pfn = std::remove_reference_t<decltype(Function)>>
class FailingCall;

template <auto& Function, typename... Args>
class FailingCall<Function, VkResult(VKAPI_PTR*)(Args...)> {
 public:
  explicit FailingCall(int nth = 1, VkResult result = VK_ERROR_OUT_OF_DEVICE_MEMORY) {
    EXPECT_NE(Function, nullptr);
    original_ = Function;
    left_ = nth;
    result_ = result;
    Function = call;
  }
  ~FailingCall() { Function = original_; }
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  // Whether the nth call has come.
  bool happened() const { return left_ <= 0; }

 private:
  static VKAPI_ATTR VkResult VKAPI_CALL call(Args... args) {
    return --left_ == 0 ? result_ : original_(args...);
  }

  static inline VkResult(VKAPI_PTR* original_)(Args...) = nullptr;
  static inline int left_ = 0;
  static inline VkResult result_ = VK_SUCCESS;
};

}  // namespace kiv::test
