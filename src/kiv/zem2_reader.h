// Opens a container file: maps it read-only, checks its frame, and hands out
// sections, metadata and tensors that point into the mapping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kiv/status.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2.h"

namespace kiv {

// A reader is closed, or open and valid. Pointers it hands out live until
// close(). One thread opens and closes; lookups in between may run on many.
//
// A file is input from a stranger. open() checks everything that lookups rely
// on, so that no lookup reads outside the mapping; it does not check where
// tensors lie (ZEMLoader::holdsBytes() is there to do that before their data is
// read). The file must not change while it is open: lookups rely on what open()
// saw, and reading a page that a shortened file no longer has ends the process.
class ZEM2Reader {
 public:
  using Header = zem2::Header;
  using SectionEntry = zem2::SectionEntry;
  using SectionType = zem2::SectionType;
  using TensorEntry = zem2::TensorEntry;
  using QuantEntry = zem2::QuantEntry;

  // One decoded metadata entry; only the field that matches `type` is set.
  struct MetaEntry {
    std::string key;
    uint8_t type = 0;
    uint32_t u32 = 0;
    int32_t i32 = 0;
    float f32 = 0;
    uint64_t u64 = 0;
    std::string str;
    std::vector<uint32_t> arr;
    size_t arrCount = 0;
  };

  // The caller's copy of an entry.
  struct MetaEntryView {
    std::string key;
    uint16_t type = 0;
    uint32_t u32 = 0;
    int32_t i32 = 0;
    float f32 = 0;
    uint64_t u64 = 0;
    std::string str;
    std::vector<uint32_t> arr;
  };

  ZEM2Reader() = default;
  ~ZEM2Reader() { close(); }
  ZEM2Reader(const ZEM2Reader&) = delete;
  ZEM2Reader& operator=(const ZEM2Reader&) = delete;

  // Closes what was open, then opens `path`. Every failure has the code
  // InvalidFormat and a message that begins with "ZEM2: "; the reader is then closed.
  Status open(const char* path);
  void close();
  bool valid() const { return valid_; }

  // As the file has them. After close(), and after an open() that got as far as
  // reading a header, they are still those of the last file.
  const Header& header() const { return header_; }
  uint32_t sectionCount() const { return header_.sectionCount; }
  uint32_t tensorCount() const { return header_.tensorCount; }

  // The first entry of type `t` in table order, or null.
  const SectionEntry* section(SectionType t) const;
  // Entry `i` of the section table, or null when there is no such entry.
  const SectionEntry* sectionAt(size_t i) const;
  // The payload of section(t): null and 0 where there is none.
  const uint8_t* sectionData(SectionType t) const;
  uint64_t sectionSize(SectionType t) const;
  // True for an open reader: open() refuses sections that are not aligned.
  bool aligned64() const;

  // The payload of WeightData, and how many bytes of it there are.
  const uint8_t* weightBase() const;
  uint64_t weightSize() const { return sectionSize(SectionType::WeightData); }

  // Metadata, in file order. The getters return the first entry whose key and
  // type both match, and leave `out` alone when there is none (or `key` is null).
  // An array's `data` points into the reader.
  Status parseMeta();  // called by open()
  size_t metaCount() const { return meta_.size(); }
  bool metaAt(size_t i, MetaEntryView& out) const;
  bool getMetaU32(const char* key, uint32_t& out) const;
  bool getMetaI32(const char* key, int32_t& out) const;
  bool getMetaF32(const char* key, float& out) const;
  bool getMetaU64(const char* key, uint64_t& out) const;
  bool getMetaStr(const char* key, std::string& out) const;
  bool getMetaU32Array(const char* key, const uint32_t*& data, uint64_t& count) const;

  // The quantisation table, a copy; empty without a QuantInfo section.
  Status parseQuantInfo();  // called by open()
  size_t quantInfoCount() const { return quant_.size(); }
  const QuantEntry& quantEntry(size_t i) const { return quant_[i]; }

  // The tensor index inside the mapping, sorted by name; null when closed.
  // findTensor compares at most 64 bytes of `name`; in an index that is not
  // sorted it may miss tensors. A miss is null, or an all-zero view.
  const TensorEntry* tensors() const;
  const TensorEntry* findTensor(const char* name) const;
  zem2::TensorView tensorView(size_t index) const;
  zem2::TensorView tensorView(const char* name) const;

  // Decodes the Tokenizer section; false when it is absent or broken, in which
  // case `out` keeps what was read before the break.
  bool readTokenizer(TokenizerData& out) const;

 private:
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
