// The reader of shader interfaces, on small modules in assembly.
#include "support/spirv_module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <spirv-tools/libspirv.hpp>

namespace kiv::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// A module in parts, so that a test can exchange or add to one of them.
struct Assembly {
  std::string capabilities = "OpCapability Shader\n";
  std::string entryPoints = "OpEntryPoint GLCompute %main \"main\"";
  std::string interface;  // ids of the variables, for every entry point
  std::string modes = "OpExecutionMode %main LocalSize 64 1 1\n";
  std::string names;
  std::string decorations;
  std::string declarations;
};

std::vector<uint32_t> assemble(const Assembly& parts) {
  const std::string text =
      parts.capabilities + "OpMemoryModel Logical GLSL450\n" + parts.entryPoints + " " +
      parts.interface + "\n" + parts.modes + parts.names + parts.decorations +
      "%void = OpTypeVoid\n%function = OpTypeFunction %void\n"
      "%uint = OpTypeInt 32 0\n%int = OpTypeInt 32 1\n%float = OpTypeFloat 32\n"
      "%uint_2 = OpConstant %uint 2\n%uint_4 = OpConstant %uint 4\n%uint_16 = OpConstant %uint "
      "16\n" +
      parts.declarations +
      "%main = OpFunction %void None %function\n%label = OpLabel\nOpReturn\nOpFunctionEnd\n";
  std::vector<uint32_t> words;
  std::string said;
  spvtools::SpirvTools tools(SPV_ENV_VULKAN_1_2);
  tools.SetMessageConsumer([&said](spv_message_level_t, const char*, const spv_position_t&,
                                   const char* message) { said += message; });
  EXPECT_TRUE(tools.Assemble(text, &words)) << said << "\n" << text;
  return words;
}

SpirvModule read(const std::vector<uint32_t>& words) {
  SpirvModule module;
  std::string problem;
  EXPECT_TRUE(readSpirvModule(words, module, problem)) << problem;
  return module;
}

SpirvModule read(const Assembly& parts) { return read(assemble(parts)); }

std::string problemOf(const std::vector<uint32_t>& words) {
  SpirvModule module;
  std::string problem;
  EXPECT_FALSE(readSpirvModule(words, module, problem));
  return problem;
}

// Adds a storage buffer of an unbounded array of `element` to `parts`.
void addBuffer(Assembly& parts, const std::string& name, int set, int binding,
               const std::string& element, int stride) {
  const std::string id = "%" + name;
  parts.interface += id + " ";
  parts.decorations += "OpDecorate " + id + " DescriptorSet " + std::to_string(set) + "\n" +
                       "OpDecorate " + id + " Binding " + std::to_string(binding) + "\n" +
                       "OpDecorate " + id + "_block Block\n" + "OpMemberDecorate " + id +
                       "_block 0 Offset 0\n" + "OpDecorate " + id + "_array ArrayStride " +
                       std::to_string(stride) + "\n";
  parts.declarations += id + "_array = OpTypeRuntimeArray " + element + "\n" + id +
                        "_block = OpTypeStruct " + id + "_array\n" + id +
                        "_pointer = OpTypePointer StorageBuffer " + id + "_block\n" + id +
                        " = OpVariable " + id + "_pointer StorageBuffer\n";
}

TEST(SpirvModule, SmallestModuleHasAnEntryPointAndNothingElse) {
  const SpirvModule module = read(Assembly{});
  EXPECT_THAT(module.capabilities, ElementsAre(spv::Capability::Shader));
  EXPECT_THAT(module.entryPoints,
              ElementsAre(SpirvEntryPoint{"main", spv::ExecutionModel::GLCompute, {64, 1, 1}}));
  EXPECT_THAT(module.buffers, IsEmpty());
  EXPECT_THAT(module.pushBlocks, IsEmpty());
  EXPECT_THAT(module.shared, IsEmpty());
  EXPECT_EQ(module.otherResources, 0U);
}

