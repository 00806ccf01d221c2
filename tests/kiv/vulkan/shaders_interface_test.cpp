// SPDX-License-Identifier: Apache-2.0
// The interface of every embedded shader: what the host binds and pushes by number
// must be what the module reads. The modules are taken apart; no device is needed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <spirv_cross/spirv.hpp>
#include <string>
#include <vector>

#include "kiv/vulkan/shader_reflection.h"
#include "kiv/vulkan/vulkan_shader_needs.h"
#include "kiv/vulkan/vulkan_shaders.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct Interface {
  std::string name;
  const EmbeddedShader* shader = nullptr;
  uint32_t localSize = 0;
  std::vector<std::string> bindings;
  std::vector<std::string> push;
  std::vector<ReflectedShared> shared;
  std::vector<uint32_t> beyondShader;
};

void PrintTo(const Interface& row, std::ostream* out) { *out << row.name; }

const std::string kF32 = "float";
const std::string kVec4 = "vec4";
const std::string kU32 = "uint";
const std::string kU16 = "uint16_t";
const std::string kI8 = "int8_t";

std::vector<std::string> times(size_t count, const std::string& type) {
  return std::vector<std::string>(count, type);
}

ReflectedShared array(const std::string& element, std::vector<uint32_t> extents) {
  return {element, std::move(extents)};
}

ReflectedShared floats(uint32_t count) { return array(kF32, {count}); }
ReflectedShared words(uint32_t count) { return array(kU32, {count}); }

