// SPDX-License-Identifier: Apache-2.0
#include "kiv/zem2_writer.h"

#ifndef _WIN32
#include <sys/resource.h>
#endif

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kiv/zem_loader.h"
#include "tests/support/container_builder.h"
#include "tests/support/platform.h"
#include "tests/support/temp_file.h"
#include "tests/support/whole_file.h"

namespace zemtest {

using namespace kiv;

namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using zem2::SectionType;

// A folder of its own, to see what a writer leaves in it.
class Folder {
 public:
  Folder() { fs::create_directory(name_.path()); }
  ~Folder() { fs::remove_all(name_.path()); }

  std::string file(const std::string& name) const { return name_.string() + "/" + name; }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(name_.path())) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

 private:
  TempFile name_;
};

Bytes readFile(const std::string& path) { return zemtest::wholeFile<Bytes>(path); }

void writeText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

std::string textOf(const std::string& path) {
  const Bytes bytes = readFile(path);
  return {bytes.begin(), bytes.end()};
}

Bytes pattern(uint64_t size, uint8_t start) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(start + 7 * i + i / 251);
  return bytes;
}

// Bytes that differ from tensor to tensor.
Bytes contentsOf(const ZEM2Writer& writer, const std::string& name) {
  return pattern(writer.tensorBytes(name),
                 static_cast<uint8_t>(name.size() * 31 + static_cast<uint8_t>(name.back())));
}

testing::AssertionResult succeeded(const Status& status) {
  if (status.ok()) return testing::AssertionSuccess();
  return testing::AssertionFailure() << status.message();
}

void writeAll(ZEM2Writer& writer, const std::string& path) {
  ASSERT_TRUE(succeeded(writer.begin(path)));
  for (const std::string& name : writer.order()) {
    const Bytes bytes = contentsOf(writer, name);
    ASSERT_TRUE(succeeded(writer.write(bytes.data(), bytes.size())));
  }
  ASSERT_TRUE(succeeded(writer.finish()));
}

// A message that says `text`, with this code.
void expectFailure(const Status& status, StatusCode code, const std::string& text) {
  EXPECT_EQ(status.code(), code);
  EXPECT_THAT(status.message(), HasSubstr(text));
}

TokenizerData smallTokenizer() {
  TokenizerData data;
  data.tokens = {"a", "", std::string("b\0c", 3), "\xE2\x96\x81w", "<|end|>"};
  data.scores = {0.5F, -1.0F, 0.0F, 1e30F, -0.0F};
  data.tokenTypes = {1, 1, 2, -7, 3};
  data.merges = {"a b", ""};
  data.bosId = -1;
  data.eosId = 4;
  data.unkId = 2;
  data.padId = 70000;
  data.addBos = true;
  data.chatTemplate = "{{ turn }}\n";
  return data;
}

constexpr std::pair<const char*, DType> kTypes[] = {
    {"t.f32", DType::F32},   {"t.f16", DType::F16},   {"t.bf16", DType::BF16},
    {"t.q4_0", DType::Q4_0}, {"t.q8_0", DType::Q8_0}, {"t.q4_k", DType::Q4_K},
    {"t.q5_k", DType::Q5_K}, {"t.q6_k", DType::Q6_K}, {"t.q8_k", DType::Q8_K}};

const std::string kLongName(64, 'n');

// Everything that the interface offers, declared in no order.
void declareEverything(ZEM2Writer& writer) {
  writer.setModel({7, 1ULL << 40, 32, 5});
  writer.addMetaStr("general.architecture", "qwen35");
  writer.addMetaU32("u", 4000000000U);
  writer.addMetaI32("i", -5);
  writer.addMetaF32("f", 0.1F);
  writer.addMetaU64("", 1ULL << 63);
  writer.addMetaU32Array("array", {1, 2, 0xFFFFFFFF});
  writer.addMetaU32Array("empty", {});
  writer.setTokenizer(smallTokenizer());
  writer.setGraph(std::string("gr\0aph", 6));
  writer.addAlias("alias", "t.q4_k");
  for (const auto& [name, type] : kTypes) writer.addTensor(name, type, {512, 3});
  writer.addTensor(kLongName, DType::F32, {2, 3, 4, 5});
  writer.addTensor("a scalar", DType::F32, {});
}

