// SPDX-License-Identifier: Apache-2.0
// Records with a struct_size: read and written for callers of older and newer headers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "libzem/outcome.h"

namespace zem::boundary {

// How a record is called in messages, and its size when it first appeared: the least that a
// caller can have.
template <typename Record>
struct RecordFacts;

template <>
struct RecordFacts<zem_engine_options> {
  static constexpr const char* kName = "zem_engine_options";
  static constexpr size_t kFirstSize = 72;
};
template <>
struct RecordFacts<zem_description> {
  static constexpr const char* kName = "zem_description";
  static constexpr size_t kFirstSize = 88;
};
template <>
struct RecordFacts<zem_statistics> {
  static constexpr const char* kName = "zem_statistics";
  static constexpr size_t kFirstSize = 72;
};
template <>
struct RecordFacts<zem_event> {
  static constexpr const char* kName = "zem_event";
  static constexpr size_t kFirstSize = 136;
};
template <>
struct RecordFacts<zem_delivery> {
  static constexpr const char* kName = "zem_delivery";
  static constexpr size_t kFirstSize = 32;
};
template <>
struct RecordFacts<zem_completion> {
  static constexpr const char* kName = "zem_completion";
  static constexpr size_t kFirstSize = 48;
};

// The caller's struct_size. Larger ones than this are no records, but memory that was not set.
inline constexpr size_t kLargestRecord = 4096;

template <typename Record>
Outcome checkRecordSize(const Record* record) {
  using Facts = RecordFacts<Record>;
  if (record == nullptr) {
    return failure(ZEM_ERROR_ARGUMENT, std::string(Facts::kName) + ": found a null pointer");
  }
  uint32_t size = 0;
  std::memcpy(&size, record, sizeof size);
  if (size >= Facts::kFirstSize && size <= kLargestRecord) return {};
  return failure(ZEM_ERROR_ARGUMENT, std::string(Facts::kName) + ".struct_size: found " +
                                         std::to_string(size) + ", needed sizeof(" + Facts::kName +
                                         "), which is " + std::to_string(sizeof(Record)));
}

// Copies what the caller gave; fields that an older caller does not have are zero. Refuses
// fields that are set and not known here.
template <typename Record>
Outcome readRecord(const Record* given, Record& out) {
  static_assert(std::is_trivially_copyable_v<Record>);
  if (Outcome outcome = checkRecordSize(given); !outcome.ok()) return outcome;
  const auto* bytes = reinterpret_cast<const unsigned char*>(given);
  uint32_t size = 0;
  std::memcpy(&size, bytes, sizeof size);
  for (size_t at = sizeof(Record); at < size; ++at) {
    if (bytes[at] == 0) continue;
    return failure(ZEM_ERROR_ARGUMENT, std::string(RecordFacts<Record>::kName) + ": byte " +
                                           std::to_string(at) +
                                           " is set, which this version of the library does not "
                                           "know; it knows " +
                                           std::to_string(sizeof(Record)) + " bytes");
  }
  out = Record{};
  std::memcpy(&out, bytes, size < sizeof(Record) ? size : sizeof(Record));
  return {};
}

// Copies `value` into the caller's record, as far as that reaches. REQUIRES: checkRecordSize(out).
template <typename Record>
void writeRecord(const Record& value, Record* out) {
  static_assert(std::is_trivially_copyable_v<Record>);
  auto* bytes = reinterpret_cast<unsigned char*>(out);
  uint32_t size = 0;
  std::memcpy(&size, bytes, sizeof size);
  const size_t known = size < sizeof(Record) ? size : sizeof(Record);
  const size_t behind = sizeof size;
  std::memcpy(bytes + behind, reinterpret_cast<const unsigned char*>(&value) + behind,
              known - behind);
  std::memset(bytes + known, 0, size - known);
}

}  // namespace zem::boundary
