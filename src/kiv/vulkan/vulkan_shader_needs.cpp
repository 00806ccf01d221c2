// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_shader_needs.h"

#include <span>
#include <string>
#include <unordered_map>

namespace kiv::vulkan {
namespace {

constexpr uint32_t kMagic = 0x07230203;
constexpr size_t kHeaderWords = 5;

// Numbers of the SPIR-V specification.
enum Op : uint32_t {
  OpExecutionMode = 16,
  OpTypeBool = 20,
  OpTypeInt = 21,
  OpTypeFloat = 22,
  OpTypeVector = 23,
  OpTypeMatrix = 24,
  OpTypeArray = 28,
  OpTypeStruct = 30,
  OpTypePointer = 32,
  OpConstant = 43,
  OpVariable = 59,
};
constexpr uint32_t kLocalSizeMode = 17;
constexpr uint32_t kWorkgroupClass = 4;
constexpr uint64_t kBoolBytes = 4;

class ModuleReader {
 public:
  explicit ModuleReader(std::span<const uint32_t> words) {
    if (words.size() < kHeaderWords || words[0] != kMagic) return;
    for (size_t at = kHeaderWords; at < words.size();) {
      const size_t length = words[at] >> 16;
      if (length == 0 || length > words.size() - at) return;
      read(words[at] & 0xffff, words.subspan(at + 1, length - 1));
      at += length;
    }
  }

  const ShaderNeeds& needs() const { return needs_; }

 private:
  using Operands = std::span<const uint32_t>;

  void read(uint32_t op, Operands in) {
    if (op == OpExecutionMode && in.size() >= 5 && in[1] == kLocalSizeMode) {
      needs_.localSize = {in[2], in[3], in[4]};
    } else if (op == OpConstant && in.size() >= 3) {
      constants_[in[1]] = in[2];
    } else if (op == OpVariable && in.size() >= 3 && in[2] == kWorkgroupClass) {
      needs_.sharedBytes += bytesOf(pointees_, in[0]);
    } else if (op == OpTypePointer && in.size() >= 3) {
      pointees_[in[0]] = bytesOf(types_, in[2]);
    } else if (!in.empty()) {
      readType(op, in);
    }
  }

  void readType(uint32_t op, Operands in) {
    if (op == OpTypeBool) {
      types_[in[0]] = kBoolBytes;
    } else if (op == OpTypeStruct) {
      uint64_t sum = 0;
      for (const uint32_t member : in.subspan(1)) sum += bytesOf(types_, member);
      types_[in[0]] = sum;
    } else if ((op == OpTypeInt || op == OpTypeFloat) && in.size() >= 2) {
      types_[in[0]] = in[1] / 8;
    } else if ((op == OpTypeVector || op == OpTypeMatrix) && in.size() >= 3) {
      types_[in[0]] = bytesOf(types_, in[1]) * in[2];
    } else if (op == OpTypeArray && in.size() >= 3) {
      types_[in[0]] = bytesOf(types_, in[1]) * bytesOf(constants_, in[2]);
    }
  }

  using ById = std::unordered_map<uint32_t, uint64_t>;
  static uint64_t bytesOf(const ById& values, uint32_t id) {
    const auto found = values.find(id);
    return found == values.end() ? 0 : found->second;
  }

  ShaderNeeds needs_;
  ById types_;      // bytes
  ById pointees_;   // bytes of what pointers of a type point to
  ById constants_;  // the low word
};

Status tooLarge(uint64_t needed, const char* what, uint64_t most) {
  return unsupported("shader needs " + std::to_string(needed) + " " + what + ", the device has " +
                     std::to_string(most));
}

}  // namespace

ShaderNeeds shaderNeeds(const uint32_t* code, size_t wordCount) {
  if (code == nullptr) return {};
  return ModuleReader({code, wordCount}).needs();
}

Status checkShaderNeeds(const ShaderNeeds& needs, const VulkanDeviceInfo& device) {
  if (needs.sharedBytes > device.maxComputeSharedMemory) {
    return tooLarge(needs.sharedBytes, "bytes of shared memory", device.maxComputeSharedMemory);
  }
  uint64_t invocations = 1;
  for (const uint32_t size : needs.localSize) invocations *= size;
  if (invocations > device.maxWorkGroupInvocations) {
    return tooLarge(invocations, "invocations in a workgroup", device.maxWorkGroupInvocations);
  }
  return {};
}

}  // namespace kiv::vulkan
