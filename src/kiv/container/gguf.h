// SPDX-License-Identifier: Apache-2.0
/// \file
/// Reads GGUF files: typed metadata and a table of tensors, in place.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kiv/container/gguf_types.h"
#include "kiv/container/mapped_file.h"
#include "kiv/status.h"

namespace kiv {

/// Type codes of metadata values.
enum class GgufValueType : uint32_t {
  U8 = 0,
  I8 = 1,
  U16 = 2,
  I16 = 3,
  U32 = 4,
  I32 = 5,
  F32 = 6,
  Bool = 7,
  Str = 8,
  Array = 9,
  U64 = 10,
  I64 = 11,
  F64 = 12,
};

/// One metadata entry, inside the file. The conversions return false, and leave
/// their result alone, where the value has another type or does not fit.
struct GgufValue {
  std::string_view key;                    ///< inside the file
  GgufValueType type = GgufValueType::U8;  ///< of the elements, where `array` is set
  bool array = false;                      ///< several elements of `type`
  uint64_t count = 1;                      ///< elements
  std::string_view payload;                ///< the elements, back to back
  std::string_view entry;                  ///< key, type and value as they lie in the file

  /// Any integer type and Bool, not negative.
  bool getUint(uint64_t& out) const;
  /// Any number.
  bool getFloat(double& out) const;
  /// A Bool.
  bool getBool(bool& out) const;
  /// A Str, inside the file.
  bool getText(std::string_view& out) const;
  /// Arrays of any integer type; negative elements wrap around. A single integer
  /// counts as an array of one.
  bool getUints(std::vector<uint64_t>& out) const;
  /// Look at `count` first: `out` takes 16 bytes an element.
  bool getTexts(std::vector<std::string_view>& out) const;
};

/// One entry of the table of tensors, and where its data lies.
struct GgufTensor {
  std::string_view name;          ///< inside the file
  GgufType type = GgufType::F32;  ///< may be none of the listed ones
  std::vector<uint64_t> shape;    ///< innermost extent first
  const uint8_t* data = nullptr;  ///< inside the file, of any alignment
  uint64_t bytes = 0;             ///< 0 for a type that is not listed
};

/// A GGUF file of version 2 or 3. Views point into the mapping and live until the
/// object goes.
///
/// The file is input from a stranger: open() checks every length and offset
/// against the file, that tensors do not overlap and names are not repeated, and
/// takes at most 65536 entries and as many tensors. Failures are InvalidFormat,
/// "PATH: what is wrong", or IOError where the file cannot be read.
class GgufFile {
 public:
  /// Opens and checks the file at `path`; what was open is closed first.
  Status open(const std::string& path);

  const MappedFile& file() const { return file_; }  ///< the file that views point into
  const std::vector<GgufValue>& values() const { return values_; }  ///< in file order
  /// The first entry of that key; null: there is none.
  const GgufValue* find(std::string_view key) const;
  const std::vector<GgufTensor>& tensors() const { return tensors_; }  ///< in file order

 private:
  class Parser;

  MappedFile file_;
  std::vector<GgufValue> values_;
  std::unordered_map<std::string_view, size_t> byKey_;
  std::vector<GgufTensor> tensors_;
};

}  // namespace kiv
