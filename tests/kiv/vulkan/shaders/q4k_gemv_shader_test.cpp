// SPDX-License-Identifier: Apache-2.0
// The matrix-vector products of Q4_K weights, in all their partitions, against a
// plain loop over the weights that the CPU decodes.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <ostream>
#include <string>
#include <utility>

#include "float_testing.h"
#include "support/k_matrix.h"
#include "support/shader_runner.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::EmbeddedShader;
using vulkan::embeddedShader;
using vulkan::ShaderId;

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
  bool wholeBlocks = false;  // k is a multiple of 256
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
    {"LlamaSg", embeddedShader(ShaderId::Q4KGemvLlamaSg), 2, 256, Needs::SubgroupArithmetic, true},
    {"Native", embeddedShader(ShaderId::Q4KGemvNative), 2, 256, Needs::NativeStorage, true},
};

// A matrix, an x, and their product.
struct Product {
  KMatrix w;
  std::vector<float> x;
  std::vector<double> y;
  std::vector<double> magnitudes;  // sum of |w x| of each row
};

Product productOf(KMatrix w) {
  Product product{std::move(w), {}, {}, {}};
  product.x = randomVector(product.w.cols, 7);
  for (size_t r = 0; r < product.w.rows; ++r) {
    const std::vector<float> row = product.w.row(r);
    double sum = 0;
    double magnitude = 0;
    for (size_t c = 0; c < row.size(); ++c) {
      const double term = double{row[c]} * double{product.x[c]};
      sum += term;
      magnitude += std::fabs(term);
    }
    product.y.push_back(sum);
    product.magnitudes.push_back(magnitude);
  }
  return product;
}

Product randomProduct(size_t rows, size_t k) {
  return productOf(makeKMatrix(DType::Q4_K, rows, k, Weights::RandomBytes));
}

// The same product for every variant and every number of rows up to 130.
const Product& sharedProduct(Weights weights, size_t k) {
  static std::map<std::pair<Weights, size_t>, Product> products;
  const auto [at, isNew] = products.try_emplace({weights, k});
  if (isNew) at->second = productOf(makeKMatrix(DType::Q4_K, 130, k, weights));
  return at->second;
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
  // y of the first rows of `product`, and what lies behind it in the buffer. Behind x
  // and w and between rows lie NaN.
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
  const char* bits = std::getenv("LP_NATIVE_VECTOR_WIDTH");
  if (bits != nullptr && context().info().deviceName.starts_with("llvmpipe")) {
    ASSERT_EQ(context().info().subgroupSize, std::stoul(bits) / 32);
  }
}

// The matrix with NaN between its rows and behind the last one.
BufferBytes storedRows(const KMatrix& w, const Layout& layout) {
  const size_t stride = w.rowBytes() + layout.gap;
  BufferBytes stored(stride * layout.rows + kQ4KBytes, kNanByte);
  for (size_t r = 0; r < layout.rows; ++r) {
    std::copy_n(w.bytes.data() + r * w.rowBytes(), w.rowBytes(), stored.data() + r * stride);
  }
  return stored;
}

std::vector<float> Q4KGemvShader::gemv(const Product& product, const Layout& layout) {
  constexpr size_t kBehind = 9;
  std::vector<float> x = product.x;
  x.resize((x.size() + kBehind + 3) / 4 * 4, kNan);
  const BufferBytes w = storedRows(product.w, layout);
  std::vector<BufferBytes> buffers = {bytesOf(x), w};
  if (GetParam().needs == Needs::NativeStorage) buffers.push_back(w);
  buffers.push_back(bytesOf(std::vector<float>(layout.rows + kBehind, kUntouched)));

  const uint32_t perGroup = GetParam().rowsPerGroup;
  const uint32_t groups = std::max((layout.rows + perGroup - 1) / perGroup, 1U);
  const uint32_t gridX = layout.gridX == 0 ? groups : layout.gridX;
  const auto k = static_cast<uint32_t>(product.w.cols);
  const auto colBytes = static_cast<uint32_t>(product.w.rowBytes() + layout.gap);
  run(GetParam().shader, buffers, {layout.rows, k, k / 256, colBytes},
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
        << "row " << r << " of " << layout.rows << ", k " << product.w.cols;
  }
  for (size_t i = layout.rows; i < y.size(); ++i) ASSERT_EQ(y[i], kUntouched) << "behind y: " << i;
}

TEST_P(Q4KGemvShader, MultipliesRowsOfTheQuantiser) {
  for (const uint32_t k : {256U, 512U, 2560U, 9216U}) {
    for (const uint32_t rows : {1U, 2U, 3U, 7U, 130U}) {
      expectProduct(sharedProduct(Weights::Encoded, k), {rows});
    }
  }
}