TEST(SpirvModule, EveryEntryPointIsReadWithItsOwnSize) {
  Assembly parts;
  parts.entryPoints += "\nOpEntryPoint GLCompute %other \"an entry of another name\"";
  parts.modes += "OpExecutionMode %other LocalSize 8 4 2\n";
  parts.declarations =
      "%other = OpFunction %void None %function\n%other_label = OpLabel\nOpReturn\n"
      "OpFunctionEnd\n";
  EXPECT_THAT(
      read(parts).entryPoints,
      ElementsAre(
          SpirvEntryPoint{"main", spv::ExecutionModel::GLCompute, {64, 1, 1}},
          SpirvEntryPoint{"an entry of another name", spv::ExecutionModel::GLCompute, {8, 4, 2}}));
}

TEST(SpirvModule, WorkgroupSizeConstantOverridesTheExecutionMode) {
  Assembly parts;
  parts.decorations = "OpDecorate %size BuiltIn WorkgroupSize\n";
  parts.declarations =
      "%v3uint = OpTypeVector %uint 3\n%size = OpConstantComposite %v3uint %uint_16 %uint_4 "
      "%uint_2\n";
  const SpirvEntryPoint entry = read(parts).entryPoints.at(0);
  EXPECT_THAT(entry.localSize, ElementsAre(16, 4, 2));
}

TEST(SpirvModule, BuffersAreSortedAndNameWhatTheyAreReadThrough) {
  Assembly parts;
  parts.capabilities +=
      "OpCapability StorageBuffer8BitAccess\nOpCapability StorageBuffer16BitAccess\n";
  parts.declarations =
      "%vec4 = OpTypeVector %float 4\n%int8 = OpTypeInt 8 1\n%uint16 = OpTypeInt 16 0\n"
      "%uvec2 = OpTypeVector %uint 2\n";
  addBuffer(parts, "later_set", 1, 0, "%uvec2", 8);
  addBuffer(parts, "c", 0, 2, "%uint16", 2);
  addBuffer(parts, "b", 0, 1, "%int8", 1);
  addBuffer(parts, "a", 0, 0, "%vec4", 16);
  addBuffer(parts, "d", 0, 3, "%float", 4);
  addBuffer(parts, "twice", 0, 3, "%uint", 4);
  const SpirvModule module = read(parts);
  EXPECT_THAT(module.buffers,
              ElementsAre(SpirvBuffer{0, 0, "vec4", 16}, SpirvBuffer{0, 1, "int8_t", 1},
                          SpirvBuffer{0, 2, "uint16_t", 2}, SpirvBuffer{0, 3, "float", 4},
                          SpirvBuffer{0, 3, "uint", 4}, SpirvBuffer{1, 0, "uvec2", 8}));
  EXPECT_THAT(module.capabilities,
              ElementsAre(spv::Capability::Shader, spv::Capability::StorageBuffer8BitAccess,
                          spv::Capability::StorageBuffer16BitAccess));
}

TEST(SpirvModule, BufferThatIsMoreThanOneArrayIsABlock) {
  Assembly parts;
  parts.interface = "%b";
  parts.decorations =
      "OpDecorate %b DescriptorSet 0\nOpDecorate %b Binding 0\nOpDecorate %block Block\n"
      "OpMemberDecorate %block 0 Offset 0\nOpMemberDecorate %block 1 Offset 4\n"
      "OpDecorate %array ArrayStride 4\n";
  parts.declarations =
      "%array = OpTypeRuntimeArray %float\n%block = OpTypeStruct %uint %array\n"
      "%pointer = OpTypePointer StorageBuffer %block\n%b = OpVariable %pointer StorageBuffer\n";
  EXPECT_THAT(read(parts).buffers, ElementsAre(SpirvBuffer{0, 0, "block", 0}));
}

TEST(SpirvModule, UniformBlocksAreOtherResources) {
  Assembly parts;
  parts.interface = "%u";
  parts.decorations =
      "OpDecorate %u DescriptorSet 0\nOpDecorate %u Binding 0\nOpDecorate %block Block\n"
      "OpMemberDecorate %block 0 Offset 0\n";
  parts.declarations =
      "%block = OpTypeStruct %uint\n%pointer = OpTypePointer Uniform %block\n"
      "%u = OpVariable %pointer Uniform\n";
  const SpirvModule module = read(parts);
  EXPECT_THAT(module.buffers, IsEmpty());
  EXPECT_EQ(module.otherResources, 1U);
}