std::vector<Interface> allInterfaces() {
  const std::vector<std::string> gemm = {kF32, kU32, kF32};
  const std::vector<std::string> gemmVec4 = {kVec4, kU32, kF32};
  const std::vector<std::string> gemmPush = times(5, kU32);
  const std::vector<std::string> gemvPush = times(4, kU32);
  const ReflectedShared scales = array(kF32, {16, 4, 2});
  const auto row = [](ShaderId id, const char* name, uint32_t localSize,
                      std::vector<std::string> bindings, std::vector<std::string> push,
                      std::vector<ReflectedShared> shared = {},
                      std::vector<uint32_t> beyondShader = {}) {
    return Interface{name,
                     &embeddedShader(id),
                     localSize,
                     std::move(bindings),
                     std::move(push),
                     std::move(shared),
                     std::move(beyondShader)};
  };
  using enum ShaderId;
  std::vector<Interface> rows = {
      row(Add, "Add", 256, times(3, kF32), {kU32}),
      row(Mul, "Mul", 256, times(3, kF32), {kU32}),
      row(SiLU, "SiLU", 256, times(2, kF32), {kU32}),
      row(SwiGLU, "SwiGLU", 256, times(3, kF32), {kU32}),
      row(RMSNorm, "RMSNorm", 256, times(3, kF32), {kU32, kF32}, {floats(256)}),
      row(Softmax, "Softmax", 256, times(2, kF32), {kU32}, {floats(256), floats(256)}),
      row(RoPE, "RoPE", 256, times(4, kF32), {kU32, kU32}),
      row(Q4_0Gemm, "Q4_0Gemm", 256, gemm, gemmPush, {words(8192), words(8192)}),
      row(Q4KGemm, "Q4KGemm", 256, gemm, gemmPush, {floats(8192), floats(8192)}),
      row(Q5KGemm, "Q5KGemm", 256, gemm, gemmPush, {words(8192), words(8192)}),
      row(Q6KGemm, "Q6KGemm", 256, gemm, gemmPush, {floats(8192), floats(8192)}),
      row(Attention, "Attention", 256, times(5, kF32), {kU32, kU32, kU32, kF32, kU32},
          {floats(256), floats(256)}),
      row(Embedding, "Embedding", 256, {kU32, kF32}, {kU32, kU32, kU32, kF32}),
      row(GeluMul, "GeluMul", 256, times(3, kF32), {kU32, kU32}),
      row(Bf16Proj, "Bf16Proj", 256, {kU32, kF32, kF32}, {kU32, kU32, kF32}),
      row(KvStore, "KvStore", 256, times(4, kF32), {kU32, kU32}),
      row(AttentionGemma, "AttentionGemma", 512, {kF32, kVec4, kF32, kF32, kF32},
          {kU32, kU32, kU32, kU32, kF32, kU32, kU32, kU32}, {floats(4096), floats(512)}),
      row(Softcap, "Softcap", 256, {kF32}, {kU32, kF32}),
      row(Residual, "Residual", 256, times(2, kF32), {kU32}),
      row(RopeGemma, "RopeGemma", 256, times(3, kF32), {kU32, kU32, kU32, kF32, kU32}),
      row(Scale, "Scale", 256, {kF32}, {kU32, kF32}),
      row(Q4KGemmDecode, "Q4KGemmDecode", 256, gemm, gemvPush, {floats(4096)}),
      row(Q4KDeqDiag, "Q4KDeqDiag", 1, {kU32, kF32}, {}),
      row(Q4KGemvV1, "Q4KGemvV1", 256, gemm, gemvPush, {floats(256)}),
      row(Q4KGemvV2, "Q4KGemvV2", 128, gemm, gemvPush, {floats(128)}),
      row(Q4KGemvV3, "Q4KGemvV3", 128, gemm, gemvPush, {floats(128)}),
      row(Q4KGemvV4, "Q4KGemvV4", 128, gemmVec4, gemvPush, {floats(128)}),
      row(Q4KGemvV5, "Q4KGemvV5", 128, gemm, gemvPush, {words(1440), floats(10240), floats(128)}),
      row(Q4KGemvV6, "Q4KGemvV6", 128, gemm, gemvPush, {words(2880), floats(10240), floats(128)}),
      row(Q6KGemvV1, "Q6KGemvV1", 128, gemm, gemvPush, {floats(128)}),
      row(Q6KGemvV2, "Q6KGemvV2", 256, gemm, gemvPush, {floats(256)}),
      row(Q6KGemvLlama, "Q6KGemvLlama", 64, gemmVec4, gemvPush, {scales, floats(64)}),
      row(Bf16GemvV1, "Bf16GemvV1", 128, {kU32, kF32, kF32}, {kU32, kU32, kU32, kU32, kF32},
          {floats(128)}),
      row(Q4KGemvV7, "Q4KGemvV7", 128, gemm, gemvPush, {floats(128)}),
      row(ArgmaxPartial, "ArgmaxPartial", 256, times(2, kF32), {kU32}, {floats(256), words(256)}),
      row(Q4KGemvV8, "Q4KGemvV8", 256, gemm, gemvPush, {floats(4096), floats(256)}),
      row(Q4KGemvLlama, "Q4KGemvLlama", 64, gemmVec4, gemvPush, {floats(64)}),
      row(Q4KGemvLlamaSg, "Q4KGemvLlamaSg", 64, gemmVec4, gemvPush, {floats(64)},
          {spv::CapabilityGroupNonUniform, spv::CapabilityGroupNonUniformArithmetic}),
      row(RopeGemmaBatch, "RopeGemmaBatch", 256, times(3, kF32), {kU32, kU32, kF32, kU32}),
      row(ProbeRow, "ProbeRow", 128, {kU32, kF32}, gemvPush, {floats(128)}),
      row(ProbeFlat, "ProbeFlat", 128, {kVec4, kF32}, gemvPush, {floats(128)}),
      row(Q4KGemvNative, "Q4KGemvNative", 64, {kVec4, kU16, kU32, kF32}, gemvPush, {floats(64)},
          {spv::CapabilityStorageBuffer16BitAccess}),
      row(Q6KGemvNative, "Q6KGemvNative", 64, {kVec4, kU16, kI8, kF32}, gemvPush,
          {scales, floats(64)},
          {spv::CapabilityStorageBuffer16BitAccess, spv::CapabilityStorageBuffer8BitAccess}),
  };
  rows.push_back({"Q5KGemvLlama", &q5kGemvShader(), 64, gemmVec4, gemvPush, {floats(64)}, {}});
  return rows;
}

