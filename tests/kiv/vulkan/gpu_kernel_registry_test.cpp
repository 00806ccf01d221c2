// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/gpu_kernel_registry.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

struct Row {
  ShaderId shader;
  uint32_t bindings;
  uint32_t pushSize;
};

const std::map<Opcode, Row> kTable = {
    {Opcode::Add, {ShaderId::Add, 3, 4}},
    {Opcode::Mul, {ShaderId::Mul, 3, 4}},
    {Opcode::RMSNorm, {ShaderId::RMSNorm, 3, 8}},
    {Opcode::Softmax, {ShaderId::Softmax, 2, 4}},
    {Opcode::Attention, {ShaderId::Attention, 5, 20}},
    {Opcode::RotaryEmbedding, {ShaderId::RoPE, 4, 8}},
    {Opcode::SwiGLU, {ShaderId::SwiGLU, 3, 4}},
    {Opcode::SiLU, {ShaderId::SiLU, 2, 4}},
    {Opcode::MatMulQ4_0, {ShaderId::Q4_0Gemm, 3, 20}},
    {Opcode::MatMulQ4_K, {ShaderId::Q4KGemm, 3, 20}},
    {Opcode::MatMulQ5_K, {ShaderId::Q5KGemm, 3, 20}},
    {Opcode::MatMulQ6_K, {ShaderId::Q6KGemm, 3, 20}},
};

TEST(GpuKernelRegistry, HoldsItsTwelveKernelsAndNoOthers) {
  const GpuKernelRegistry& registry = GpuKernelRegistry::instance();
  for (size_t i = 0; i < kOpcodeCount; ++i) {
    const auto op = static_cast<Opcode>(i);
    const GpuKernelDesc* desc = registry.find(op);
    const auto row = kTable.find(op);
    if (row == kTable.end()) {
      EXPECT_EQ(desc, nullptr) << i;
      continue;
    }
    ASSERT_NE(desc, nullptr) << i;
    EXPECT_EQ(desc->shader, row->second.shader) << i;
    EXPECT_EQ(desc->bindings, row->second.bindings) << i;
    EXPECT_EQ(desc->pushSize, row->second.pushSize) << i;
  }
}

TEST(GpuKernelRegistry, ThereIsOneForAllThreads) {
  GpuKernelRegistry* other = nullptr;
  std::thread([&other] { other = &GpuKernelRegistry::instance(); }).join();
  EXPECT_EQ(other, &GpuKernelRegistry::instance());
}

// Runs before main(), as code of a host may that looks before then.
const GpuKernelDesc* const foundBeforeMain = GpuKernelRegistry::instance().find(Opcode::MatMulQ6_K);

TEST(GpuKernelRegistry, IsFilledBeforeMain) {
  ASSERT_NE(foundBeforeMain, nullptr);
  EXPECT_EQ(foundBeforeMain->shader, ShaderId::Q6KGemm);
}

TEST(GpuKernelRegistry, ValuesThatAreNoOpcodeAreNotFound) {
  EXPECT_EQ(GpuKernelRegistry::instance().find(static_cast<Opcode>(27)), nullptr);
  EXPECT_EQ(GpuKernelRegistry::instance().find(static_cast<Opcode>(255)), nullptr);
}

TEST(GpuKernelRegistry, BeginsEmpty) {
  const GpuKernelRegistry registry;
  for (size_t i = 0; i < kOpcodeCount; ++i) {
    EXPECT_EQ(registry.find(static_cast<Opcode>(i)), nullptr) << i;
  }
}

TEST(GpuKernelRegistry, LaterDescriptorReplacesTheEarlier) {
  GpuKernelRegistry registry;
  registry.registerKernel(Opcode::GELU, {ShaderId::GeluMul, 3, 8});
  registry.registerKernel(Opcode::GELU, {ShaderId::Scale, 1, 12});
  const GpuKernelDesc* desc = registry.find(Opcode::GELU);
  ASSERT_NE(desc, nullptr);
  EXPECT_EQ(desc->shader, ShaderId::Scale);
  EXPECT_EQ(desc->bindings, 1U);
  EXPECT_EQ(desc->pushSize, 12U);
  EXPECT_EQ(registry.find(Opcode::FusedRMSNormLinear), nullptr);
}

TEST(GpuKernelRegistry, DescriptorWithoutAShaderEmptiesTheEntry) {
  GpuKernelRegistry registry;
  registry.registerKernel(Opcode::Add, {ShaderId::Add, 3, 4});
  registry.registerKernel(Opcode::Add, {});
  EXPECT_EQ(registry.find(Opcode::Add), nullptr);
}

TEST(Opcode, NumbersAreFixed) {
  EXPECT_EQ(static_cast<int>(Opcode::Add), 0);
  EXPECT_EQ(static_cast<int>(Opcode::Relu), 5);
  EXPECT_EQ(static_cast<int>(Opcode::RMSNorm), 12);
  EXPECT_EQ(static_cast<int>(Opcode::SiLU), 21);
  EXPECT_EQ(static_cast<int>(Opcode::MatMulQ6_K), 26);
  EXPECT_EQ(kOpcodeCount, 27U);
  EXPECT_EQ(static_cast<int>(ShaderId::Count), 43);
}

}  // namespace
}  // namespace zemtest