ContainerBuilder describeEverything(const ZEM2Writer& writer) {
  ContainerBuilder builder;
  builder.modelType(7).hiddenSize(1ULL << 40).layerCount(32).vocabSize(5);
  builder.addMetaStr("general.architecture", "qwen35").addMetaU32("u", 4000000000U);
  builder.addMetaI32("i", -5).addMetaF32("f", 0.1F).addMetaU64("", 1ULL << 63);
  builder.addMetaU32Array("array", {1, 2, 0xFFFFFFFF}).addMetaU32Array("empty", {});
  builder.tokenizer(smallTokenizer()).graph({'g', 'r', 0, 'a', 'p', 'h'}).quantInfo();
  for (const auto& [name, type] : kTypes) {
    builder.addTensor(name, type, {512, 3}, contentsOf(writer, name));
  }
  builder.addTensorAlias("alias", DType::Q4_K, {512, 3}, "t.q4_k");
  builder.addTensor(kLongName, DType::F32, {2, 3, 4, 5}, contentsOf(writer, kLongName));
  builder.addTensor("a scalar", DType::F32, {}, contentsOf(writer, "a scalar"));
  return builder;
}

TEST(ZEM2WriterTest, BytesAreThoseOfTheFormat) {
  const TempFile file;
  ZEM2Writer writer;
  declareEverything(writer);
  writeAll(writer, file.string());
  EXPECT_TRUE(file.read() == describeEverything(writer).build());
}

TEST(ZEM2WriterTest, SameCallsGiveSameBytes) {
  const TempFile first;
  const TempFile second;
  for (const TempFile* file : {&first, &second}) {
    ZEM2Writer writer;
    declareEverything(writer);
    writeAll(writer, file->string());
  }
  EXPECT_TRUE(first.read() == second.read());
}

TEST(ZEM2WriterTest, LoaderReadsBackTheSummaryAndTheSections) {
  const TempFile file;
  ZEM2Writer writer;
  declareEverything(writer);
  writeAll(writer, file.string());
  ZEMLoader loader;
  ASSERT_TRUE(succeeded(loader.open(file.path())));
  EXPECT_EQ(loader.modelInfo().modelType, 7U);
  EXPECT_EQ(loader.modelInfo().hiddenSize, 1ULL << 40);
  EXPECT_EQ(loader.modelInfo().layerCount, 32U);
  EXPECT_EQ(loader.modelInfo().vocabSize, 5U);
  EXPECT_EQ(loader.graph(), std::string("gr\0aph", 6));
  EXPECT_TRUE(loader.reader().aligned64());
  const TokenizerData wanted = smallTokenizer();
  const TokenizerData& data = loader.tokenizer();
  EXPECT_EQ(data.tokens, wanted.tokens);
  EXPECT_EQ(data.scores, wanted.scores);
  EXPECT_EQ(data.tokenTypes, wanted.tokenTypes);
  EXPECT_EQ(data.merges, wanted.merges);
  EXPECT_EQ(data.chatTemplate, wanted.chatTemplate);
  EXPECT_THAT((std::vector{data.bosId, data.eosId, data.unkId, data.padId}),
              ElementsAre(-1, 4, 2, 70000));
  EXPECT_TRUE(data.addBos);
}

TEST(ZEM2WriterTest, LoaderReadsBackTheMetadata) {
  const TempFile file;
  ZEM2Writer writer;
  declareEverything(writer);
  writeAll(writer, file.string());
  ZEMLoader loader;
  ASSERT_TRUE(succeeded(loader.open(file.path())));
  EXPECT_EQ(loader.metaCount(), 7U);
  std::string text;
  EXPECT_TRUE(loader.getMetaStr("general.architecture", text));
  EXPECT_EQ(text, "qwen35");
  uint32_t u32 = 0;
  EXPECT_TRUE(loader.getMetaU32("u", u32));
  EXPECT_EQ(u32, 4000000000U);
  int32_t i32 = 0;
  EXPECT_TRUE(loader.getMetaI32("i", i32));
  EXPECT_EQ(i32, -5);
  float f32 = 0;
  EXPECT_TRUE(loader.getMetaF32("f", f32));
  EXPECT_EQ(f32, 0.1F);
  uint64_t u64 = 0;
  EXPECT_TRUE(loader.getMetaU64("", u64));
  EXPECT_EQ(u64, 1ULL << 63);
  const uint32_t* values = nullptr;
  uint64_t count = 9;
  EXPECT_TRUE(loader.getMetaU32Array("array", values, count));
  EXPECT_THAT(std::vector<uint32_t>(values, values + count), ElementsAre(1, 2, 0xFFFFFFFF));
  EXPECT_TRUE(loader.getMetaU32Array("empty", values, count));
  EXPECT_EQ(count, 0U);
}