std::vector<ReflectedBuffer> expectedBuffers(const Interface& row) {
  std::vector<ReflectedBuffer> buffers;
  for (const std::string& element : row.bindings) {
    const uint32_t stride = element == kVec4 ? 16 : element == kU16 ? 2 : element == kI8 ? 1 : 4;
    buffers.push_back({0, static_cast<uint32_t>(buffers.size()), element, stride});
  }
  return buffers;
}

// One block, or none.
std::vector<std::vector<ReflectedPushMember>> expectedPush(const Interface& row) {
  if (row.push.empty()) return {};
  std::vector<ReflectedPushMember> members;
  for (const std::string& type : row.push) {
    members.push_back({type, static_cast<uint32_t>(members.size()) * 4});
  }
  return {members};
}

// In no particular order, so sorted.
std::vector<ReflectedShared> sorted(std::vector<ReflectedShared> shared) {
  std::sort(shared.begin(), shared.end());
  return shared;
}

// Compares two values for a list of differences.
template <typename T>
void compare(const char* what, const T& actual, const T& expected,
             std::vector<std::string>& differences) {
  if (actual == expected) return;
  differences.push_back(std::string(what) + ": " + ::testing::PrintToString(actual) +
                        " in place of " + ::testing::PrintToString(expected));
}

// How the module at `shader` differs from `row`: empty when it does not.
std::vector<std::string> differencesFrom(const Interface& row, const EmbeddedShader& shader) {
  if (shader.code == nullptr) return {"the module is missing"};
  if (shader.code[0] != spv::MagicNumber) return {"the first word is not SPIR-V's"};
  ReflectedShader module;
  const std::string problem = reflect({shader.code, shader.wordCount}, module);
  if (!problem.empty()) return {problem};

  std::vector<std::string> differences;
  const ReflectedEntryPoint entry = {"main", true, {row.localSize, 1, 1}};
  compare("entry points", module.entryPoints, {entry}, differences);
  compare("buffers", module.buffers, expectedBuffers(row), differences);
  compare("other resources", module.otherResources, size_t{0}, differences);
  compare("push blocks", module.pushBlocks, expectedPush(row), differences);
  compare("shared memory", module.shared, sorted(row.shared), differences);
  for (const uint32_t capability : module.capabilities) {
    const auto& allowed = row.beyondShader;
    if (capability == spv::CapabilityShader) continue;
    if (std::find(allowed.begin(), allowed.end(), capability) != allowed.end()) continue;
    differences.push_back("capability " + std::to_string(capability));
  }
  return differences;
}

class ShaderInterface : public ::testing::TestWithParam<Interface> {};

TEST_P(ShaderInterface, IsWhatTheHostBindsAndPushes) {
  EXPECT_THAT(differencesFrom(GetParam(), *GetParam().shader), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Modules, ShaderInterface, ::testing::ValuesIn(allInterfaces()),
                         [](const auto& module) { return module.param.name; });

uint64_t bytesOf(const std::string& element) {
  if (element == kVec4) return 16;
  EXPECT_THAT((std::vector<std::string>{kF32, kU32}), Contains(element));
  return 4;
}

// What the library reads from a module before it makes a pipeline of it.
TEST_P(ShaderInterface, TellsWhatItNeedsOfTheDevice) {
  uint64_t shared = 0;
  for (const ReflectedShared& array : GetParam().shared) {
    uint64_t bytes = bytesOf(array.element);
    for (const uint32_t extent : array.extents) bytes *= extent;
    shared += bytes;
  }
  const EmbeddedShader& shader = *GetParam().shader;
  const ShaderNeeds needs = shaderNeeds(shader.code, shader.wordCount);
  EXPECT_EQ(needs.sharedBytes, shared);
  EXPECT_EQ(needs.localSize, (std::array<uint32_t, 3>{GetParam().localSize, 1, 1}));
}

TEST(ShaderInterfaces, EveryModuleHasARowOfItsOwn) {
  std::vector<const EmbeddedShader*> shaders;
  for (const Interface& row : allInterfaces()) shaders.push_back(row.shader);
  for (size_t id = 0; id < static_cast<size_t>(ShaderId::Count); ++id) {
    EXPECT_EQ(
        std::count(shaders.begin(), shaders.end(), &embeddedShader(static_cast<ShaderId>(id))), 1)
        << id;
  }
  EXPECT_EQ(shaders.size(), static_cast<size_t>(ShaderId::Count) + 1);
}

// That the comparison above notices things: one row, altered in one place each.
class AlteredInterface : public ::testing::Test {
 protected:
  std::vector<std::string> differences() const { return differencesFrom(row_, *row_.shader); }

  Interface row_ = allInterfaces().at(static_cast<size_t>(ShaderId::Add));
};

TEST_F(AlteredInterface, UnalteredRowMatches) { EXPECT_THAT(differences(), IsEmpty()); }

TEST_F(AlteredInterface, LocalSizeIsCompared) {
  row_.localSize = 128;
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("entry points")));
}

