// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/shader_reflection.h"

#include <algorithm>
#include <spirv-tools/libspirv.hpp>
#include <spirv_cross/spirv_cross.hpp>
#include <spirv_cross/spirv_parser.hpp>

namespace zemtest {

namespace {

using spirv_cross::Compiler;
using spirv_cross::Resource;
using spirv_cross::SPIRType;

std::string scalarName(const SPIRType& type) {
  switch (type.basetype) {
    case SPIRType::Float:
      return "float";
    case SPIRType::UInt:
      return "uint";
    case SPIRType::Int:
      return "int";
    case SPIRType::UShort:
      return "uint16_t";
    case SPIRType::SByte:
      return "int8_t";
    default:
      return "other";
  }
}

// Of the element, for an array.
std::string typeName(const SPIRType& type) {
  const std::string scalar = scalarName(type);
  if (type.columns != 1) return "other";
  if (type.vecsize == 1) return scalar;
  return (scalar == "float" ? "vec" : scalar + "vec") + std::to_string(type.vecsize);
}

ReflectedBuffer bufferOf(const Compiler& compiler, const Resource& resource) {
  ReflectedBuffer buffer;
  buffer.set = compiler.get_decoration(resource.id, spv::DecorationDescriptorSet);
  buffer.binding = compiler.get_decoration(resource.id, spv::DecorationBinding);
  buffer.element = "block";
  const SPIRType& block = compiler.get_type(resource.base_type_id);
  if (block.member_types.size() != 1) return buffer;
  const SPIRType& array = compiler.get_type(block.member_types[0]);
  if (array.array.size() != 1 || array.array[0] != 0) return buffer;
  buffer.element = typeName(array);
  buffer.stride = compiler.type_struct_member_array_stride(block, 0);
  return buffer;
}

std::vector<ReflectedPushMember> pushBlockOf(const Compiler& compiler, const Resource& resource) {
  const SPIRType& block = compiler.get_type(resource.base_type_id);
  std::vector<ReflectedPushMember> members;
  for (uint32_t i = 0; i < block.member_types.size(); ++i) {
    members.push_back({typeName(compiler.get_type(block.member_types[i])),
                       compiler.type_struct_member_offset(block, i)});
  }
  return members;
}

ReflectedShared sharedOf(const SPIRType& type) {
  ReflectedShared shared = {typeName(type), {type.array.begin(), type.array.end()}};
  std::reverse(shared.extents.begin(), shared.extents.end());
  return shared;
}

std::vector<ReflectedEntryPoint> entryPointsOf(const Compiler& compiler) {
  std::vector<ReflectedEntryPoint> entries;
  for (const auto& found : compiler.get_entry_points_and_stages()) {
    const auto& size = compiler.get_entry_point(found.name, found.execution_model).workgroup_size;
    entries.push_back({found.name,
                       found.execution_model == spv::ExecutionModelGLCompute,
                       {size.x, size.y, size.z}});
  }
  return entries;
}

// Empty for a valid module.
std::string problemsOf(std::span<const uint32_t> words) {
  std::string said;
  spvtools::SpirvTools tools(SPV_ENV_VULKAN_1_2);
  tools.SetMessageConsumer([&said](spv_message_level_t, const char*, const spv_position_t& position,
                                   const char* message) {
    said += "word " + std::to_string(position.index) + ": " + message + "\n";
  });
  if (tools.Validate(words.data(), words.size())) return {};
  return said.empty() ? "not valid" : said;
}

}  // namespace

std::string reflect(std::span<const uint32_t> words, ReflectedShader& out) {
  if (std::string problems = problemsOf(words); !problems.empty()) return problems;
  spirv_cross::Parser parser(words.data(), words.size());
  parser.parse();
  spirv_cross::ParsedIR& module = parser.get_parsed_ir();
  const Compiler compiler(module);
  const spirv_cross::ShaderResources resources = compiler.get_shader_resources();

  out = {};
  for (const spv::Capability one : compiler.get_declared_capabilities()) {
    out.capabilities.push_back(one);
  }
  out.entryPoints = entryPointsOf(compiler);
  for (const Resource& one : resources.storage_buffers) {
    out.buffers.push_back(bufferOf(compiler, one));
  }
  for (const Resource& one : resources.push_constant_buffers) {
    out.pushBlocks.push_back(pushBlockOf(compiler, one));
  }
  module.for_each_typed_id<spirv_cross::SPIRVariable>(
      [&](uint32_t, const spirv_cross::SPIRVariable& variable) {
        if (variable.storage != spv::StorageClassWorkgroup) return;
        out.shared.push_back(sharedOf(compiler.get_type(variable.basetype)));
      });
  out.otherResources = resources.uniform_buffers.size() + resources.storage_images.size() +
                       resources.sampled_images.size() + resources.separate_images.size() +
                       resources.separate_samplers.size() + resources.atomic_counters.size();
  std::sort(out.capabilities.begin(), out.capabilities.end());
  std::sort(out.buffers.begin(), out.buffers.end());
  std::sort(out.shared.begin(), out.shared.end());
  return {};
}

void PrintTo(const ReflectedEntryPoint& entry, std::ostream* out) {
  *out << entry.name << (entry.compute ? "" : " (not compute)") << ", local size "
       << entry.localSize[0] << " " << entry.localSize[1] << " " << entry.localSize[2];
}

void PrintTo(const ReflectedBuffer& buffer, std::ostream* out) {
  *out << "set " << buffer.set << " binding " << buffer.binding << ": " << buffer.element
       << ", stride " << buffer.stride;
}

void PrintTo(const ReflectedPushMember& member, std::ostream* out) {
  *out << "offset " << member.offset << ": " << member.type;
}

void PrintTo(const ReflectedShared& shared, std::ostream* out) {
  *out << shared.element;
  for (const uint32_t extent : shared.extents) *out << "[" << extent << "]";
}

}  // namespace zemtest