// A block of a uint and a float, the float at `offset`.
Assembly withPushBlock(int offset) {
  Assembly parts;
  parts.interface = "%pc";
  parts.decorations =
      "OpDecorate %block Block\nOpMemberDecorate %block 0 Offset 0\n"
      "OpMemberDecorate %block 1 Offset " +
      std::to_string(offset) + "\n";
  parts.declarations =
      "%block = OpTypeStruct %uint %float\n%pointer = OpTypePointer PushConstant %block\n"
      "%pc = OpVariable %pointer PushConstant\n";
  return parts;
}

TEST(SpirvModule, PushMembersHaveTypesAndOffsets) {
  const SpirvModule module = read(withPushBlock(12));
  ASSERT_EQ(module.pushBlocks.size(), 1U);
  EXPECT_EQ(module.pushBlocks[0].name, "");
  EXPECT_THAT(module.pushBlocks[0].members,
              ElementsAre(SpirvPushMember{"", "uint", 0}, SpirvPushMember{"", "float", 12}));
}

TEST(SpirvModule, NamesAreReadWhereTheModuleHasThem) {
  Assembly parts = withPushBlock(4);
  parts.names =
      "OpName %block \"PC\"\nOpMemberName %block 0 \"count\"\nOpMemberName %block 1 \"epsilon\"\n";
  const SpirvModule module = read(parts);
  ASSERT_EQ(module.pushBlocks.size(), 1U);
  EXPECT_EQ(module.pushBlocks[0].name, "PC");
  EXPECT_THAT(module.pushBlocks[0].members, ElementsAre(SpirvPushMember{"count", "uint", 0},
                                                        SpirvPushMember{"epsilon", "float", 4}));
}

TEST(SpirvModule, SharedVariablesHaveTheirExtentsOutermostFirst) {
  Assembly parts;
  parts.interface = "%cube %flag";
  parts.names = "OpName %cube \"sCube\"\n";
  parts.declarations =
      "%row = OpTypeArray %float %uint_2\n%plane = OpTypeArray %row %uint_4\n"
      "%all = OpTypeArray %plane %uint_16\n%to_all = OpTypePointer Workgroup %all\n"
      "%to_int = OpTypePointer Workgroup %int\n"
      "%cube = OpVariable %to_all Workgroup\n%flag = OpVariable %to_int Workgroup\n";
  EXPECT_THAT(read(parts).shared,
              ElementsAre(SpirvShared{"sCube", "float", {16, 4, 2}}, SpirvShared{"", "int", {}}));
}

TEST(SpirvModule, ModulesThatBreakTheRulesAreRefused) {
  Assembly parts = withPushBlock(2);  // a member inside another
  EXPECT_THAT(problemOf(assemble(parts)), HasSubstr("offset"));

  parts = Assembly{};
  parts.capabilities.clear();
  EXPECT_THAT(problemOf(assemble(parts)), HasSubstr("Shader"));

  parts = Assembly{};  // what the capability would have to allow
  parts.declarations = "%int8 = OpTypeInt 8 1\n";
  EXPECT_THAT(problemOf(assemble(parts)), HasSubstr("8-bit"));
}

TEST(SpirvModule, WhatIsNoModuleIsRefused) {
  EXPECT_NE(problemOf({}), "");
  std::vector<uint32_t> words = assemble(Assembly{});
  words[0] ^= 1U;
  EXPECT_THAT(problemOf(words), HasSubstr("magic"));
}

TEST(SpirvModule, EveryShorterModuleIsRefused) {
  const std::vector<uint32_t> words = assemble(withPushBlock(4));
  for (size_t length = 0; length < words.size(); ++length) {
    EXPECT_NE(problemOf({words.begin(), words.begin() + static_cast<ptrdiff_t>(length)}), "")
        << length;
  }
}

TEST(SpirvModule, RefusedModuleLeavesTheOutputAlone) {
  SpirvModule module;
  module.otherResources = 7;
  std::string problem;
  EXPECT_FALSE(readSpirvModule({}, module, problem));
  EXPECT_EQ(module.otherResources, 7U);
}

}  // namespace
}  // namespace kiv::test