TEST(ZEM2WriterTest, LoaderReadsBackTensorsOfEveryType) {
  const TempFile file;
  ZEM2Writer writer;
  declareEverything(writer);
  writeAll(writer, file.string());
  ZEMLoader loader;
  ASSERT_TRUE(succeeded(loader.open(file.path())));
  EXPECT_EQ(loader.tensorCount(), std::size(kTypes) + 3);
  for (const auto& [name, type] : kTypes) {
    const TensorView* view = loader.findTensor(name);
    ASSERT_NE(view, nullptr) << name;
    EXPECT_EQ(view->dtype, type);
    EXPECT_EQ(view->ndim, 2);
    EXPECT_THAT(view->shape, ElementsAre(512, 3, 0, 0));
    EXPECT_EQ(view->size, dtypeBytes(type, 512) * 3);
    EXPECT_EQ(view->quant.blockSize, dtypeBlockSize(type));
    EXPECT_EQ(view->quant.bytesPerBlock, dtypeBytes(type, dtypeBlockSize(type)));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(view->data) % 64, 0U);
    const Bytes wanted = contentsOf(writer, name);
    ASSERT_EQ(view->size, wanted.size());
    EXPECT_EQ(std::memcmp(view->data, wanted.data(), wanted.size()), 0) << name;
  }
  EXPECT_NE(loader.findTensor(kLongName), nullptr);
  EXPECT_EQ(loader.findTensor("a scalar")->size, 4U);
  EXPECT_EQ(loader.findTensor("alias")->data, loader.findTensor("t.q4_k")->data);
}

TEST(ZEM2WriterTest, TensorsComeInTheOrderOfUnsignedBytes) {
  const TempFile file;
  ZEM2Writer writer;
  const std::string high = "a\xC3\xA9";
  for (const std::string& name : {std::string("b"), high, std::string("a.b"), std::string("ab"),
                                  std::string("B"), std::string("a")}) {
    writer.addTensor(name, DType::F32, {1});
  }
  writer.setTokenizer(smallTokenizer());
  writeAll(writer, file.string());
  EXPECT_THAT(writer.order(), ElementsAre("B", "a", "a.b", "ab", high, "b"));
  ZEMLoader loader;
  ASSERT_TRUE(succeeded(loader.open(file.path())));
  for (const std::string& name : writer.order()) {
    EXPECT_NE(loader.reader().findTensor(name.c_str()), nullptr) << name;
  }
}

TEST(ZEM2WriterTest, EachRowStartsOnABlockBoundary) {
  ZEM2Writer writer;
  writer.addTensor("rows", DType::Q8_0, {33, 2, 5});
  EXPECT_EQ(writer.tensorBytes("rows"), 2U * 34 * 10);
  EXPECT_EQ(writer.tensorBytes("unknown"), 0U);
}

TEST(ZEM2WriterTest, AliasesAreNotStreamed) {
  const TempFile file;
  ZEM2Writer writer;
  writer.addAlias("first", "t");  // before its target
  writer.addTensor("t", DType::F32, {2, 3});
  ASSERT_TRUE(succeeded(writer.begin(file.string())));
  EXPECT_THAT(writer.order(), ElementsAre("t"));
  EXPECT_EQ(writer.tensorBytes("first"), 0U);
  EXPECT_EQ(writer.totalBytes(), 24U);
}

