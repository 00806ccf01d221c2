#include "support/spirv_module.h"

#include <algorithm>
#include <map>
#include <optional>
#include <spirv-tools/libspirv.hpp>
#include <utility>

namespace kiv::test {
namespace {

struct Instruction {
  spv::Op op = spv::Op::OpNop;
  std::vector<uint32_t> words;  // with the first, which holds opcode and length

  std::string text(size_t word) const {
    return reinterpret_cast<const char*>(&words[word]);  // ends with zeros, says the parser
  }
};

// Looks up what a valid module declares by its ids.
class Declarations {
 public:
  void add(const spv_parsed_instruction_t& parsed) {
    Instruction instruction{static_cast<spv::Op>(parsed.opcode),
                            {parsed.words, parsed.words + parsed.num_words}};
    if (instruction.op == spv::Op::OpName) names_[instruction.words[1]] = instruction.text(2);
    if (instruction.op == spv::Op::OpMemberName) {
      memberNames_[{instruction.words[1], instruction.words[2]}] = instruction.text(3);
    }
    if (parsed.result_id != 0) results_[parsed.result_id] = all_.size();
    all_.push_back(std::move(instruction));
  }

  const std::vector<Instruction>& all() const { return all_; }

  const Instruction& find(uint32_t id) const { return all_[results_.at(id)]; }

  std::string name(uint32_t id) const { return lookUp(names_, id); }
  std::string memberName(uint32_t type, uint32_t member) const {
    return lookUp(memberNames_, std::pair(type, member));
  }

  // The literal of the decoration on `id`, or on a member of it.
  std::optional<uint32_t> decoration(uint32_t id, spv::Decoration kind) const {
    for (const Instruction& i : all_) {
      if (i.op != spv::Op::OpDecorate || i.words[1] != id) continue;
      if (i.words[2] == static_cast<uint32_t>(kind) && i.words.size() > 3) return i.words[3];
    }
    return std::nullopt;
  }
  std::optional<uint32_t> decoration(uint32_t id, uint32_t member, spv::Decoration kind) const {
    for (const Instruction& i : all_) {
      if (i.op != spv::Op::OpMemberDecorate || i.words[1] != id || i.words[2] != member) continue;
      if (i.words[3] == static_cast<uint32_t>(kind) && i.words.size() > 4) return i.words[4];
    }
    return std::nullopt;
  }

  uint32_t constant(uint32_t id) const { return find(id).words[3]; }

  std::string typeName(uint32_t id) const;

 private:
  template <typename Map>
  static std::string lookUp(const Map& map, const typename Map::key_type& key) {
    const auto found = map.find(key);
    return found == map.end() ? std::string() : found->second;
  }

