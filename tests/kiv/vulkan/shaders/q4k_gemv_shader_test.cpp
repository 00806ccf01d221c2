// The matrix-vector products of Q4_K weights, in all their partitions, against a
// plain loop over the weights that the CPU decodes.
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <ostream>
#include <utility>

#include "kiv/dequant.h"
#include "kiv/quant_testing.h"
#include "kiv/vulkan/shaders/q4k_testing.h"
#include "support/shader_runner.h"

namespace kiv::test {
namespace {

using vulkan::EmbeddedShader;
using vulkan::embeddedShader;
using vulkan::ShaderId;

constexpr float kSentinel = -12345.0F;
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr uint8_t kNanByte = 0xFF;  // as a half or a float: NaN

// The two modules that need more shared memory than every device has, with tiles
// of 6 blocks in place of 40.
constexpr uint32_t kSmallV5[] =
#include "q4k_gemv_v5_small.inc"
    ;
constexpr uint32_t kSmallV6[] =
#include "q4k_gemv_v6_small.inc"
    ;

enum class Needs : uint8_t { Nothing, NativeStorage, SubgroupArithmetic };

struct Variant {
  const char* name;
  EmbeddedShader shader;
  uint32_t rowsPerGroup;
  uint32_t sharedBytes;
  Needs needs = Needs::Nothing;
};

void PrintTo(const Variant& variant, std::ostream* out) { *out << variant.name; }

const Variant kVariants[] = {
    {"GemmDecode", embeddedShader(ShaderId::Q4KGemmDecode), 64, 16384},
    {"V1", embeddedShader(ShaderId::Q4KGemvV1), 1, 1024},
    {"V2", embeddedShader(ShaderId::Q4KGemvV2), 1, 512},
    {"V3", embeddedShader(ShaderId::Q4KGemvV3), 2, 512},
    {"V4", embeddedShader(ShaderId::Q4KGemvV4), 2, 512},
    {"V5", embeddedShader(ShaderId::Q4KGemvV5), 1, 47232},
    {"V5Small", {kSmallV5, std::size(kSmallV5)}, 1, 7520},
    {"V6", embeddedShader(ShaderId::Q4KGemvV6), 2, 52992},
    {"V6Small", {kSmallV6, std::size(kSmallV6)}, 2, 8384},
    {"V7", embeddedShader(ShaderId::Q4KGemvV7), 4, 512},
    {"V8", embeddedShader(ShaderId::Q4KGemvV8), 8, 17408},
    {"LlamaSg", embeddedShader(ShaderId::Q4KGemvLlamaSg), 2, 256, Needs::SubgroupArithmetic},
    {"Native", embeddedShader(ShaderId::Q4KGemvNative), 2, 256, Needs::NativeStorage},
};

// Rows of blocks, an x, and their product.
struct Product {
  uint32_t k = 0;
  std::vector<uint8_t> blocks;  // row after row
  std::vector<float> x;
  std::vector<double> y;
  std::vector<double> magnitudes;  // sum of |w x| of each row
};

uint32_t blocksOf(uint32_t k) { return (k + 255) / 256; }

Product productOf(std::vector<uint8_t> blocks, uint32_t rows, uint32_t k) {
  Product product;
  product.k = k;
  product.blocks = std::move(blocks);
  product.x = quant::testing::randomFloats(k + 7, k, -2.0F, 2.0F);
  const size_t rowBytes = size_t{blocksOf(k)} * kQ4KBytes;
  std::vector<float> w(k);
  for (uint32_t r = 0; r < rows; ++r) {
    quant::dequantQ4K(product.blocks.data() + r * rowBytes, w.data(), k);
    double sum = 0;
    double magnitude = 0;
    for (uint32_t c = 0; c < k; ++c) {
      const double term = double{w[c]} * double{product.x[c]};
      sum += term;
      magnitude += std::fabs(term);
    }
    product.y.push_back(sum);
    product.magnitudes.push_back(magnitude);
  }
  return product;
}

// The same product for every variant and every number of rows up to 130.
const Product& sharedProduct(bool quantised, uint32_t k) {
  constexpr uint32_t kRows = 130;
  static std::map<std::pair<bool, uint32_t>, Product> products;
  auto& product = products[{quantised, k}];
  if (product.y.empty()) {
    const size_t count = size_t{kRows} * blocksOf(k);
    product = productOf(quantised ? quantisedQ4K(k, count) : randomQ4K(k, count), kRows, k);
  }
  return product;
}

// How a product is laid out in the buffers and dispatched.
struct Layout {
  uint32_t rows = 1;
  uint32_t gap = 0;    // bytes between rows
  uint32_t gridX = 0;  // workgroups of a line of the grid; 0: one line
};

class Q4KGemvShader : public ShaderTest, public ::testing::WithParamInterface<Variant> {
 protected:
  void SetUp() override;
  // y of the first rows of `product`, and what lies behind it in the buffer. What
  // lies behind x and w, and between rows, is NaN.
  std::vector<float> gemv(const Product& product, const Layout& layout);
  void expectProduct(const Product& product, const Layout& layout);
};

bool hasSubgroupArithmetic(const vulkan::VulkanContext& context) {
  VkPhysicalDeviceSubgroupProperties subgroups{};
  subgroups.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_SUBGROUP_PROPERTIES;
  VkPhysicalDeviceProperties2 properties{};
  properties.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2;
  properties.pNext = &subgroups;
  vkGetPhysicalDeviceProperties2(context.physicalDevice(), &properties);
  return (subgroups.supportedOperations & VK_SUBGROUP_FEATURE_ARITHMETIC_BIT) != 0 &&
         (subgroups.supportedStages & VK_SHADER_STAGE_COMPUTE_BIT) != 0;
}

void Q4KGemvShader::SetUp() {
  ShaderTest::SetUp();
  if (IsSkipped()) return;
  ZEM_NEEDS_SHARED_MEMORY(GetParam().sharedBytes);
  if (GetParam().needs == Needs::NativeStorage) {
    ZEM_NEEDS_NATIVE_STORAGE();
  }
  if (GetParam().needs == Needs::SubgroupArithmetic && !hasSubgroupArithmetic(context())) {
    GTEST_SKIP() << context().info().deviceName << " cannot add over subgroups";
  }
}

std::vector<uint8_t> storedRows(const Product& product, const Layout& layout) {
  const size_t rowBytes = size_t{blocksOf(product.k)} * kQ4KBytes;
  std::vector<uint8_t> stored((rowBytes + layout.gap) * layout.rows + kQ4KBytes, kNanByte);
  for (size_t r = 0; r < layout.rows; ++r) {
    std::copy_n(product.blocks.data() + r * rowBytes, rowBytes,
                stored.data() + r * (rowBytes + layout.gap));
  }
  return stored;
}

std::vector<float> Q4KGemvShader::gemv(const Product& product, const Layout& layout) {
  constexpr size_t kBehind = 9;
  std::vector<float> x = product.x;
  x.resize((x.size() + kBehind + 3) / 4 * 4, kNan);
  const BufferBytes w = storedRows(product, layout);
  std::vector<BufferBytes> buffers = {bytesOf(x), w};
  if (GetParam().needs == Needs::NativeStorage) buffers.push_back(w);
  buffers.push_back(bytesOf(std::vector<float>(layout.rows + kBehind, kSentinel)));

  const uint32_t perGroup = GetParam().rowsPerGroup;
  const uint32_t groups = std::max((layout.rows + perGroup - 1) / perGroup, 1U);
  const uint32_t gridX = layout.gridX == 0 ? groups : layout.gridX;
  const uint32_t colBytes = blocksOf(product.k) * kQ4KBytes + layout.gap;
  run(GetParam().shader, buffers, {layout.rows, product.k, product.k / 256, colBytes},
      {gridX, (groups + gridX - 1) / gridX});
  return valuesOf<float>(buffers.back());
}

// A sum of k terms has the relative error 2^-24 for each rounding on a term's way:
// fewer than 160 in any partition (an invocation's sums in a block, one a block, the
// halvings), which is 1e-5.
void Q4KGemvShader::expectProduct(const Product& product, const Layout& layout) {
  const std::vector<float> y = gemv(product, layout);
  ASSERT_GE(y.size(), layout.rows);
  for (uint32_t r = 0; r < layout.rows; ++r) {
    ASSERT_NEAR(y[r], product.y[r], 1e-5 * product.magnitudes[r])
        << "row " << r << " of " << layout.rows << ", k " << product.k;
  }
  for (size_t i = layout.rows; i < y.size(); ++i) ASSERT_EQ(y[i], kSentinel) << "behind y: " << i;
}

TEST_P(Q4KGemvShader, MultipliesRowsOfTheQuantiser) {
  for (const uint32_t k : {256U, 512U, 2560U, 9216U}) {
    for (const uint32_t rows : {1U, 2U, 3U, 7U, 130U}) {
      expectProduct(sharedProduct(/*quantised=*/true, k), {rows});
    }
  }
}

TEST_P(Q4KGemvShader, MultipliesRowsOfRandomBytes) {
  for (const uint32_t k : {256U, 512U, 2560U, 9216U}) {
    for (const uint32_t rows : {1U, 2U, 3U, 7U, 130U}) {
      expectProduct(sharedProduct(/*quantised=*/false, k), {rows});
    }
  }
}

// blocksPerCol counts whole blocks only; behind k lie NaN in x and codes in w.
TEST_P(Q4KGemvShader, LeavesOutWhatLiesBehindKInTheLastBlock) {
  for (const uint32_t k : {1U, 254U, 257U, 300U, 511U, 4095U, 4097U, 10500U}) {
    constexpr uint32_t kRows = 5;
    const size_t blocks = size_t{kRows} * blocksOf(k);
    expectProduct(productOf(randomQ4K(k, blocks), kRows, k), {kRows});
  }
}

TEST_P(Q4KGemvShader, FindsRowsThatLieApart) {
  for (const uint32_t gap : {4U, 148U}) {
    expectProduct(sharedProduct(/*quantised=*/false, 2560), {.rows = 7, .gap = gap});
  }
}

TEST_P(Q4KGemvShader, CountsTheWorkgroupsOfAGridAlongXFirst) {
  for (const uint32_t gridX : {1U, 2U, 5U}) {
    expectProduct(sharedProduct(/*quantised=*/false, 512), {.rows = 130, .gridX = gridX});
  }
}

TEST_P(Q4KGemvShader, WorkgroupsThatAreTooManyWriteNothing) {
  expectProduct(sharedProduct(/*quantised=*/false, 512), {.rows = 3, .gridX = 200});
  expectProduct(sharedProduct(/*quantised=*/false, 512), {.rows = 0, .gridX = 3});
}

TEST_P(Q4KGemvShader, ARowOfNanStaysARowOfNan) {
  constexpr uint32_t kRows = 9;
  constexpr uint32_t kK = 512;
  Product product = productOf(randomQ4K(1, kRows * 2), kRows, kK);
  std::fill_n(product.blocks.begin() + 4 * 2 * kQ4KBytes, kQ4KBytes, kNanByte);
  const std::vector<float> y = gemv(product, {kRows});
  for (uint32_t r = 0; r < kRows; ++r) {
    if (r == 4) {
      EXPECT_TRUE(std::isnan(y[r]));
    } else {
      EXPECT_NEAR(y[r], product.y[r], 1e-5 * product.magnitudes[r]) << "row " << r;
    }
  }
}

TEST_P(Q4KGemvShader, ARowOfNoColumnsIsZero) {
  const Product empty{.k = 0, .blocks = {}, .x = {}, .y = {0, 0, 0}, .magnitudes = {0, 0, 0}};
  expectProduct(empty, {.rows = 3});
}

// One column of W at a time: no code may reach another element's x.
TEST_P(Q4KGemvShader, EveryElementMeetsItsOwnX) {
  constexpr uint32_t kRows = 3;
  constexpr uint32_t kK = 512;
  Product product = productOf(randomQ4K(2, kRows * 2), kRows, kK);
  std::vector<float> w(kRows * kK);
  quant::dequantQ4K(product.blocks.data(), w.data(), w.size());
  for (uint32_t c = 0; c < kK; c += 17) {
    std::fill(product.x.begin(), product.x.end(), 0.0F);
    product.x[c] = 1.0F;
    for (uint32_t r = 0; r < kRows; ++r) {
      product.y[r] = w[r * kK + c];
      // Fewer than ten roundings of terms up to 16 * 63 * 8, of which the minimum may
      // leave next to nothing: not more than 160 of 63 * 8.
      product.magnitudes[r] = std::max(std::fabs(product.y[r]), 63.0 * 8.0);
    }
    expectProduct(product, {kRows});
  }
}

INSTANTIATE_TEST_SUITE_P(All, Q4KGemvShader, ::testing::ValuesIn(kVariants),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace kiv::test