TEST(ZEM2WriterTest, PiecesOfAnySizeGiveTheSameFile) {
  Bytes wanted;
  for (const size_t piece :
       {size_t{0}, size_t{1}, size_t{1000}, size_t{1} << 20, size_t{7000001}}) {
    const TempFile file;
    ZEM2Writer writer;
    writer.addTensor("a", DType::F32, {5});
    writer.addTensor("b", DType::F32, {750000});  // beyond any buffer
    writer.addTensor("c", DType::F32, {11});
    ASSERT_TRUE(succeeded(writer.begin(file.string())));
    Bytes all;
    for (const std::string& name : writer.order()) {
      const Bytes bytes = contentsOf(writer, name);
      all.insert(all.end(), bytes.begin(), bytes.end());
    }
    for (size_t at = 0; at < all.size();) {
      const size_t count = std::min(piece == 0 ? all.size() : piece, all.size() - at);
      ASSERT_TRUE(succeeded(writer.write(all.data() + at, count)));
      at += count;
    }
    ASSERT_TRUE(succeeded(writer.finish()));
    if (wanted.empty()) wanted = file.read();
    EXPECT_TRUE(file.read() == wanted) << piece;
  }
}

TEST(ZEM2WriterTest, NothingDeclaredIsAContainerToo) {
  const TempFile file;
  ZEM2Writer writer;
  writeAll(writer, file.string());
  ZEM2Reader reader;
  ASSERT_TRUE(succeeded(reader.open(file.path())));
  EXPECT_EQ(reader.tensorCount(), 0U);
  EXPECT_EQ(reader.weightSize(), 0U);
  EXPECT_EQ(reader.section(SectionType::Tokenizer), nullptr);
  EXPECT_EQ(reader.section(SectionType::Graph), nullptr);
}

TEST(ZEM2WriterTest, FurtherSectionsAreKept) {
  const TempFile file;
  ZEM2Writer writer;
  const std::string large(3 << 20, 'x');
  writer.addSection(SectionType::Asset, large);
  writer.addSection(SectionType::Signature, "");
  writer.addSection(static_cast<SectionType>(4711), "unknown");
  writeAll(writer, file.string());
  ZEM2Reader reader;
  ASSERT_TRUE(succeeded(reader.open(file.path())));
  ASSERT_EQ(reader.sectionSize(SectionType::Asset), large.size());
  EXPECT_EQ(std::memcmp(reader.sectionData(SectionType::Asset), large.data(), large.size()), 0);
  EXPECT_NE(reader.section(SectionType::Signature), nullptr);
  EXPECT_EQ(reader.sectionSize(static_cast<SectionType>(4711)), 7U);
}

TEST(ZEM2WriterTest, SixteenSectionsFitAndSeventeenDoNot) {
  for (const size_t extra : {12U, 13U}) {  // beside Meta, TensorIndex, QuantInfo, WeightData
    const TempFile file;
    ZEM2Writer writer;
    for (size_t i = 0; i < extra; ++i) writer.addSection(SectionType::Asset, "x");
    const Status status = writer.begin(file.string());
    if (extra == 12) {
      ASSERT_TRUE(succeeded(status));
      ASSERT_TRUE(succeeded(writer.finish()));
      ZEM2Reader reader;
      EXPECT_TRUE(succeeded(reader.open(file.path())));
    } else {
      expectFailure(status, StatusCode::InvalidFormat, "more than 16 sections");
    }
  }
}

TEST(ZEM2WriterTest, MetadataKeysHaveAtMost65535Bytes) {
  const TempFile file;
  const std::string longest(65535, 'k');
  ZEM2Writer writer;
  writer.addMetaU32(longest, 1);
  writeAll(writer, file.string());
  ZEM2Reader reader;
  ASSERT_TRUE(succeeded(reader.open(file.path())));
  uint32_t value = 0;
  EXPECT_TRUE(reader.getMetaU32(longest.c_str(), value));

  ZEM2Writer refused;
  refused.addMetaU32(longest + "k", 1);
  expectFailure(refused.begin(file.string()), StatusCode::InvalidFormat, "65535");
}

struct Mistake {
  const char* what;
  void (*declare)(ZEM2Writer&);
  const char* message;  // part of it
};

class ZEM2WriterMistakeTest : public testing::TestWithParam<Mistake> {};

