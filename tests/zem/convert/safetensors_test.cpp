// SPDX-License-Identifier: Apache-2.0
#include "convert/safetensors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "console/terminal.h"
#include "support/published_model.h"
#include "support/temp_folder.h"

namespace zemtool {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zemtest::Bytes;
using zemtest::safetensorsBytes;

constexpr char kTwo[] = R"({"__metadata__":{"format":"pt"},)"
                        R"("a":{"dtype":"F32","shape":[2,3],"data_offsets":[0,24]},)"
                        R"("b":{"dtype":"BF16","shape":[2],"data_offsets":[24,28]}})";

class SafetensorsTest : public testing::Test {
 protected:
  std::vector<SafetensorsEntry> read(const Bytes& bytes) {
    const kiv::Status status = file_.open(folder_.write("m.safetensors", bytes));
    EXPECT_EQ(status.message(), "");
    auto entries = readSafetensors(file_);
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    return entries;
  }

  std::string refusal(const Bytes& bytes) {
    try {
      read(bytes);
    } catch (const Failure& failure) {
      return failure.what();
    }
    return "";
  }
  // Of one tensor's description in a file with 24 bytes of data.
  std::string refusal(const std::string& description) {
    return refusal(safetensorsBytes("{\"a\":" + description + "}", Bytes(24)));
  }

  zemtest::TempFolder folder_;
  kiv::MappedFile file_;
};

TEST_F(SafetensorsTest, TensorsPointIntoTheFile) {
  Bytes data(28, 1);
  data[24] = 2;
  const auto entries = read(safetensorsBytes(kTwo, data));
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].name, "a");
  EXPECT_EQ(entries[0].type, "F32");
  EXPECT_THAT(entries[0].shape, ElementsAre(2U, 3U));
  EXPECT_EQ(entries[0].bytes, 24U);
  EXPECT_EQ(entries[0].data[0], 1);
  EXPECT_EQ(entries[1].bytes, 4U);
  EXPECT_EQ(entries[1].data[0], 2);
}

TEST_F(SafetensorsTest, EmptyAndScalarTensorsAreRead) {
  const auto entries =
      read(safetensorsBytes(R"({"none":{"dtype":"F32","shape":[0,5],"data_offsets":[0,0]},)"
                            R"("one":{"dtype":"F32","shape":[],"data_offsets":[0,4]}})",
                            Bytes(4)));
  EXPECT_EQ(entries[0].bytes, 0U);
  EXPECT_EQ(entries[1].bytes, 4U);
  EXPECT_TRUE(read(safetensorsBytes("{}")).empty());
}

TEST_F(SafetensorsTest, TensorsOfUnknownTypesHaveAnySize) {
  const auto entries = read(
      safetensorsBytes(R"({"a":{"dtype":"Q3_X","shape":[2],"data_offsets":[0,24]}})", Bytes(24)));
  EXPECT_EQ(entries[0].type, "Q3_X");
}

TEST_F(SafetensorsTest, EveryShorterFileIsRefused) {
  const Bytes whole = safetensorsBytes(kTwo, Bytes(28));
  for (size_t size = 0; size < whole.size(); ++size) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_NE(refusal(cut), "") << size;
  }
}

TEST_F(SafetensorsTest, DamageOfAnyByteIsSurvived) {
  const Bytes whole = safetensorsBytes(kTwo, Bytes(28));
  for (size_t at = 0; at + 28 < whole.size(); ++at) {
    for (const char value : {'\0', '0', '9', '"', '[', '}', '\x7F', '\xFF'}) {
      Bytes bytes = whole;
      bytes[at] = static_cast<uint8_t>(value);
      try {
        for (const SafetensorsEntry& entry : read(bytes)) {
          EXPECT_LE(entry.bytes == 0 ? 0 : entry.data[entry.bytes - 1], 0xFF);
        }
      } catch (const Failure&) {
      }
    }
  }
}

TEST_F(SafetensorsTest, LyingHeadersAreRefusedByName) {
  const std::string path = folder_.path("m.safetensors") + ": ";
  EXPECT_EQ(refusal(Bytes(7)), path + "not a safetensors file: it has no header");
  Bytes huge;
  zemtest::putU64(huge, ~uint64_t{0});
  EXPECT_THAT(refusal(huge), HasSubstr("states a header of 18446744073709551615 bytes"));
  Bytes longer;
  zemtest::putU64(longer, 3);
  zemtest::putText(longer, "{}");
  EXPECT_EQ(refusal(longer), path + "the file ends inside its header; was it copied whole?");
  EXPECT_THAT(refusal(safetensorsBytes("hello")), HasSubstr("parse error"));
  EXPECT_THAT(refusal(safetensorsBytes("[]")), HasSubstr("not a JSON object"));
  EXPECT_THAT(refusal(safetensorsBytes(R"({"a":1,"a":1})")), HasSubstr("occurs twice"));
}

TEST_F(SafetensorsTest, LyingTensorsAreRefusedByName) {
  const std::string begin = folder_.path("m.safetensors") + ": tensor 'a' ";
  const auto of = [](const std::string& shape, const std::string& offsets) {
    return R"({"dtype":"F32","shape":)" + shape + R"(,"data_offsets":)" + offsets + "}";
  };
  EXPECT_EQ(refusal("{}"), begin + "has no dtype");
  EXPECT_EQ(refusal("7"), begin + "has no dtype");
  EXPECT_EQ(refusal(R"({"dtype":3,"shape":[],"data_offsets":[0,4]})"), begin + "has no dtype");
  EXPECT_EQ(refusal(R"({"dtype":"F32","data_offsets":[0,4]})"), begin + "has no shape");
  EXPECT_EQ(refusal(R"({"dtype":"F32","shape":[1]})"), begin + "has no data_offsets");
  for (const char* shape :
       {"[-1]", "[1.5]", "[\"1\"]", "[[1]]", "[null]", "[1e3]", "[99999999999999999999]"}) {
    EXPECT_EQ(refusal(of(shape, "[0,4]")), begin + "has a shape that is not of whole numbers");
  }
  EXPECT_EQ(refusal(of("[1]", "[-4,0]")),
            begin + "has a data_offsets that is not of whole numbers");
  for (const char* offsets : {"[]", "[0]", "[0,4,8]", "[8,4]"}) {
    EXPECT_EQ(refusal(of("[1]", offsets)),
              begin + "has data_offsets that are not a begin and an end");
  }
  EXPECT_EQ(refusal(of("[7]", "[0,28]")),
            begin + "ends at byte 28 of the data, the file has 24; was it copied whole?");
  EXPECT_THAT(refusal(of("[1]", "[18446744073709551612,18446744073709551615]")),
              HasSubstr("ends at byte 18446744073709551615"));
  EXPECT_EQ(refusal(of("[2]", "[0,4]")), begin + "has 4 bytes, its shape needs 8");
  EXPECT_EQ(refusal(of("[4294967296,4294967296]", "[0,4]")),
            begin + "is larger than a file can be");
  EXPECT_EQ(refusal(of("[1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1]", "[0,4]")),
            begin + "has more than 16 extents");
}

TEST_F(SafetensorsTest, OverlappingTensorsAreRefused) {
  EXPECT_THAT(refusal(safetensorsBytes(R"({"a":{"dtype":"U8","shape":[8],"data_offsets":[0,8]},)"
                                       R"("b":{"dtype":"U8","shape":[8],"data_offsets":[7,15]}})",
                                       Bytes(24))),
              HasSubstr("tensor 'b' overlaps 'a'"));
}

}  // namespace
}  // namespace zemtool
