// SPDX-License-Identifier: Apache-2.0
#include "libzem/records.h"

#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <vector>

namespace zem::boundary {
namespace {

using testing::HasSubstr;

std::vector<unsigned char> recordOfSize(uint32_t stated, size_t size) {
  std::vector<unsigned char> bytes(size);
  std::memcpy(bytes.data(), &stated, sizeof stated);
  return bytes;
}

const zem_engine_options* optionsIn(const std::vector<unsigned char>& bytes) {
  return reinterpret_cast<const zem_engine_options*>(bytes.data());
}

TEST(RecordsTest, ANullPointerIsNamed) {
  zem_engine_options out{};
  const Outcome outcome = readRecord<zem_engine_options>(nullptr, out);
  EXPECT_EQ(outcome.code, ZEM_ERROR_ARGUMENT);
  EXPECT_EQ(outcome.message, "zem_engine_options: found a null pointer");
}

TEST(RecordsTest, SizesBelowTheFirstAndAbsurdOnesAreRefused) {
  for (const uint32_t size : {0U, 4U, 71U, 4097U, 0xFFFFFFFFU}) {
    // No more than the size itself is read.
    const std::vector<unsigned char> bytes = recordOfSize(size, sizeof size);
    zem_engine_options out{};
    const Outcome outcome = readRecord(optionsIn(bytes), out);
    EXPECT_EQ(outcome.code, ZEM_ERROR_ARGUMENT) << size;
    EXPECT_THAT(outcome.message, HasSubstr("zem_engine_options.struct_size: found " +
                                           std::to_string(size) + ", needed sizeof"));
  }
}

TEST(RecordsTest, ANewerRecordIsTakenWhileItsNewFieldsAreZero) {
  std::vector<unsigned char> bytes = recordOfSize(80, 80);
  bytes[4] = 3;
  zem_engine_options out{};
  EXPECT_TRUE(readRecord(optionsIn(bytes), out).ok());
  EXPECT_EQ(out.threads, 3U);
  bytes[79] = 1;
  const Outcome outcome = readRecord(optionsIn(bytes), out);
  EXPECT_EQ(outcome.code, ZEM_ERROR_ARGUMENT);
  EXPECT_THAT(outcome.message, HasSubstr("byte 79 is set"));
}

TEST(RecordsTest, AnOutputKeepsItsSizeAndLosesWhatIsNotKnown) {
  std::vector<unsigned char> bytes(96, 0xAB);
  const uint32_t stated = 96;
  std::memcpy(bytes.data(), &stated, sizeof stated);
  auto* out = reinterpret_cast<zem_statistics*>(bytes.data());
  ASSERT_TRUE(checkRecordSize(out).ok());
  zem_statistics value{};
  value.running = 2;
  value.generated_tokens = 9;
  writeRecord(value, out);
  EXPECT_EQ(out->struct_size, 96U);
  EXPECT_EQ(out->running, 2U);
  EXPECT_EQ(out->generated_tokens, 9U);
  EXPECT_EQ(std::vector<unsigned char>(bytes.begin() + sizeof(zem_statistics), bytes.end()),
            std::vector<unsigned char>(96 - sizeof(zem_statistics), 0));
}

}  // namespace
}  // namespace zem::boundary