TEST_P(ZEM2WriterMistakeTest, IsNamedByBeginAndCreatesNothing) {
  const Folder folder;
  ZEM2Writer writer;
  writer.addTensor("good", DType::F32, {4});
  GetParam().declare(writer);
  expectFailure(writer.begin(folder.file("m.zem")), StatusCode::InvalidFormat, GetParam().message);
  EXPECT_THAT(folder.names(), IsEmpty());
}

constexpr uint64_t kHuge = uint64_t{1} << 61;

INSTANTIATE_TEST_SUITE_P(
    Declarations, ZEM2WriterMistakeTest,
    testing::Values(
        Mistake{"TensorTwice", [](ZEM2Writer& w) { w.addTensor("good", DType::F32, {4}); },
                "'good' is used twice"},
        Mistake{"AliasOfTheNameOfATensor", [](ZEM2Writer& w) { w.addAlias("good", "good"); },
                "'good' is used twice"},
        Mistake{"EmptyName", [](ZEM2Writer& w) { w.addTensor("", DType::F32, {4}); }, "is empty"},
        Mistake{"NameOf65Bytes",
                [](ZEM2Writer& w) { w.addTensor(std::string(65, 'n'), DType::F32, {4}); },
                "nnn' is longer than 64 bytes"},
        Mistake{"NameWithNul",
                [](ZEM2Writer& w) { w.addTensor(std::string("a\0b", 3), DType::F32, {4}); },
                "contains a NUL byte"},
        Mistake{"FiveExtents",
                [](ZEM2Writer& w) {
                  w.addTensor("bad", DType::F32, {1, 1, 1, 1, 1});
                },
                "'bad' has more than 4 extents"},
        Mistake{"ExtentOfZero",
                [](ZEM2Writer& w) {
                  w.addTensor("bad", DType::F32, {4, 0});
                },
                "'bad' has an extent of 0"},
        Mistake{"TypeWithoutLayout", [](ZEM2Writer& w) { w.addTensor("bad", DType::Q5_0, {32}); },
                "'bad' has a type without a layout, Q5_0"},
        Mistake{"UnknownType",
                [](ZEM2Writer& w) { w.addTensor("bad", static_cast<DType>(40), {32}); },
                "'bad' has a type without a layout, ?"},
        Mistake{"RowOf2To64Bytes",
                [](ZEM2Writer& w) { w.addTensor("bad", DType::F32, {kHuge * 2}); },
                "'bad' is larger than a file can be"},
        Mistake{"ProductOver2To64",
                [](ZEM2Writer& w) {
                  w.addTensor("bad", DType::F32, {1 << 20, 1ULL << 50});
                },
                "'bad' is larger than a file can be"},
        Mistake{"SumOver2To63",
                [](ZEM2Writer& w) {
                  w.addTensor("bad", DType::F16, {kHuge});
                  w.addTensor("worse", DType::F16, {kHuge});
                },
                "up to 'worse' are larger than a file can be"},
        Mistake{"AliasOfNothing", [](ZEM2Writer& w) { w.addAlias("bad", "missing"); },
                "'bad' stands for 'missing'"},
        Mistake{"AliasOfAnAlias",
                [](ZEM2Writer& w) {
                  w.addAlias("bad", "worse");
                  w.addAlias("worse", "good");
                },
                "'bad' stands for 'worse'"},
        Mistake{"AliasOfItself", [](ZEM2Writer& w) { w.addAlias("bad", "bad"); },
                "'bad' stands for 'bad'"},
        Mistake{"AliasOfTheEmptyName", [](ZEM2Writer& w) { w.addAlias("bad", ""); },
                "'bad' has no target"},
        Mistake{"SecondMetaSection", [](ZEM2Writer& w) { w.addSection(SectionType::Meta, "x"); },
                "section type 1"},
        Mistake{"SecondWeights", [](ZEM2Writer& w) { w.addSection(SectionType::WeightData, "x"); },
                "section type 5"}),
    [](const auto& mistake) { return mistake.param.what; });

TEST(ZEM2WriterTest, FirstMistakeIsTheOneReported) {
  const TempFile file;
  ZEM2Writer writer;
  writer.addTensor("", DType::F32, {1});
  writer.addTensor("other", DType::F32, {0});
  expectFailure(writer.begin(file.string()), StatusCode::InvalidFormat, "is empty");
  expectFailure(writer.write("x", 1), StatusCode::InvalidFormat, "is empty");
  expectFailure(writer.finish(), StatusCode::InvalidFormat, "is empty");
}

