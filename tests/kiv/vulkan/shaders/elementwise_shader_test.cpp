// The elementwise shaders against plain loops.
#include "support/shader_runner.h"

namespace kiv::test {
namespace {

using vulkan::ShaderId;

using ElementwiseShader = ShaderTest;

TEST_F(ElementwiseShader, AddAddsAndLeavesWhatLiesBehindAlone) {
  const std::vector<float> a = {1, 2, 3, 4, 5};
  const std::vector<float> b = {10, 20, 30, 40, 50};
  std::vector<BufferBytes> buffers = {bytesOf(a), bytesOf(b), bytesOf(std::vector<float>(5, -1))};
  run(ShaderId::Add, buffers, {4}, {});
  EXPECT_EQ(valuesOf<float>(buffers[2]), (std::vector<float>{11, 22, 33, 44, -1}));
}

}  // namespace
}  // namespace kiv::test