TEST_P(Q4KGemvShader, MultipliesRowsOfRandomBytes) {
  for (const uint32_t k : {256U, 512U, 2560U, 9216U}) {
    for (const uint32_t rows : {1U, 2U, 3U, 7U, 130U}) {
      expectProduct(sharedProduct(Weights::RandomBytes, k), {rows});
    }
  }
}

TEST_P(Q4KGemvShader, FindsRowsThatLieApart) {
  for (const uint32_t gap : {4U, 148U}) {
    expectProduct(sharedProduct(Weights::RandomBytes, 2560), {.rows = 7, .gap = gap});
  }
}

TEST_P(Q4KGemvShader, CountsTheWorkgroupsOfAGridAlongXFirst) {
  for (const uint32_t gridX : {1U, 2U, 5U}) {
    expectProduct(sharedProduct(Weights::RandomBytes, 512), {.rows = 130, .gridX = gridX});
  }
}

TEST_P(Q4KGemvShader, WorkgroupsThatAreTooManyWriteNothing) {
  expectProduct(sharedProduct(Weights::RandomBytes, 512), {.rows = 3, .gridX = 200});
  expectProduct(sharedProduct(Weights::RandomBytes, 512), {.rows = 0, .gridX = 3});
}

TEST_P(Q4KGemvShader, ARowOfNanStaysARowOfNan) {
  constexpr uint32_t kRows = 9;
  Product product = randomProduct(kRows, 512);
  std::fill_n(product.w.bytes.data() + 4 * product.w.rowBytes(), kQ4KBytes, kNanByte);
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
  const Product empty{{DType::Q4_K, 3, 0, {}}, {}, {0, 0, 0}, {0, 0, 0}};
  expectProduct(empty, {.rows = 3});
}

// As d and dmin of weights of a few hundredths are: below the least normal half.
TEST_P(Q4KGemvShader, ScalesMayBeSubnormal) {
  KMatrix w = makeKMatrix(DType::Q4_K, 3, 512, Weights::RandomBytes);
  for (size_t block = 0; block < w.bytes.size(); block += kQ4KBytes) {
    for (const size_t offset : superScaleOffsets(w.type)) w.bytes[block + offset + 1] &= 0x83;
  }
  expectProduct(productOf(std::move(w)), {.rows = 3});
}

// The larger of d and dmin of the block that holds column c of row r.
double superScale(const KMatrix& w, size_t r, size_t c) {
  quant::Q4KBlock block;
  std::memcpy(&block, w.bytes.data() + r * w.rowBytes() + c / 256 * kQ4KBytes, kQ4KBytes);
  return std::max(std::fabs(quant::f16ToF32(block.d)), std::fabs(quant::f16ToF32(block.dmin)));
}

// One column of W at a time: no code may reach another element's x.
TEST_P(Q4KGemvShader, EveryElementMeetsItsOwnX) {
  constexpr uint32_t kRows = 3;
  Product product = randomProduct(kRows, 512);
  for (size_t c = 0; c < product.w.cols; c += 17) {
    std::fill(product.x.begin(), product.x.end(), 0.0F);
    product.x[c] = 1.0F;
    for (uint32_t r = 0; r < kRows; ++r) {
      product.y[r] = double{product.w.row(r)[c]};
      // A code and a minimum, of which the subtraction may leave next to nothing, and
      // not ten roundings: 160 of a sixteenth of their size.
      product.magnitudes[r] = 63 * superScale(product.w, r, c);
    }
    expectProduct(product, {kRows});
  }
}

// The modules that take any k, not only whole blocks.
class Q4KGemvAnyK : public Q4KGemvShader {};

// blocksPerCol counts whole blocks only; behind k lie NaN in x and codes in w.
TEST_P(Q4KGemvAnyK, LeavesOutWhatLiesBehindKInTheLastBlock) {
  for (const size_t k : {1, 254, 257, 300, 511, 4095, 4097, 10500}) {
    expectProduct(randomProduct(5, k), {5});
  }
}

std::string variantName(const ::testing::TestParamInfo<Variant>& tested) {
  return tested.param.name;
}

std::vector<Variant> variantsOfAnyK() {
  std::vector<Variant> variants;
  std::copy_if(std::begin(kVariants), std::end(kVariants), std::back_inserter(variants),
               [](const Variant& variant) { return !variant.wholeBlocks; });
  return variants;
}

INSTANTIATE_TEST_SUITE_P(All, Q4KGemvShader, ::testing::ValuesIn(kVariants), variantName);
INSTANTIATE_TEST_SUITE_P(All, Q4KGemvAnyK, ::testing::ValuesIn(variantsOfAnyK()), variantName);

}  // namespace
}  // namespace zemtest
