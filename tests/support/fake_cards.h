// SPDX-License-Identifier: Apache-2.0
// Devices for the scripted machine with the memory types, heaps and limits that drivers of real
// ones report.
#pragma once

#include "support/fake_vulkan.h"

namespace zemtest {

constexpr VkMemoryPropertyFlags kCached = VK_MEMORY_PROPERTY_HOST_CACHED_BIT;
constexpr VkMemoryPropertyFlags kUncachedOfAnExtension =
    VK_MEMORY_PROPERTY_DEVICE_COHERENT_BIT_AMD | VK_MEMORY_PROPERTY_DEVICE_UNCACHED_BIT_AMD;

// A card of 24 GiB, of which the host sees a window of 246 MiB: its last device-local type.
inline FakeDevice cardWithASmallWindow() {
  FakeDevice card;
  card.name = "card with a small window";
  card.heaps = {{24 * kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT},
                {48 * kGiB, 0},
                {246 * kMiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT}};
  card.memoryTypes = {
      {0, 1}, {kDeviceLocal, 0}, {kHost, 1}, {kHost | kCached, 1}, {kDeviceLocal | kHost, 2}};
  card.limits.maxStorageBufferRange = UINT32_MAX;
  card.limits.maxComputeWorkGroupCount[0] = INT32_MAX;
  card.limits.maxComputeSharedMemorySize = 49152;
  card.maxAllocation = 0xffe00000;
  return card;
}

// A card of 16 GiB with a window of 256 MiB, after which every type comes once more, uncached, for
// programs that enable an extension.
inline FakeDevice cardWithUncachedTypes() {
  FakeDevice card;
  card.name = "card with uncached types";
  card.heaps = {{16 * kGiB - 256 * kMiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT},
                {32 * kGiB, 0},
                {256 * kMiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT}};
  card.memoryTypes = {{kDeviceLocal, 0},
                      {kHost, 1},
                      {kDeviceLocal | kHost, 2},
                      {kHost | kCached, 1},
                      {kDeviceLocal | kUncachedOfAnExtension, 0},
                      {kHost | kUncachedOfAnExtension, 1},
                      {kDeviceLocal | kHost | kUncachedOfAnExtension, 2},
                      {kHost | kCached | kUncachedOfAnExtension, 1}};
  card.limits.maxStorageBufferRange = UINT32_MAX;
  card.limits.maxComputeWorkGroupCount[0] = UINT32_MAX;
  card.limits.maxComputeSharedMemorySize = 65536;
  card.maxAllocation = 2 * kGiB;
  return card;
}

// A device that shares the host's memory and ends its list with memory for protected work.
inline FakeDevice deviceWithProtectedMemory() {
  FakeDevice device;
  device.name = "device with protected memory";
  device.type = VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU;
  device.heaps = {{12 * kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT}};
  device.memoryTypes = {{kDeviceLocal, 0},
                        {kDeviceLocal | kHost, 0},
                        {kDeviceLocal | kHost | kCached, 0},
                        {kDeviceLocal | VK_MEMORY_PROPERTY_PROTECTED_BIT, 0}};
  device.maxAllocation = 4 * kGiB;
  return device;
}

// A card that can see all of its memory, but keeps its last type for images.
inline FakeDevice cardWithATypeForImages() {
  FakeDevice card;
  card.name = "card with a type for images";
  card.heaps = {{8 * kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT}, {16 * kGiB, 0}};
  card.memoryTypes = {{kHost, 1}, {kDeviceLocal, 0}, {kHost | kCached, 1}, {kDeviceLocal, 0}};
  card.bufferMemoryTypes = 0b0111;
  return card;
}

}  // namespace zemtest
