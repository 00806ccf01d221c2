// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_shaders.h"

#include <iterator>

namespace kiv::vulkan {
namespace {

#include "shader_arrays.inc"

constexpr EmbeddedShader kShaders[] = {
#include "shader_table.inc"
};

// The table's last entry is the one module without a ShaderId.
constexpr size_t kCount = static_cast<size_t>(ShaderId::Count);
static_assert(std::size(kShaders) == kCount + 1);

}  // namespace

const EmbeddedShader& embeddedShader(ShaderId id) { return kShaders[static_cast<size_t>(id)]; }

const EmbeddedShader& q5kGemvShader() { return kShaders[kCount]; }

}  // namespace kiv::vulkan
