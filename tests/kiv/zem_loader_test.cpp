// SPDX-License-Identifier: Apache-2.0
#include "kiv/zem_loader.h"

#include <algorithm>
#include <limits>
#include <random>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/container_builder.h"
#include "support/status_matchers.h"
#include "support/temp_file.h"

namespace {

using kiv::DType;
using kiv::TensorView;
using kiv::ZEMLoader;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zemtest::Bytes;
using zemtest::ContainerBuilder;
using zemtest::IsInvalidFormat;
using zemtest::IsOk;
using zemtest::set;
using zemtest::TempFile;

struct OpenedLoader {
  explicit OpenedLoader(const Bytes& bytes) : file(bytes), status(loader.open(file.path())) {}

  TempFile file;
  ZEMLoader loader;
  kiv::Status status;
};

kiv::TokenizerData tokenizer() {
  kiv::TokenizerData data;
  data.tokens = {"x", "y"};
  data.eosId = 1;
  data.chatTemplate = "template";
  return data;
}

ContainerBuilder model() {
  ContainerBuilder b;
  b.modelType(7).hiddenSize(2560).layerCount(32).vocabSize(2).tokenizer(tokenizer());
  b.addMetaStr("general.architecture", "qwen35").graph({0, 1, 0});
  b.addTensor("b", DType::Q4_K, {256, 2}, Bytes(288, 2));
  b.addTensor("a", DType::F32, {3}, Bytes(12, 1));
  b.addTensorAlias("c", DType::Q4_K, {256, 2}, "b");
  return b;
}

TEST(ZemLoaderTest, SummaryIsTheHeaders) {
  OpenedLoader opened(model().build());
  ASSERT_THAT(opened.status, IsOk());
  EXPECT_TRUE(opened.loader.valid());
  const kiv::ModelInfo& info = opened.loader.modelInfo();
  EXPECT_EQ(info.modelType, 7U);
  EXPECT_EQ(info.hiddenSize, 2560U);
  EXPECT_EQ(info.layerCount, 32U);
  EXPECT_EQ(info.vocabSize, 2U);
  EXPECT_EQ(info.tensorCount, 3U);
}

TEST(ZemLoaderTest, TokenizerTemplateAndGraphAreCopied) {
  OpenedLoader opened(model().build());
  EXPECT_THAT(opened.loader.tokenizer().tokens, ElementsAre("x", "y"));
  EXPECT_EQ(opened.loader.tokenizer().eosId, 1);
  EXPECT_EQ(opened.loader.chatTemplate(), "template");
  EXPECT_EQ(opened.loader.graph(), std::string("\0\1\0", 3));
  EXPECT_EQ(opened.loader.graphSize(), 3U);
}

TEST(ZemLoaderTest, MetadataIsForwarded) {
  OpenedLoader opened(model()
                          .addMetaU32("1", 1)
                          .addMetaI32("2", -2)
                          .addMetaF32("3", 3)
                          .addMetaU64("4", 4)
                          .addMetaU32Array("5", {5, 5})
                          .build());
  const ZEMLoader& loader = opened.loader;
  std::string str;
  EXPECT_TRUE(loader.getMetaStr("general.architecture", str));
  EXPECT_EQ(str, "qwen35");
  uint32_t u32 = 0;
  EXPECT_TRUE(loader.getMetaU32("1", u32));
  EXPECT_EQ(u32, 1U);
  int32_t i32 = 0;
  EXPECT_TRUE(loader.getMetaI32("2", i32));
  EXPECT_EQ(i32, -2);
  float f32 = 0;
  EXPECT_TRUE(loader.getMetaF32("3", f32));
  EXPECT_EQ(f32, 3.0F);
  uint64_t u64 = 0;
  EXPECT_TRUE(loader.getMetaU64("4", u64));
  EXPECT_EQ(u64, 4U);
  const uint32_t* data = nullptr;
  EXPECT_TRUE(loader.getMetaU32Array("5", data, u64));
  EXPECT_EQ(u64, 2U);
  EXPECT_EQ(loader.metaCount(), 6U);
  ZEMLoader::MetaEntryView view;
  EXPECT_TRUE(loader.metaAt(5, view));
  EXPECT_THAT(view.arr, ElementsAre(5, 5));
  EXPECT_FALSE(loader.metaAt(6, view));
}

TEST(ZemLoaderTest, ViewsFollowTheIndex) {
  OpenedLoader opened(model().build());
  ASSERT_EQ(opened.loader.tensorCount(), 3U);
  const TensorView& a = opened.loader.tensorView(0);
  EXPECT_EQ(a.name, "a");
  EXPECT_EQ(a.dtype, DType::F32);
  EXPECT_EQ(a.size, 12U);
  EXPECT_EQ(a.ndim, 1U);
  EXPECT_THAT(a.shape, ElementsAre(3, 0, 0, 0));
  EXPECT_EQ(static_cast<const uint8_t*>(a.data)[11], 1);
  const TensorView& b = opened.loader.tensorView(1);
  EXPECT_EQ(b.name, "b");
  EXPECT_EQ(b.dtype, DType::Q4_K);
  EXPECT_THAT(b.shape, ElementsAre(256, 2, 0, 0));
  EXPECT_EQ(static_cast<const uint8_t*>(b.data)[287], 2);
  EXPECT_EQ(opened.loader.tensorView(2).data, b.data);
}

TEST(ZemLoaderTest, FindTensorComparesWholeNames) {
  const std::string longest(64, 'n');
  OpenedLoader opened(model().addTensor(longest, DType::F32, {}, {}).build());
  EXPECT_EQ(opened.loader.findTensor("a"), &opened.loader.tensorView(0));
  EXPECT_EQ(opened.loader.findTensor("c"), &opened.loader.tensorView(2));
  EXPECT_EQ(opened.loader.findTensor(longest), &opened.loader.tensorView(3));
  EXPECT_NE(opened.loader.reader().findTensor((longest + "tail").c_str()), nullptr);
  for (const std::string& miss : {std::string(), std::string("aa"), std::string("zz"),
                                  std::string("a\0", 2), longest + "tail", longest.substr(1)}) {
    EXPECT_EQ(opened.loader.findTensor(miss), nullptr) << miss;
  }
}

TEST(ZemLoaderTest, UnsortedIndexHidesTensorsButIsSafe) {
  Bytes file = model().build();
  const auto at = [&](size_t i) {
    return file.begin() + static_cast<ptrdiff_t>(zemtest::tensorOffset(file, i));
  };
  std::swap_ranges(at(0), at(1), at(1));  // b a c
  OpenedLoader opened(file);
  ASSERT_THAT(opened.status, IsOk());
  EXPECT_EQ(opened.loader.findTensor("a"), nullptr);
  EXPECT_EQ(opened.loader.findTensor("b"), nullptr);
  EXPECT_EQ(opened.loader.findTensor("c"), &opened.loader.tensorView(2));
  EXPECT_EQ(opened.loader.tensorView(0).name, "b");
}

TEST(ZemLoaderTest, WithoutQuantInfoOnlyTheTypeIsKnown) {
  OpenedLoader opened(model().build());
  const kiv::QuantInfo& quant = opened.loader.findTensor("b")->quant;
  EXPECT_EQ(quant.quantType, 5U);
  EXPECT_EQ(quant.blockSize, 0U);
  EXPECT_EQ(quant.bytesPerBlock, 0U);
  EXPECT_EQ(quant.scaleBytes, 0U);
  EXPECT_EQ(quant.scaleOffset, 0U);
  EXPECT_EQ(quant.zeroOffset, 0U);
}

TEST(ZemLoaderTest, QuantInfoTravelsWithTheViewExceptItsType) {
  Bytes file = model().quantInfo().build();
  const size_t entry = zemtest::sectionOffset(file, kiv::zem2::SectionType::QuantInfo) + 32;
  zemtest::setUint(file, entry, 2, 99);      // quantType
  zemtest::setUint(file, entry + 8, 4, 16);  // scaleBytes
  zemtest::setUint(file, entry + 12, 4, 3);  // scaleOffset
  zemtest::setUint(file, entry + 16, 4, 2);  // zeroOffset
  OpenedLoader opened(file);
  const kiv::QuantInfo& quant = opened.loader.findTensor("b")->quant;
  EXPECT_EQ(quant.quantType, 5U);
  EXPECT_EQ(quant.blockSize, 256U);
  EXPECT_EQ(quant.bytesPerBlock, 144U);
  EXPECT_EQ(quant.scaleBytes, 16U);
  EXPECT_EQ(quant.scaleOffset, 3U);
  EXPECT_EQ(quant.zeroOffset, 2U);
}

TEST(ZemLoaderTest, UnknownTypesAreShownAsQ8K) {
  const Bytes intact = model().build();
  for (uint64_t code = 0; code < 300; ++code) {
    Bytes file = intact;
    set(file, 0, zemtest::tensor::dtype, code);
    OpenedLoader opened(file);
    const uint64_t shown = code < 11 ? code : 8;
    EXPECT_EQ(static_cast<uint64_t>(opened.loader.tensorView(0).dtype), shown) << code;
    EXPECT_EQ(opened.loader.tensorView(0).quant.quantType, shown) << code;
  }
}

TEST(ZemLoaderTest, ExtentsAreClampedToFour) {
  Bytes file = ContainerBuilder().addTensor("a", DType::F32, {1, 2, 3, 4}, Bytes(96)).build();
  set(file, 0, zemtest::tensor::ndim, 65535);
  OpenedLoader opened(file);
  EXPECT_EQ(opened.loader.tensorView(0).ndim, 4U);
  EXPECT_THAT(opened.loader.tensorView(0).shape, ElementsAre(1, 2, 3, 4));
}

TEST(ZemLoaderTest, NameLengthIsClampedToTheField) {
  Bytes file = ContainerBuilder().addTensor("abc", DType::F32, {}, {}).build();
  set(file, 0, zemtest::tensor::nameLen, 2);
  EXPECT_EQ(OpenedLoader(file).loader.tensorView(0).name, "ab");
  set(file, 0, zemtest::tensor::nameLen, 0);
  EXPECT_EQ(OpenedLoader(file).loader.tensorView(0).name, "");
  for (const uint64_t length : {64U, 65U, 65535U}) {
    set(file, 0, zemtest::tensor::nameLen, length);
    EXPECT_EQ(OpenedLoader(file).loader.tensorView(0).name, "abc" + std::string(61, '\0'));
  }
}

// ---- Where a tensor's bytes lie ----

TEST(ZemLoaderTest, HoldsBytesExactlyInsideTheWeights) {
  OpenedLoader opened(model().build());  // a: 0 to 12, b: 64 to 352
  const TensorView& a = *opened.loader.findTensor("a");
  const TensorView& b = *opened.loader.findTensor("b");
  for (const uint64_t bytes : {0U, 1U, 12U, 13U, 351U, 352U}) {
    EXPECT_TRUE(opened.loader.holdsBytes(a, bytes)) << bytes;
  }
  EXPECT_FALSE(opened.loader.holdsBytes(a, 353));
  EXPECT_TRUE(opened.loader.holdsBytes(b, 288));
  EXPECT_FALSE(opened.loader.holdsBytes(b, 289));
  EXPECT_FALSE(opened.loader.holdsBytes(b, std::numeric_limits<uint64_t>::max()));
}

TEST(ZemLoaderTest, HoldsBytesIsFalseForPlacesOutside) {
  const Bytes intact = model().build();
  const auto holds = [&](uint64_t offset, uint64_t bytes) {
    Bytes file = intact;
    set(file, 0, zemtest::tensor::offset, offset);
    OpenedLoader opened(file);
    return opened.loader.holdsBytes(opened.loader.tensorView(0), bytes);
  };
  EXPECT_TRUE(holds(340, 12));
  EXPECT_FALSE(holds(341, 12));
  EXPECT_TRUE(holds(352, 0));
  EXPECT_FALSE(holds(352, 1));
  EXPECT_FALSE(holds(353, 0));
  for (uint64_t offset : {uint64_t{1} << 32, uint64_t{1} << 63, ~uint64_t{0}, -uint64_t{64}}) {
    EXPECT_FALSE(holds(offset, 0)) << offset;
    EXPECT_FALSE(holds(offset, 65)) << offset;
    EXPECT_FALSE(holds(offset, -offset)) << offset;
  }
}

TEST(ZemLoaderTest, HoldsBytesIsFalseForForeignViewsAndClosedLoaders) {
  OpenedLoader opened(model().build());
  EXPECT_FALSE(opened.loader.holdsBytes(TensorView(), 0));
  const TensorView view = opened.loader.tensorView(0);
  opened.loader.close();
  EXPECT_FALSE(opened.loader.holdsBytes(view, 0));
}

// ---- Opening and closing ----

void expectClosedLoader(const ZEMLoader& loader) {
  EXPECT_FALSE(loader.valid());
  EXPECT_EQ(loader.tensorCount(), 0U);
  EXPECT_EQ(loader.findTensor("a"), nullptr);
  EXPECT_EQ(loader.metaCount(), 0U);
  EXPECT_THAT(loader.tokenizer().tokens, IsEmpty());
  EXPECT_EQ(loader.tokenizer().eosId, -1);
  EXPECT_THAT(loader.chatTemplate(), IsEmpty());
  EXPECT_THAT(loader.graph(), IsEmpty());
  EXPECT_EQ(loader.modelInfo().modelType, 0U);
  EXPECT_EQ(loader.modelInfo().hiddenSize, 0U);
  EXPECT_EQ(loader.modelInfo().layerCount, 0U);
  EXPECT_EQ(loader.modelInfo().vocabSize, 0U);
  EXPECT_EQ(loader.modelInfo().tensorCount, 0U);
  EXPECT_FALSE(loader.reader().valid());
}

TEST(ZemLoaderTest, NewAndClosedLoadersAreEmpty) {
  expectClosedLoader(ZEMLoader());
  OpenedLoader opened(model().build());
  for (int i = 0; i < 2; ++i) {
    opened.loader.close();
    expectClosedLoader(opened.loader);
  }
}

TEST(ZemLoaderTest, ReadersFailuresPassThrough) {
  ZEMLoader loader;
  EXPECT_THAT(loader.open(nullptr), IsInvalidFormat("ZEM2: null path"));
  EXPECT_THAT(loader.open(TempFile().path()), IsInvalidFormat("ZEM2: cannot open file"));
  EXPECT_THAT(OpenedLoader(model().rawMeta({}).build()).status,
              IsInvalidFormat("ZEM2: missing meta section"));
  expectClosedLoader(loader);
}

TEST(ZemLoaderTest, TokenizerIsMandatory) {
  Bytes broken = zemtest::tokenizerBytes(tokenizer());
  broken.pop_back();
  for (const Bytes& file : {model().noTokenizer().build(), model().rawTokenizer({}).build(),
                            model().rawTokenizer(broken).build()}) {
    OpenedLoader opened(file);
    EXPECT_THAT(opened.status, IsInvalidFormat("ZEMLoader: no tokenizer section"));
    EXPECT_FALSE(opened.loader.valid());
    EXPECT_EQ(opened.loader.findTensor("a"), nullptr);
    // Enough stays to look at the weights.
    EXPECT_TRUE(opened.loader.reader().valid());
    EXPECT_EQ(opened.loader.tensorCount(), 3U);
    opened.loader.close();
    expectClosedLoader(opened.loader);
  }
}

TEST(ZemLoaderTest, MissingAndEmptyGraphsAreEmpty) {
  EXPECT_EQ(OpenedLoader(ContainerBuilder().build()).loader.graphSize(), 0U);
  OpenedLoader empty(ContainerBuilder().graph({}).build());
  EXPECT_THAT(empty.status, IsOk());
  EXPECT_THAT(empty.loader.graph(), IsEmpty());
}

TEST(ZemLoaderTest, OpeningAgainReplacesEverything) {
  OpenedLoader opened(model().build());
  const TempFile other(ContainerBuilder().addTensor("z", DType::F32, {1}, Bytes(4)).build());
  ASSERT_THAT(opened.loader.open(other.path()), IsOk());
  EXPECT_EQ(opened.loader.tensorCount(), 1U);
  EXPECT_EQ(opened.loader.findTensor("a"), nullptr);
  EXPECT_NE(opened.loader.findTensor("z"), nullptr);
  EXPECT_EQ(opened.loader.tokenizer().eosId, -1);
  EXPECT_THAT(opened.loader.chatTemplate(), IsEmpty());
  EXPECT_THAT(opened.loader.graph(), IsEmpty());
  EXPECT_EQ(opened.loader.metaCount(), 0U);

  EXPECT_FALSE(opened.loader.open("").ok());
  expectClosedLoader(opened.loader);
}

TEST(ZemLoaderTest, RandomDamageBehindTheChecksumIsSafe) {
  const Bytes intact = model().quantInfo().build();
  const TempFile file;
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    Bytes damaged = intact;
    for (uint32_t hits = 1 + random() % 8; hits > 0; --hits) {
      damaged[64 + random() % (damaged.size() - 64)] = static_cast<uint8_t>(random());
    }
    zemtest::reseal(damaged);
    file.write(damaged);
    ZEMLoader loader;
    (void)loader.open(file.path());
    const auto* weights = loader.reader().section(kiv::zem2::SectionType::WeightData);
    for (size_t i = 0; i < loader.tensorCount(); ++i) {
      const TensorView& view = loader.tensorView(i);
      EXPECT_LE(view.ndim, 4U);
      EXPECT_LT(static_cast<uint16_t>(view.dtype), 11U);
      if (!loader.holdsBytes(view, view.size)) continue;
      const auto* data = static_cast<const uint8_t*>(view.data);
      const uint64_t at =
          weights->offset + static_cast<uint64_t>(data - loader.reader().weightBase());
      ASSERT_LE(at, damaged.size());
      ASSERT_LE(view.size, damaged.size() - at);
      EXPECT_TRUE(std::equal(data, data + view.size, damaged.begin() + static_cast<ptrdiff_t>(at)));
    }
  }
}

}  // namespace