  std::vector<Instruction> all_;
  std::map<uint32_t, size_t> results_;
  std::map<uint32_t, std::string> names_;
  std::map<std::pair<uint32_t, uint32_t>, std::string> memberNames_;
};

std::string scalarName(const Instruction& type) {
  const uint32_t bits = type.words[2];
  if (type.op == spv::Op::OpTypeFloat) {
    return bits == 32 ? "float" : "float" + std::to_string(bits) + "_t";
  }
  const std::string name = type.words[3] == 0 ? "uint" : "int";
  return bits == 32 ? name : name + std::to_string(bits) + "_t";
}

std::string Declarations::typeName(uint32_t id) const {
  const Instruction& type = find(id);
  switch (type.op) {
    case spv::Op::OpTypeBool:
      return "bool";
    case spv::Op::OpTypeInt:
    case spv::Op::OpTypeFloat:
      return scalarName(type);
    case spv::Op::OpTypeVector: {
      const std::string component = typeName(type.words[2]);
      const std::string count = std::to_string(type.words[3]);
      if (component == "float") return "vec" + count;
      if (component == "uint") return "uvec" + count;
      if (component == "int") return "ivec" + count;
      return component + "x" + count;
    }
    default:
      return "opcode " + std::to_string(static_cast<uint32_t>(type.op));
  }
}

std::array<uint32_t, 3> localSizeOf(const Declarations& module, uint32_t entryPoint) {
  std::array<uint32_t, 3> size{};
  for (const Instruction& i : module.all()) {
    if (i.op == spv::Op::OpExecutionMode && i.words[1] == entryPoint &&
        i.words[2] == static_cast<uint32_t>(spv::ExecutionMode::LocalSize)) {
      size = {i.words[3], i.words[4], i.words[5]};
    }
  }
  for (const Instruction& i : module.all()) {
    if (i.op != spv::Op::OpConstantComposite && i.op != spv::Op::OpSpecConstantComposite) continue;
    if (module.decoration(i.words[2], spv::Decoration::BuiltIn) !=
        static_cast<uint32_t>(spv::BuiltIn::WorkgroupSize)) {
      continue;
    }
    for (size_t axis = 0; axis < 3; ++axis) size[axis] = module.constant(i.words[3 + axis]);
  }
  return size;
}

SpirvBuffer bufferOf(const Declarations& module, uint32_t variable, uint32_t block) {
  SpirvBuffer buffer;
  buffer.set = module.decoration(variable, spv::Decoration::DescriptorSet).value_or(0);
  buffer.binding = module.decoration(variable, spv::Decoration::Binding).value_or(0);
  buffer.element = "block";
  const Instruction& type = module.find(block);
  if (type.op != spv::Op::OpTypeStruct || type.words.size() != 3) return buffer;
  const Instruction& array = module.find(type.words[2]);
  if (array.op != spv::Op::OpTypeRuntimeArray) return buffer;
  buffer.element = module.typeName(array.words[2]);
  buffer.stride = module.decoration(array.words[1], spv::Decoration::ArrayStride).value_or(0);
  return buffer;
}

SpirvPushBlock pushBlockOf(const Declarations& module, uint32_t block) {
  SpirvPushBlock push;
  push.name = module.name(block);
  const Instruction& type = module.find(block);
  for (uint32_t i = 2; i < type.words.size(); ++i) {
    const uint32_t member = i - 2;
    push.members.push_back({module.memberName(block, member), module.typeName(type.words[i]),
                            module.decoration(block, member, spv::Decoration::Offset).value_or(0)});
  }
  return push;
}

SpirvShared sharedOf(const Declarations& module, uint32_t variable, uint32_t type) {
  SpirvShared shared;
  shared.name = module.name(variable);
  while (module.find(type).op == spv::Op::OpTypeArray) {
    shared.extents.push_back(module.constant(module.find(type).words[3]));
    type = module.find(type).words[2];
  }
  shared.element = module.typeName(type);
  return shared;
}

void addVariable(const Declarations& module, const Instruction& variable, SpirvModule& out) {
  const uint32_t id = variable.words[2];
  const uint32_t type = module.find(variable.words[1]).words[3];
  switch (static_cast<spv::StorageClass>(variable.words[3])) {
    case spv::StorageClass::StorageBuffer:
      out.buffers.push_back(bufferOf(module, id, type));
      break;
    case spv::StorageClass::PushConstant:
      out.pushBlocks.push_back(pushBlockOf(module, type));
      break;
    case spv::StorageClass::Workgroup:
      out.shared.push_back(sharedOf(module, id, type));
      break;
    case spv::StorageClass::Uniform:
    case spv::StorageClass::UniformConstant:
      ++out.otherResources;
      break;
    default:
      break;
  }
}

void addInstruction(const Declarations& module, const Instruction& i, SpirvModule& out) {
  if (i.op == spv::Op::OpCapability) {
    out.capabilities.push_back(static_cast<spv::Capability>(i.words[1]));
  } else if (i.op == spv::Op::OpEntryPoint) {
    out.entryPoints.push_back(
        {i.text(3), static_cast<spv::ExecutionModel>(i.words[1]), localSizeOf(module, i.words[2])});
  } else if (i.op == spv::Op::OpVariable) {
    addVariable(module, i, out);
  }
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

spv_result_t acceptHeader(void*, spv_endianness_t, uint32_t, uint32_t, uint32_t, uint32_t,
                          uint32_t) {
  return SPV_SUCCESS;
}

spv_result_t addParsed(void* declarations, const spv_parsed_instruction_t* instruction) {
  static_cast<Declarations*>(declarations)->add(*instruction);
  return SPV_SUCCESS;
}

}  // namespace

bool readSpirvModule(std::span<const uint32_t> words, SpirvModule& out, std::string& problem) {
  problem = problemsOf(words);
  if (!problem.empty()) return false;
  const spvtools::Context context(SPV_ENV_VULKAN_1_2);
  Declarations declarations;
  spvBinaryParse(context.CContext(), &declarations, words.data(), words.size(), acceptHeader,
                 addParsed, /*diagnostic=*/nullptr);

  out = {};
  for (const Instruction& i : declarations.all()) addInstruction(declarations, i, out);
  std::sort(out.buffers.begin(), out.buffers.end());
  return true;
}

void PrintTo(const SpirvEntryPoint& entry, std::ostream* out) {
  *out << entry.name << " (model " << static_cast<uint32_t>(entry.model) << "), local size "
       << entry.localSize[0] << " " << entry.localSize[1] << " " << entry.localSize[2];
}

void PrintTo(const SpirvBuffer& buffer, std::ostream* out) {
  *out << "set " << buffer.set << " binding " << buffer.binding << ": " << buffer.element
       << ", stride " << buffer.stride;
}

void PrintTo(const SpirvPushMember& member, std::ostream* out) {
  *out << "offset " << member.offset << ": " << member.type << " " << member.name;
}

void PrintTo(const SpirvShared& shared, std::ostream* out) {
  *out << shared.element;
  for (const uint32_t extent : shared.extents) *out << "[" << extent << "]";
  *out << " " << shared.name;
}

}  // namespace kiv::test
