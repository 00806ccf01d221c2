// SPDX-License-Identifier: Apache-2.0
#include "kiv/container/gguf.h"

#include <functional>
#include <limits>
#include <memory>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/published_model.h"
#include "support/temp_folder.h"

namespace zemtest {

using namespace kiv;

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
namespace code = zemtest::gguf;

GgufBuilder sample() {
  GgufBuilder builder;
  builder.addText("general.architecture", "qwen35");
  builder.addU32("a.number", 7).addF32("a.float", 0.5F).addBool("a.bool", true);
  builder.addTexts("a.texts", {"x", "", "yz"}).addI32s("a.ints", {1, -2, 3});
  builder.addRaw("a.short", code::i16, {0xFE, 0xFF}).addRaw("a.byte", code::u8, {200});
  builder.addRaw("a.long", code::u64, Bytes(8, 0xFF));
  builder.addRaw("a.double", code::f64, {0, 0, 0, 0, 0, 0, 0xF8, 0x3F});
  builder.addTensor("one", code::kF32, {2, 3}, Bytes(24, 1));
  builder.addTensor("two", code::kQ8_0, {32}, Bytes(34, 2));
  return builder;
}

class GgufTest : public testing::Test {
 protected:
  Status open(const Bytes& bytes) { return gguf_.open(folder_.write("m.gguf", bytes)); }
  Status open(const GgufBuilder& builder) { return open(builder.build()); }

  const GgufValue& value(const char* key) {
    static const GgufValue kNone;
    const GgufValue* found = gguf_.find(key);
    EXPECT_NE(found, nullptr) << key;
    return found == nullptr ? kNone : *found;
  }

  // Reads whatever can be read.
  void touchEverything() const {
    for (const GgufValue& v : gguf_.values()) {
      uint64_t number = 0;
      double real = 0;
      bool flag = false;
      std::string_view text;
      std::vector<uint64_t> numbers;
      std::vector<std::string_view> texts;
      (void)(v.getUint(number) || v.getFloat(real) || v.getBool(flag) || v.getText(text) ||
             v.getUints(numbers) || v.getTexts(texts));
    }
    const MappedFile& file = gguf_.file();
    for (const GgufTensor& tensor : gguf_.tensors()) {
      if (tensor.bytes == 0) continue;
      ASSERT_GE(tensor.data, file.data());
      ASSERT_LE(tensor.data, file.data() + file.size());
      EXPECT_LE(tensor.bytes, static_cast<uint64_t>(file.data() + file.size() - tensor.data));
    }
  }

