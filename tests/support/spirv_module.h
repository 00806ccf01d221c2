// What a SPIR-V module shows to its caller, read from its words.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <ostream>
#include <span>
#include <spirv/unified1/spirv.hpp11>
#include <string>
#include <vector>

namespace kiv::test {

// Types are named as in GLSL: "float", "vec4", "uint", "uint16_t", "int8_t"; what
// GLSL has no short name for is "opcode N" of its SPIR-V declaration. Names that
// the module's author chose are empty where the module does not carry them.

struct SpirvEntryPoint {
  std::string name;
  spv::ExecutionModel model = spv::ExecutionModel::GLCompute;
  std::array<uint32_t, 3> localSize{};  // as run: a WorkgroupSize constant counts first

  friend bool operator==(const SpirvEntryPoint&, const SpirvEntryPoint&) = default;
};

// A storage-buffer variable. A block of anything but one unbounded array has the
// element "block" and the stride 0.
struct SpirvBuffer {
  uint32_t set = 0;
  uint32_t binding = 0;
  std::string element;
  uint32_t stride = 0;  // bytes

  friend auto operator<=>(const SpirvBuffer&, const SpirvBuffer&) = default;
};

struct SpirvPushMember {
  std::string name;
  std::string type;
  uint32_t offset = 0;

  friend bool operator==(const SpirvPushMember&, const SpirvPushMember&) = default;
};

struct SpirvPushBlock {
  std::string name;  // of the block, not of an instance
  std::vector<SpirvPushMember> members;
};

// A variable that a workgroup shares. No extents: a scalar; outermost first.
struct SpirvShared {
  std::string name;
  std::string element;
  std::vector<uint32_t> extents;

  friend auto operator<=>(const SpirvShared&, const SpirvShared&) = default;
};

// Lists are in the module's order, buffers sorted by set and binding.
struct SpirvModule {
  std::vector<spv::Capability> capabilities;
  std::vector<SpirvEntryPoint> entryPoints;
  std::vector<SpirvBuffer> buffers;
  std::vector<SpirvPushBlock> pushBlocks;
  std::vector<SpirvShared> shared;
  size_t otherResources = 0;  // uniform blocks, images, samplers
};

void PrintTo(const SpirvEntryPoint& entry, std::ostream* out);
void PrintTo(const SpirvBuffer& buffer, std::ostream* out);
void PrintTo(const SpirvPushMember& member, std::ostream* out);
void PrintTo(const SpirvShared& shared, std::ostream* out);

// False when `words` break the rules for SPIR-V modules under Vulkan 1.2; `problem`
// is then what the validator said, and `out` is left alone.
bool readSpirvModule(std::span<const uint32_t> words, SpirvModule& out, std::string& problem);

}  // namespace kiv::test