class ZEM2WriterStreamTest : public testing::Test {
 protected:
  ZEM2WriterStreamTest() {
    writer_.addTensor("a", DType::F32, {16});
    writer_.addTensor("b", DType::F32, {16});
  }
  ~ZEM2WriterStreamTest() override = default;

  void begin() { ASSERT_TRUE(succeeded(writer_.begin(path_))); }
  Status write(size_t count) { return writer_.write(Bytes(count).data(), count); }
  void expectNothingLeft() { EXPECT_THAT(folder_.names(), IsEmpty()); }

  Folder folder_;
  std::string path_ = folder_.file("m.zem");
  ZEM2Writer writer_;
};

TEST_F(ZEM2WriterStreamTest, MissingTensorIsNamed) {
  begin();
  ASSERT_TRUE(succeeded(write(64)));
  expectFailure(writer_.finish(), StatusCode::InvalidFormat, "'b' was not written");
  expectNothingLeft();
}

TEST_F(ZEM2WriterStreamTest, ShortTensorIsNamed) {
  begin();
  ASSERT_TRUE(succeeded(write(64 + 60)));
  expectFailure(writer_.finish(), StatusCode::InvalidFormat, "'b' lacks 4 bytes");
  expectNothingLeft();
}

TEST_F(ZEM2WriterStreamTest, OneByteTooManyIsRefused) {
  begin();
  ASSERT_TRUE(succeeded(write(128)));
  expectFailure(write(1), StatusCode::InvalidFormat, "more bytes than the tensors hold");
  expectFailure(writer_.finish(), StatusCode::InvalidFormat, "more bytes");
  expectNothingLeft();
}

TEST_F(ZEM2WriterStreamTest, WritingNothingIsNoMistake) {
  begin();
  ASSERT_TRUE(succeeded(writer_.write(nullptr, 0)));
  ASSERT_TRUE(succeeded(write(128)));
  ASSERT_TRUE(succeeded(writer_.write(nullptr, 0)));
  EXPECT_TRUE(succeeded(writer_.finish()));
}

TEST_F(ZEM2WriterStreamTest, FinishBeforeBeginIsRefused) {
  expectFailure(writer_.finish(), StatusCode::InvalidFormat, "finish() called out of order");
  expectNothingLeft();
}

TEST_F(ZEM2WriterStreamTest, WriteBeforeBeginIsRefused) {
  expectFailure(write(4), StatusCode::InvalidFormat, "write() called out of order");
}

TEST_F(ZEM2WriterStreamTest, SecondBeginIsRefused) {
  begin();
  expectFailure(writer_.begin(path_), StatusCode::InvalidFormat, "begin() called out of order");
  expectNothingLeft();
}

TEST_F(ZEM2WriterStreamTest, DeclarationAfterBeginIsRefused) {
  begin();
  writer_.addTensor("c", DType::F32, {1});
  expectFailure(write(64), StatusCode::InvalidFormat, "a declaration after begin()");
  expectNothingLeft();
}

TEST_F(ZEM2WriterStreamTest, CallsAfterFinishFailAndLeaveTheFileAlone) {
  begin();
  ASSERT_TRUE(succeeded(write(128)));
  ASSERT_TRUE(succeeded(writer_.finish()));
  const Bytes whole = readFile(path_);
  writer_.addTensor("c", DType::F32, {1});
  expectFailure(write(1), StatusCode::InvalidFormat, "write()");
  expectFailure(writer_.finish(), StatusCode::InvalidFormat, "finish()");
  expectFailure(writer_.begin(path_), StatusCode::InvalidFormat, "begin()");
  EXPECT_TRUE(readFile(path_) == whole);
  EXPECT_THAT(folder_.names(), ElementsAre("m.zem"));
}

TEST_F(ZEM2WriterStreamTest, UnfinishedFileLiesBesideItsNameAndIsNoContainer) {
  begin();
  ASSERT_TRUE(succeeded(write(128)));
  ASSERT_EQ(folder_.names().size(), 1U);
  const std::string partial = folder_.names()[0];
  EXPECT_THAT(partial, StartsWith("m.zem.partial-"));
  ZEM2Reader reader;
  EXPECT_EQ(reader.open(folder_.file(partial).c_str()).message(), "ZEM2: bad magic");
}

