// SPDX-License-Identifier: Apache-2.0
// Runs one compute shader on the device that this machine has: buffers in,
// workgroups, buffers out.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_context.h"
#include "kiv/vulkan/vulkan_shaders.h"

namespace zemtest {

using namespace kiv;

// What a binding holds, as bytes.
using BufferBytes = std::vector<uint8_t>;

template <typename T>
BufferBytes bytesOf(const std::vector<T>& values) {
  BufferBytes bytes(values.size() * sizeof(T));
  std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

template <typename T>
std::vector<T> valuesOf(const BufferBytes& bytes) {
  std::vector<T> values(bytes.size() / sizeof(T));
  std::memcpy(values.data(), bytes.data(), values.size() * sizeof(T));
  return values;
}

// Push constants are words; a float goes in as its bits.
inline uint32_t pushFloat(float value) { return std::bit_cast<uint32_t>(value); }

struct Workgroups {
  uint32_t x = 1;
  uint32_t y = 1;
  uint32_t z = 1;
};

// A fixture on the automatic device; without one its tests are skipped. The
// context is made once for all tests of a fixture.
class ShaderTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;

  static vulkan::VulkanContext& context() { return *context_; }

  // Uploads `buffers`, runs the workgroups, waits, downloads all buffers again.
  // A failure of Vulkan fails the test and leaves `buffers` as they were.
  void run(const vulkan::EmbeddedShader& shader, std::vector<BufferBytes>& buffers,
           const std::vector<uint32_t>& push, Workgroups groups);
  void run(vulkan::ShaderId id, std::vector<BufferBytes>& buffers,
           const std::vector<uint32_t>& push, Workgroups groups) {
    run(vulkan::embeddedShader(id), buffers, push, groups);
  }

 private:
  static vulkan::VulkanContext* context_;
  static Status status_;
};

}  // namespace zemtest

// In a ShaderTest of a module as the library ships it: skips, visibly, where a
// workgroup cannot have the shared memory that the module needs. Another test runs the
// same source with smaller tiles.
#define ZEM_NEEDS_SHARED_MEMORY(bytes)                                                      \
  if (context().info().maxComputeSharedMemory < (bytes))                                    \
  GTEST_SKIP() << "the shipped module needs " << (bytes) << " bytes of shared memory, and " \
               << context().info().deviceName << " has "                                    \
               << context().info().maxComputeSharedMemory                                   \
               << "; here only its form with smaller tiles runs"

// In a ShaderTest: skips, visibly, where buffers cannot be read as 8- and 16-bit
// numbers.
#define ZEM_NEEDS_NATIVE_STORAGE()   \
  if (!context().hasNativeStorage()) \
  GTEST_SKIP() << context().info().deviceName << " has no 8- and 16-bit storage"