  zemtest::TempFolder folder_;
  GgufFile gguf_;
};

TEST_F(GgufTest, ValuesOfEveryKindAreRead) {
  ASSERT_EQ(open(sample()).message(), "");
  uint64_t number = 0;
  double real = 0;
  bool flag = false;
  std::string_view text;
  EXPECT_TRUE(value("a.number").getUint(number));
  EXPECT_EQ(number, 7U);
  EXPECT_TRUE(value("a.byte").getUint(number));
  EXPECT_EQ(number, 200U);
  EXPECT_TRUE(value("a.long").getUint(number));
  EXPECT_EQ(number, std::numeric_limits<uint64_t>::max());
  EXPECT_TRUE(value("a.float").getFloat(real));
  EXPECT_EQ(real, 0.5);
  EXPECT_TRUE(value("a.double").getFloat(real));
  EXPECT_EQ(real, 1.5);
  EXPECT_TRUE(value("a.short").getFloat(real));
  EXPECT_EQ(real, -2);
  EXPECT_TRUE(value("a.bool").getBool(flag));
  EXPECT_TRUE(flag);
  EXPECT_TRUE(value("general.architecture").getText(text));
  EXPECT_EQ(text, "qwen35");
  std::vector<std::string_view> texts;
  EXPECT_TRUE(value("a.texts").getTexts(texts));
  EXPECT_THAT(texts, ElementsAre("x", "", "yz"));
  std::vector<uint64_t> numbers;
  EXPECT_TRUE(value("a.ints").getUints(numbers));
  EXPECT_THAT(numbers, ElementsAre(1U, ~uint64_t{1}, 3U));
  EXPECT_TRUE(value("a.number").getUints(numbers));
  EXPECT_THAT(numbers, ElementsAre(7U));
}

TEST_F(GgufTest, ValuesAreNotTakenForAnotherKind) {
  ASSERT_TRUE(open(sample()).ok());
  uint64_t number = 1;
  double real = 1;
  bool flag = true;
  std::string_view text = "t";
  std::vector<std::string_view> texts;
  EXPECT_FALSE(value("a.float").getUint(number));
  EXPECT_FALSE(value("a.short").getUint(number));  // negative
  EXPECT_FALSE(value("a.ints").getUint(number));
  EXPECT_FALSE(value("general.architecture").getFloat(real));
  EXPECT_FALSE(value("a.number").getBool(flag));
  EXPECT_FALSE(value("a.texts").getText(text));
  EXPECT_FALSE(value("a.ints").getTexts(texts));
  EXPECT_FALSE(value("general.architecture").getTexts(texts));
  EXPECT_EQ(gguf_.find("missing"), nullptr);
  EXPECT_EQ(number, 1U);
}

TEST_F(GgufTest, EntriesAreAvailableAsTheyLieInTheFile) {
  const Bytes bytes = GgufBuilder().addU32("k", 5).build();
  ASSERT_TRUE(open(bytes).ok());
  EXPECT_EQ(std::string(gguf_.values()[0].entry), std::string(bytes.begin() + 24, bytes.end()));
}

TEST_F(GgufTest, TensorsPointIntoTheFile) {
  ASSERT_TRUE(open(sample()).ok());
  ASSERT_EQ(gguf_.tensors().size(), 2U);
  const GgufTensor& one = gguf_.tensors()[0];
  EXPECT_EQ(one.name, "one");
  EXPECT_EQ(one.type, GgufType::F32);
  EXPECT_THAT(one.shape, ElementsAre(2U, 3U));
  EXPECT_EQ(one.bytes, 24U);
  EXPECT_EQ(one.data[23], 1);
  const GgufTensor& two = gguf_.tensors()[1];
  EXPECT_EQ(two.bytes, 34U);
  EXPECT_EQ(two.data[0], 2);
  EXPECT_EQ(two.data[33], 2);
}

TEST_F(GgufTest, VersionTwoAndOtherAlignmentsAreRead) {
  for (const uint32_t alignment : {1U, 8U, 64U, 4096U}) {
    GgufBuilder builder = sample();
    builder.version(2).alignment(alignment);
    ASSERT_EQ(open(builder).message(), "");
    EXPECT_EQ(gguf_.tensors()[1].data[33], 2);
  }
}

TEST_F(GgufTest, AFileWithoutTensorsOrValuesIsRead) {
  EXPECT_TRUE(open(GgufBuilder()).ok());
  EXPECT_TRUE(gguf_.values().empty());
  EXPECT_TRUE(gguf_.tensors().empty());
}

TEST_F(GgufTest, EveryShorterFileIsRefused) {
  const Bytes whole = sample().build();
  for (size_t size = 0; size < whole.size(); ++size) {
    const Status status = open(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)));
    EXPECT_EQ(status.code(), StatusCode::InvalidFormat) << size;
    EXPECT_TRUE(gguf_.tensors().empty());
  }
}

TEST_F(GgufTest, DamageOfAnyByteIsSurvived) {
  const Bytes whole = sample().build();
  for (size_t at = 0; at < whole.size(); ++at) {
    for (const unsigned value : {0x00U, 0x01U, 0x7FU, 0x80U, 0xFFU}) {
      Bytes bytes = whole;
      bytes[at] = static_cast<uint8_t>(value);
      if (open(bytes).ok()) touchEverything();
    }
  }
}

struct Refusal {
  const char* name;
  std::function<void(GgufBuilder&)> change;
  std::function<void(Bytes&)> damage;  // of the finished file
  const char* message;
};

class GgufRefusalTest : public GgufTest, public testing::WithParamInterface<size_t> {};