TEST(ZEM2WriterFileTest, DestructorRemovesWhatWasNotFinished) {
  const Folder folder;
  {
    ZEM2Writer writer;
    ASSERT_TRUE(succeeded(writer.begin(folder.file("m.zem"))));
    ASSERT_EQ(folder.names().size(), 1U);
  }
  EXPECT_THAT(folder.names(), IsEmpty());
}

TEST(ZEM2WriterFileTest, ExistingFileStaysUntilFinish) {
  const Folder folder;
  const std::string path = folder.file("m.zem");
  writeText(path, "before");
  ZEM2Writer writer;
  writer.addTensor("t", DType::F32, {1});
  ASSERT_TRUE(succeeded(writer.begin(path)));
  ASSERT_TRUE(succeeded(writer.write("1234", 4)));
  EXPECT_EQ(textOf(path), "before");
  ASSERT_TRUE(succeeded(writer.finish()));
  EXPECT_EQ(textOf(path).substr(0, 4), "ZEM2");
  EXPECT_THAT(folder.names(), ElementsAre("m.zem"));
}

TEST(ZEM2WriterFileTest, FailureLeavesAnExistingFileAsItWas) {
  const Folder folder;
  const std::string path = folder.file("m.zem");
  writeText(path, "before");
  ZEM2Writer writer;
  writer.addTensor("t", DType::F32, {1});
  ASSERT_TRUE(succeeded(writer.begin(path)));
  EXPECT_FALSE(writer.finish().ok());
  EXPECT_EQ(textOf(path), "before");
  EXPECT_THAT(folder.names(), ElementsAre("m.zem"));
}

TEST(ZEM2WriterFileTest, TwoWritersToOnePathDoNotDisturbEachOther) {
  const Folder folder;
  const std::string path = folder.file("m.zem");
  ZEM2Writer first;
  first.addMetaStr("who", "first");
  ZEM2Writer second;
  second.addMetaStr("who", "second");
  auto third = std::make_unique<ZEM2Writer>();
  for (ZEM2Writer* writer : {&first, &second, third.get()}) {
    ASSERT_TRUE(succeeded(writer->begin(path)));
  }
  EXPECT_EQ(folder.names().size(), 3U);
  ASSERT_TRUE(succeeded(second.finish()));
  third.reset();
  ASSERT_TRUE(succeeded(first.finish()));
  ZEM2Reader reader;
  ASSERT_TRUE(succeeded(reader.open(path.c_str())));
  std::string who;
  EXPECT_TRUE(reader.getMetaStr("who", who));
  EXPECT_EQ(who, "first");
  EXPECT_THAT(folder.names(), ElementsAre("m.zem"));
}

TEST(ZEM2WriterFileTest, PartialFileOfACrashIsNotOverwritten) {
  const Folder folder;
  const std::string path = folder.file("m.zem");
  ZEM2Writer probe;
  ASSERT_TRUE(succeeded(probe.begin(path)));
  // The next number that this process would use.
  std::string stale = folder.file(folder.names().at(0));
  const size_t digits = stale.rfind('-') + 1;
  stale = stale.substr(0, digits) + std::to_string(std::stoi(stale.substr(digits)) + 1);
  writeText(stale, "stale");
  ZEM2Writer writer;
  ASSERT_TRUE(succeeded(writer.begin(path)));
  ASSERT_TRUE(succeeded(writer.finish()));
  EXPECT_EQ(textOf(stale), "stale");
}

TEST(ZEM2WriterFileTest, MissingFolderIsNamedWithTheReason) {
  const Folder folder;
  const std::string path = folder.file("nowhere/m.zem");
  ZEM2Writer writer;
  const Status status = writer.begin(path);
  EXPECT_EQ(status.code(), StatusCode::IOError);
  EXPECT_EQ(status.message(), "cannot create " + path + ": No such file or directory");
}

