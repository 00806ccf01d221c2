// SPDX-License-Identifier: Apache-2.0
// What a shader module shows to its caller.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <vector>

namespace zemtest {

// Types are named as in GLSL: "float", "vec4", "uint", "uint16_t", "int8_t". What
// GLSL has no short name for is "other".

struct ReflectedEntryPoint {
  std::string name;
  bool compute = false;
  std::array<uint32_t, 3> localSize{};

  friend bool operator==(const ReflectedEntryPoint&, const ReflectedEntryPoint&) = default;
};

// A storage buffer. A block of anything but one unbounded array has the element
// "block" and the stride 0.
struct ReflectedBuffer {
  uint32_t set = 0;
  uint32_t binding = 0;
  std::string element;
  uint32_t stride = 0;  // bytes

  friend auto operator<=>(const ReflectedBuffer&, const ReflectedBuffer&) = default;
};

struct ReflectedPushMember {
  std::string type;
  uint32_t offset = 0;

  friend bool operator==(const ReflectedPushMember&, const ReflectedPushMember&) = default;
};

// A variable that a workgroup shares. No extents: a scalar; outermost first.
struct ReflectedShared {
  std::string element;
  std::vector<uint32_t> extents;

  friend auto operator<=>(const ReflectedShared&, const ReflectedShared&) = default;
};

// Lists are sorted, but for members, which are in the order of the block.
struct ReflectedShader {
  std::vector<uint32_t> capabilities;  // SPIR-V's numbers
  std::vector<ReflectedEntryPoint> entryPoints;
  std::vector<ReflectedBuffer> buffers;
  std::vector<std::vector<ReflectedPushMember>> pushBlocks;
  std::vector<ReflectedShared> shared;
  size_t otherResources = 0;  // uniform blocks, images, samplers
};

void PrintTo(const ReflectedEntryPoint& entry, std::ostream* out);
void PrintTo(const ReflectedBuffer& buffer, std::ostream* out);
void PrintTo(const ReflectedPushMember& member, std::ostream* out);
void PrintTo(const ReflectedShared& shared, std::ostream* out);

// Empty, with `out` filled; or what the validator says when `words` break the rules for
// modules under Vulkan 1.2.
std::string reflect(std::span<const uint32_t> words, ReflectedShader& out);

}  // namespace zemtest
