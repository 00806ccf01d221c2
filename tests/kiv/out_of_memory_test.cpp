// SPDX-License-Identifier: Apache-2.0
// The library without memory: what needs none, and what is left after a request failed.
#include <gmock/gmock.h>

#include <new>
#include <vector>

#include "kiv/dequant.h"
#include "kiv/quant.h"
#include "kiv/quant_k.h"
#include "kiv/zem2_reader.h"
#include "kiv/zem_loader.h"
#include "support/container_builder.h"
#include "support/failing_memory.h"
#include "support/temp_file.h"

namespace zemtest {

using namespace kiv;

namespace {

using Encoder = void (*)(const float*, void*, uint64_t);

TEST(QuantMemoryTest, EncodersAskForNone) {
  const std::vector<float> values(1000, 0.25F);
  std::vector<uint8_t> blocks(8000);
  for (const Encoder encode :
       {quant::quantQ40, quant::quantQ80, quant::quantQ4K, quant::quantQ5K, quant::quantQ6K}) {
    const FailingMemory memory(0, Shortage::Lasting);
    encode(values.data(), blocks.data(), values.size());
    EXPECT_FALSE(memory.failed());
  }
}

zemtest::Bytes container() {
  return zemtest::ContainerBuilder()
      .addMetaStr("a key that no string object has room for", "and as long a value beside it")
      .addMetaU32Array("numbers", {1, 2, 3})
      .addTensor("a", DType::F32, {4}, zemtest::Bytes(16))
      .addTensor("a tensor with a name that no string object has room for", DType::F32, {4},
                 zemtest::Bytes(16))
      .quantInfo()
      .graph(zemtest::Bytes(100, 7))
      .build();
}

// Opens the file again and again, each time with another request for memory failing;
// `expectClosed` looks at what is left.
template <typename File, typename Check>
void failEachRequest(const Check& expectClosed) {
  const zemtest::TempFile path(container());
  const auto open = [&path](File& file) { (void)file.open(path.path()); };
  const std::vector<size_t> requests = requestsWorthFailing([&] {
    File file;
    open(file);
  });
  ASSERT_GT(requests.size(), 2U);
  size_t thrown = 0;
  for (const size_t request : requests) {
    SCOPED_TRACE(request);
    File file;
    try {
      const FailingMemory memory(request, Shortage::Once);
      open(file);
    } catch (const std::bad_alloc&) {
      ++thrown;
      expectClosed(file);
      EXPECT_TRUE(file.open(path.path()).ok());
    }
  }
  EXPECT_GT(thrown, 0U);
}

TEST(ReaderMemoryTest, AReaderThatRanOutOfMemoryIsClosed) {
  failEachRequest<ZEM2Reader>([](const ZEM2Reader& reader) {
    EXPECT_FALSE(reader.valid());
    EXPECT_EQ(reader.sectionAt(0), nullptr);
    EXPECT_EQ(reader.tensors(), nullptr);
    EXPECT_EQ(reader.metaCount(), 0U);
  });
}

TEST(LoaderMemoryTest, ALoaderThatRanOutOfMemoryIsClosed) {
  failEachRequest<ZEMLoader>([](const ZEMLoader& loader) {
    EXPECT_FALSE(loader.valid());
    EXPECT_FALSE(loader.reader().valid());
    EXPECT_EQ(loader.tensorCount(), 0U);
    EXPECT_EQ(loader.graphSize(), 0U);
    EXPECT_THAT(loader.tokenizer().tokens, ::testing::IsEmpty());
  });
}

}  // namespace
}  // namespace zemtest