TEST(ZEM2WriterFileTest, FolderAndDeviceAreRefused) {
  const Folder folder;
  ZEM2Writer toFolder;
  expectFailure(toFolder.begin(folder.file("")), StatusCode::IOError, "not a regular file");
  ZEM2Writer toDevice;
  expectFailure(toDevice.begin(zemtest::kDevice), StatusCode::IOError,
                std::string("cannot write ") + zemtest::kDevice + ": not a regular file");
  EXPECT_FALSE(fs::is_regular_file(zemtest::kDevice));
  EXPECT_THAT(folder.names(), IsEmpty());
}

TEST(ZEM2WriterFileTest, SymbolicLinkIsFollowed) {
  ZEM_SKIP_ON_WINDOWS("symbolic links without a privilege");
  const Folder folder;
  const Folder other;
  writeText(other.file("target"), "before");
  fs::create_symlink(other.file("target"), folder.file("link"));
  ZEM2Writer writer;
  writeAll(writer, folder.file("link"));
  EXPECT_TRUE(fs::is_symlink(folder.file("link")));
  EXPECT_EQ(textOf(other.file("target")).substr(0, 4), "ZEM2");
}

#ifndef _WIN32

// While one lives, files grow to `bytes` and no further, as on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : previousHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &previous_);
    const rlimit limit{bytes, previous_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &previous_);
    std::signal(SIGXFSZ, previousHandler_);
  }

 private:
  rlimit previous_{};
  void (*previousHandler_)(int);
};

TEST(ZEM2WriterFileTest, FullDiskFailsWithTheFileAndTheReason) {
  const Folder folder;
  const std::string path = folder.file("m.zem");
  ZEM2Writer writer;
  writer.addTensor("t", DType::F32, {1 << 20});
  ASSERT_TRUE(succeeded(writer.begin(path)));
  const Bytes bytes(4 << 20);
  const FileSizeLimit limit(1 << 20);
  const Status status = writer.write(bytes.data(), bytes.size());
  EXPECT_EQ(status.code(), StatusCode::IOError);
  EXPECT_EQ(status.message(), "cannot write " + path + ": File too large");
  EXPECT_EQ(writer.finish().message(), status.message());
  EXPECT_THAT(folder.names(), IsEmpty());
}

TEST(ZEM2WriterFileTest, FullDiskIsNoticedByBeginAndByFinish) {
  const Folder folder;
  {
    const FileSizeLimit limit(64);
    ZEM2Writer writer;
    expectFailure(writer.begin(folder.file("m.zem")), StatusCode::IOError, "File too large");
  }
  ZEM2Writer writer;
  writer.addTensor("t", DType::F32, {1024});
  ASSERT_TRUE(succeeded(writer.begin(folder.file("m.zem"))));
  const FileSizeLimit limit(1024);
  ASSERT_TRUE(succeeded(writer.write(Bytes(4096).data(), 4096)));  // still in the buffer
  expectFailure(writer.finish(), StatusCode::IOError, "File too large");
  EXPECT_THAT(folder.names(), IsEmpty());
}

#endif

// The index is on the disk after begin(), so offsets can be seen without the weights.
TEST(ZEM2WriterFileTest, OffsetsBeyond4GiBAreWhole) {
  const Folder folder;
  ZEM2Writer writer;
  constexpr uint64_t kBytes = 3ULL << 30;
  for (const char* name : {"tensor.a", "tensor.b", "tensor.c"}) {
    writer.addTensor(name, DType::F32, {1 << 20, kBytes >> 22});
  }
  writer.addTensor("tensor.d", DType::F32, {1});
  ASSERT_TRUE(succeeded(writer.begin(folder.file("m.zem"))));
  EXPECT_EQ(writer.totalBytes(), 3 * kBytes + 4);
  const Bytes partial = readFile(folder.file(folder.names().at(0)));
  const std::string text(partial.begin(), partial.end());
  for (uint64_t i = 0; i < 4; ++i) {
    const size_t entry = text.find(std::string("tensor.") + static_cast<char>('a' + i));
    ASSERT_NE(entry, std::string::npos);
    EXPECT_EQ(zemtest::getUint(partial, entry + 104, 8), i * kBytes);
    EXPECT_EQ(zemtest::getUint(partial, entry + 112, 8), i < 3 ? kBytes : 4);
  }
}

}  // namespace
}  // namespace zemtest
