// SPDX-License-Identifier: Apache-2.0
/// \file
/// Opens a container file: maps it read-only, checks its frame, and hands out
/// sections, metadata and tensors that point into the mapping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kiv/status.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2.h"

namespace kiv {

/// A reader is closed, or open and valid. Pointers it hands out live until
/// close(). One thread opens and closes; lookups in between may run on many.
///
/// A file is input from a stranger. open() checks everything that lookups rely
/// on, so that no lookup reads outside the mapping; it does not check where
/// tensors lie (ZEMLoader::holdsBytes() is there to do that before their data is
/// read). The file must not change while it is open: lookups rely on what open()
/// saw, and reading a page that a shortened file no longer has ends the process.
class ZEM2Reader {
 public:
  /// The records of zem2.h.
  ///@{
  using Header = zem2::Header;
  using SectionEntry = zem2::SectionEntry;
  using SectionType = zem2::SectionType;
  using TensorEntry = zem2::TensorEntry;
  using QuantEntry = zem2::QuantEntry;
  ///@}

  /// One decoded metadata entry; only the field that matches `type` is set.
  struct MetaEntry {
    std::string key;            ///< as in the file
    uint8_t type = 0;           ///< a zem2::MetaType
    uint32_t u32 = 0;           ///< of a U32
    int32_t i32 = 0;            ///< of an I32
    float f32 = 0;              ///< of an F32
    uint64_t u64 = 0;           ///< of a U64
    std::string str;            ///< of a Str
    std::vector<uint32_t> arr;  ///< of a U32Array
    size_t arrCount = 0;        ///< elements of the array
  };

  /// The caller's copy of an entry.
  struct MetaEntryView {
    std::string key;            ///< as in the file
    uint16_t type = 0;          ///< a zem2::MetaType
    uint32_t u32 = 0;           ///< of a U32
    int32_t i32 = 0;            ///< of an I32
    float f32 = 0;              ///< of an F32
    uint64_t u64 = 0;           ///< of a U64
    std::string str;            ///< of a Str
    std::vector<uint32_t> arr;  ///< of a U32Array
  };

  ZEM2Reader() = default;
  ~ZEM2Reader() { close(); }
  ZEM2Reader(const ZEM2Reader&) = delete;
  ZEM2Reader& operator=(const ZEM2Reader&) = delete;

  /// Closes what was open, then opens `path`. Every failure has the code
  /// InvalidFormat and a message that begins with "ZEM2: "; the reader is then
  /// closed, as it is when memory runs out (std::bad_alloc).
  Status open(const char* path);
  /// Unmaps the file; may be repeated.
  void close();
  bool valid() const { return valid_; }  ///< open

  /// As the file has it. After close(), and after an open() that got as far as
  /// reading a header, it is still that of the last file; so are the counts.
  const Header& header() const { return header_; }
  uint32_t sectionCount() const { return header_.sectionCount; }  ///< entries of the section table
  uint32_t tensorCount() const { return header_.tensorCount; }    ///< entries of the tensor index

  /// The first entry of type `t` in table order, or null.
  const SectionEntry* section(SectionType t) const;
  /// Entry `i` of the section table, or null when there is no such entry.
  const SectionEntry* sectionAt(size_t i) const;
  /// The payload of section(t), null where there is none.
  const uint8_t* sectionData(SectionType t) const;
  /// The bytes of section(t), 0 where there is none.
  uint64_t sectionSize(SectionType t) const;
  /// True for an open reader: open() refuses sections that are not aligned.
  bool aligned64() const;

  /// The payload of WeightData.
  const uint8_t* weightBase() const;
  uint64_t weightSize() const { return sectionSize(SectionType::WeightData); }  ///< bytes of it

  /// Reads the metadata; called by open().
  Status parseMeta();
  size_t metaCount() const { return meta_.size(); }  ///< metadata entries
  /// Entry `i` in file order; false when there is no such entry.
  bool metaAt(size_t i, MetaEntryView& out) const;
  /// The first entry whose key and type both match. False, with `out` left alone,
  /// when there is none or `key` is null. An array's `data` points into the reader.
  ///@{
  bool getMetaU32(const char* key, uint32_t& out) const;
  bool getMetaI32(const char* key, int32_t& out) const;
  bool getMetaF32(const char* key, float& out) const;
  bool getMetaU64(const char* key, uint64_t& out) const;
  bool getMetaStr(const char* key, std::string& out) const;
  bool getMetaU32Array(const char* key, const uint32_t*& data, uint64_t& count) const;
  ///@}

  /// Reads the quantisation table, empty without a QuantInfo section; called by open().
  Status parseQuantInfo();
  size_t quantInfoCount() const { return quant_.size(); }  ///< entries of that table
  /// A copy of entry `i`, which must be below quantInfoCount().
  const QuantEntry& quantEntry(size_t i) const { return quant_[i]; }

  /// The tensor index inside the mapping, sorted by name; null when closed.
  const TensorEntry* tensors() const;
  /// The entry of that name, or null. At most 64 bytes of `name` are compared; in
  /// an index that is not sorted tensors may be missed.
  const TensorEntry* findTensor(const char* name) const;
  /// Tensor `index` of the index, or an all-zero view.
  zem2::TensorView tensorView(size_t index) const;
  /// findTensor() as a view, all zero for a miss.
  zem2::TensorView tensorView(const char* name) const;

  /// Decodes the Tokenizer section; false when it is absent or broken, in which
  /// case `out` keeps what was read before the break.
  bool readTokenizer(TokenizerData& out) const;

 private:
  Status mapAndParse(const char* path);
  Status mapFile(const char* path);
  Status checkHeader();
  Status checkSections() const;

  Header header_{};
  const SectionEntry* sections_ = nullptr;
  const uint8_t* map_ = nullptr;
  size_t mapSize_ = 0;
  int fd_ = -1;
  std::vector<MetaEntry> meta_;
  std::vector<QuantEntry> quant_;
  bool valid_ = false;
};

}  // namespace kiv