TEST_F(AlteredInterface, ElementTypesAreCompared) {
  row_.bindings[1] = kU32;
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("buffers")));
}

TEST_F(AlteredInterface, NumberOfBindingsIsCompared) {
  row_.bindings.pop_back();
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("buffers")));
}

TEST_F(AlteredInterface, TypesOfPushMembersAreCompared) {
  row_.push = {kF32};
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("push blocks")));
}

TEST_F(AlteredInterface, NumberOfPushMembersIsCompared) {
  row_.push = {kU32, kU32};
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("push blocks")));
}

TEST_F(AlteredInterface, UnwantedPushBlockIsNoticed) {
  row_.push.clear();
  EXPECT_THAT(differences(), Contains(HasSubstr("push blocks")));
}

TEST_F(AlteredInterface, SharedArraysAreCompared) {
  row_.shared = {floats(256)};
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("shared memory")));
}

// The module altered in place of the row.
class AlteredModule : public ::testing::Test {
 protected:
  std::vector<std::string> differences() const {
    return differencesFrom(row_, {words_.data(), words_.size()});
  }

  // The first word of the first instruction with this opcode.
  size_t find(spv::Op op) const {
    constexpr size_t kHeader = 5;
    for (size_t at = kHeader; at < words_.size(); at += words_[at] >> 16) {
      if ((words_[at] & 0xffffU) == static_cast<uint32_t>(op)) return at;
    }
    ADD_FAILURE() << "no such instruction";
    return 0;
  }

  Interface row_ = allInterfaces().at(static_cast<size_t>(ShaderId::Add));
  std::vector<uint32_t> words_{row_.shader->code, row_.shader->code + row_.shader->wordCount};
};

TEST_F(AlteredModule, UnalteredModuleMatches) { EXPECT_THAT(differences(), IsEmpty()); }

TEST_F(AlteredModule, EntryPointOfAnotherNameIsNoticed) {
  words_[find(spv::OpEntryPoint) + 3] ^= 0x20U;  // "Main"
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("Main")));
}

TEST_F(AlteredModule, FurtherCapabilityIsNoticed) {
  const uint32_t int64[] = {(2U << 16) | spv::OpCapability, spv::CapabilityInt64};
  words_.insert(words_.begin() + 5, std::begin(int64), std::end(int64));
  EXPECT_THAT(differences(), ElementsAre("capability 11"));
}

TEST_F(AlteredModule, BrokenModuleIsNoticed) {
  words_.pop_back();
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("word")));
}

TEST_F(AlteredModule, BytesInTheOtherOrderAreNoticed) {
  for (uint32_t& word : words_) word = __builtin_bswap32(word);
  EXPECT_THAT(differences(), ElementsAre(HasSubstr("first word")));
}

TEST_F(AlteredModule, MissingModuleIsNoticed) {
  EXPECT_THAT(differencesFrom(row_, EmbeddedShader{}), ElementsAre(HasSubstr("missing")));
}

}  // namespace
}  // namespace zemtest