const std::vector<Refusal>& refusals() {
  static const auto set64 = [](Bytes& bytes, size_t at, uint64_t value) {
    zemtest::setUint(bytes, at, 8, value);
  };
  static const std::vector<Refusal> list = {
      {"OtherMagic", nullptr, [](Bytes& b) { b[0] = 'g'; }, "not a GGUF file"},
      {"Version1", [](GgufBuilder& g) { g.version(1); }, nullptr, "GGUF version 1, needs 2 or 3"},
      {"Version4", [](GgufBuilder& g) { g.version(4); }, nullptr, "GGUF version 4, needs 2 or 3"},
      {"BigEndian", [](GgufBuilder& g) { g.version(0x03000000); }, nullptr, "big-endian"},
      {"TooManyTensors", nullptr, [](Bytes& b) { set64(b, 8, 1 << 20); }, "1048576 tensors"},
      {"HugeTensorCount", nullptr, [](Bytes& b) { set64(b, 8, ~uint64_t{0}); }, "more than fit"},
      {"HugeValueCount", nullptr, [](Bytes& b) { set64(b, 16, ~uint64_t{0}); }, "more than fit"},
      {"HugeKey", nullptr, [](Bytes& b) { set64(b, 24, ~uint64_t{0}); },
       "ends inside a metadata key"},
      {"SameKeyTwice", [](GgufBuilder& g) { g.addU32("a.number", 1); }, nullptr,
       "'a.number' occurs twice"},
      {"UnknownType", [](GgufBuilder& g) { g.addRaw("k", 13, {0}); }, nullptr, "unknown type 13"},
      {"ArrayOfArrays",
       [](GgufBuilder& g) {
         Bytes value;
         zemtest::putU32(value, code::array);
         zemtest::putU64(value, 1);
         g.addRaw("k", code::array, value);
       },
       nullptr, "array of arrays"},
      {"HugeArray",
       [](GgufBuilder& g) {
         Bytes value;
         zemtest::putU32(value, code::u64);
         zemtest::putU64(value, uint64_t{1} << 61);
         g.addRaw("k", code::array, value);
       },
       nullptr, "ends inside metadata 'k'"},
      {"HugeArrayOfTexts",
       [](GgufBuilder& g) {
         Bytes value;
         zemtest::putU32(value, code::text);
         zemtest::putU64(value, ~uint64_t{0});
         g.addRaw("k", code::array, value);
       },
       nullptr, "ends inside metadata 'k'"},
      {"SameTensorTwice", [](GgufBuilder& g) { g.addTensor("one", code::kF32, {1}, Bytes(4)); },
       nullptr, "tensor 'one' occurs twice"},
      {"NineExtents",
       [](GgufBuilder& g) { g.addTensor("t", code::kF32, std::vector<uint64_t>(9, 1), Bytes(4)); },
       nullptr, "has 9 extents"},
      {"PartialBlocks",
       [](GgufBuilder& g) {
         g.addTensor("t", code::kQ8_0, {33, 2}, Bytes(68));
       },
       nullptr, "rows of 33 elements, no multiple of the 32 of a Q8_0 block"},
      {"ExtentsOverflow",
       [](GgufBuilder& g) {
         g.addTensor("t", code::kF32, {uint64_t{1} << 40, uint64_t{1} << 40}, Bytes(4));
       },
       nullptr, "larger than a file can be"},
      {"BeyondTheEnd", [](GgufBuilder& g) { g.addTensor("t", code::kF32, {9}, Bytes(32)); },
       nullptr, "'t' lies outside the file"},
      {"HugeOffset", [](GgufBuilder& g) { g.tensors()[0].offset = ~uint64_t{31} - 64; }, nullptr,
       "'one' lies outside the file"},
      {"Misaligned", [](GgufBuilder& g) { g.tensors()[1].offset = 16; }, nullptr,
       "not aligned to 32 bytes"},
      {"Overlap", [](GgufBuilder& g) { g.tensors()[1].offset = 0; }, nullptr, "overlap"},
      {"AlignmentZero", [](GgufBuilder& g) { g.addU32("general.alignment", 0); }, nullptr,
       "'general.alignment' is no power of two"},
      {"AlignmentOdd", [](GgufBuilder& g) { g.addU32("general.alignment", 48); }, nullptr,
       "'general.alignment' is no power of two"},
      {"AlignmentHuge", [](GgufBuilder& g) { g.addU32("general.alignment", 1U << 31); }, nullptr,
       "'general.alignment' is no power of two"},
  };
  return list;
}

TEST_P(GgufRefusalTest, SaysWhatIsWrong) {
  const Refusal& refusal = refusals()[GetParam()];
  GgufBuilder builder = sample();
  if (refusal.change) refusal.change(builder);
  Bytes bytes = builder.build();
  if (refusal.damage) refusal.damage(bytes);
  const Status status = open(bytes);
  EXPECT_EQ(status.code(), StatusCode::InvalidFormat);
  EXPECT_THAT(status.message(), HasSubstr(folder_.path("m.gguf") + ": "));
  EXPECT_THAT(status.message(), HasSubstr(refusal.message));
  EXPECT_TRUE(gguf_.values().empty());
}

INSTANTIATE_TEST_SUITE_P(All, GgufRefusalTest, testing::Range(size_t{0}, refusals().size()),
                         [](const auto& i) { return refusals()[i.param].name; });

TEST_F(GgufTest, ATensorOfAnUnknownTypeHasNoSize) {
  GgufBuilder builder = sample();
  builder.addTensor("strange", 99, {7}, Bytes(5));
  ASSERT_EQ(open(builder).message(), "");
  EXPECT_EQ(gguf_.tensors()[2].bytes, 0U);
}

TEST_F(GgufTest, AMissingFileIsNamed) {
  EXPECT_THAT(gguf_.open(folder_.path("missing")).message(), EndsWith("No such file or directory"));
}

TEST_F(GgufTest, OpeningAgainForgetsTheFirstFile) {
  ASSERT_TRUE(open(sample()).ok());
  ASSERT_TRUE(gguf_.open(folder_.write("b.gguf", GgufBuilder().addU32("b", 1).build())).ok());
  EXPECT_EQ(gguf_.find("a.number"), nullptr);
  EXPECT_NE(gguf_.find("b"), nullptr);
  EXPECT_FALSE(open(Bytes(10)).ok());
  EXPECT_EQ(gguf_.find("b"), nullptr);
}

}  // namespace
}  // namespace zemtest
