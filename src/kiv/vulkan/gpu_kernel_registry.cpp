// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/gpu_kernel_registry.h"

namespace kiv::vulkan {
namespace {

constexpr uint32_t kWord = 4;  // bytes of one push constant

GpuKernelRegistry makeRegistry() {
  GpuKernelRegistry registry;
  registry.registerKernel(Opcode::Add, {ShaderId::Add, 3, 1 * kWord});
  registry.registerKernel(Opcode::Mul, {ShaderId::Mul, 3, 1 * kWord});
  registry.registerKernel(Opcode::RMSNorm, {ShaderId::RMSNorm, 3, 2 * kWord});
  registry.registerKernel(Opcode::Softmax, {ShaderId::Softmax, 2, 1 * kWord});
  registry.registerKernel(Opcode::Attention, {ShaderId::Attention, 5, 5 * kWord});
  registry.registerKernel(Opcode::RotaryEmbedding, {ShaderId::RoPE, 4, 2 * kWord});
  registry.registerKernel(Opcode::SwiGLU, {ShaderId::SwiGLU, 3, 1 * kWord});
  registry.registerKernel(Opcode::SiLU, {ShaderId::SiLU, 2, 1 * kWord});
  registry.registerKernel(Opcode::MatMulQ4_0, {ShaderId::Q4_0Gemm, 3, 5 * kWord});
  registry.registerKernel(Opcode::MatMulQ4_K, {ShaderId::Q4KGemm, 3, 5 * kWord});
  registry.registerKernel(Opcode::MatMulQ5_K, {ShaderId::Q5KGemm, 3, 5 * kWord});
  registry.registerKernel(Opcode::MatMulQ6_K, {ShaderId::Q6KGemm, 3, 5 * kWord});
  return registry;
}

// Filled when the program is loaded, before any thread can look.
[[maybe_unused]] GpuKernelRegistry& atLoadTime = GpuKernelRegistry::instance();

}  // namespace

GpuKernelRegistry& GpuKernelRegistry::instance() {
  static GpuKernelRegistry registry = makeRegistry();
  return registry;
}

void GpuKernelRegistry::registerKernel(Opcode op, const GpuKernelDesc& desc) {
  entries_[static_cast<size_t>(op)] = desc;
}

const GpuKernelDesc* GpuKernelRegistry::find(Opcode op) const {
  const auto index = static_cast<size_t>(op);
  if (index >= entries_.size() || entries_[index].shader == ShaderId::Count) return nullptr;
  return &entries_[index];
}

}  // namespace kiv::vulkan
