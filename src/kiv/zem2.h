// SPDX-License-Identifier: Apache-2.0
/// \file
/// The container file as it lies on disk (".zem", version 2): fixed records,
/// section types and the checksum. docs/container-format.md has the whole format.
/// All numbers are little-endian. Only the reader (zem2_*.cpp) and the writer use
/// these records on bytes; everybody else goes through ZEM2Reader.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kiv::zem2 {

inline constexpr char kMagic[4] = {'Z', 'E', 'M', '2'};  ///< the file's first bytes
inline constexpr uint32_t kVersion = 2;                  ///< of the format
inline constexpr uint32_t kEndianMark = 0x01020304;      ///< as read where byte order is right
inline constexpr uint64_t kAlignment = 64;               ///< of every section and tensor
inline constexpr uint32_t kMaxSections = 16;             ///< of a file
inline constexpr size_t kMaxNameBytes = 64;              ///< of a tensor's name
inline constexpr uint16_t kMaxDims = 4;                  ///< extents of a tensor
inline constexpr char kTokenizerMagic[4] = {'T', 'K', 'N', 'Z'};  ///< begins the section
inline constexpr uint32_t kMaxTokenizerCount = 0x4000000;         ///< entries a table may state

/// What a section holds. docs/container-format.md says which ones a reader uses.
enum class SectionType : uint32_t {
  Meta = 1,
  Tokenizer = 2,
  Graph = 3,
  TensorIndex = 4,
  WeightData = 5,
  QuantInfo = 6,
  ChatTemplate = 7,
  PluginManifest = 8,
  PluginBlob = 9,
  Asset = 10,
  Signature = 11,
  RepoManifest = 12,
  AppManifest = 13,
  AppPayload = 14,
  AppIndex = 15,
};

/// Type tags of metadata values.
enum class MetaType : uint8_t { U32 = 0, I32 = 1, F32 = 2, U64 = 3, Str = 4, U32Array = 5 };

#pragma pack(push, 1)

/// The first 64 bytes of a file.
struct Header {
  char magic[4];          ///< kMagic
  uint32_t version;       ///< kVersion
  uint32_t endian;        ///< kEndianMark
  uint32_t sectionCount;  ///< entries of the section table, up to kMaxSections
  uint32_t modelType;     ///< the model family's code
  uint32_t padding0;      ///< reserved
  uint64_t hiddenSize;    ///< width of the model
  uint32_t layerCount;    ///< decoder blocks
  uint32_t vocabSize;     ///< tokens
  uint32_t tensorCount;   ///< entries of the tensor index
  uint32_t reserved[2];   ///< reserved
  uint32_t padding1;      ///< reserved
  uint64_t crc64;         ///< of the bytes before it, followed by the section table
};
static_assert(sizeof(Header) == 64 && offsetof(Header, hiddenSize) == 24 &&
              offsetof(Header, crc64) == 56);

/// One entry of the section table, which follows the header.
struct SectionEntry {
  uint32_t type;    ///< a SectionType; unknown values are allowed
  uint32_t flags;   ///< ignored
  uint64_t offset;  ///< from the start of the file
  uint64_t size;    ///< bytes
};
static_assert(sizeof(SectionEntry) == 24);

/// One entry of the tensor index.
struct TensorEntry {
  char name[kMaxNameBytes];  ///< NUL-padded; a 64-byte name has no terminator
  uint16_t nameLen;          ///< bytes of the name
  uint16_t dtype;            ///< a kiv::DType
  uint16_t ndim;             ///< extents in use
  uint16_t pad;              ///< reserved
  uint64_t shape[kMaxDims];  ///< extents, innermost first
  uint64_t offset;           ///< from the start of WeightData
  uint64_t size;             ///< bytes
  uint64_t reserved;         ///< reserved
};
static_assert(sizeof(TensorEntry) == 128 && offsetof(TensorEntry, shape) == 72 &&
              offsetof(TensorEntry, offset) == 104);

/// One entry of the quantisation table: entry i belongs to tensor i.
struct QuantEntry {
  uint16_t quantType;      ///< a kiv::DType
  uint16_t blockSize;      ///< elements
  uint32_t bytesPerBlock;  ///< bytes
  uint32_t scaleBytes;     ///< bytes of a block's scales
  uint32_t scaleOffset;    ///< where in a block they begin
  uint32_t zeroOffset;     ///< where in a block the scale of the minima lies, or 0
  uint32_t flags;          ///< ignored
  uint64_t reserved;       ///< reserved
};
static_assert(sizeof(QuantEntry) == 32);

#pragma pack(pop)

/// The reader's raw view of one tensor; all zero for a miss. Nothing in it is
/// checked: `ptr` may point outside the file, and `ndim` may exceed the four
/// extents that `shape` has room for (no more than those are ever filled in).
struct TensorView {
  const uint8_t* ptr = nullptr;   ///< where the index says that data begins
  size_t size = 0;                ///< bytes, as the index says
  uint16_t dtype = 0;             ///< a kiv::DType
  uint16_t ndim = 0;              ///< as the index says
  uint64_t shape[kMaxDims] = {};  ///< extents, innermost first
  uint16_t quantType = 0;         ///< of the quantisation table, or 0
  uint16_t blockSize = 0;         ///< elements
  uint32_t bytesPerBlock = 0;     ///< bytes
};

/// The container's CRC-64: the constant 0x42F0E1EBA9EA3693 shifted right, least
/// significant bit first, starting from 0 and not inverted. The mix is the
/// format's own (it is not CRC-64/XZ). 0 for no bytes; "123456789" gives
/// 0x4DB9A9F87EC10C59.
uint64_t crc64(const uint8_t* data, size_t len);

/// crc64() over pieces: crc64Update(crc64Update(0, a), b) == crc64(a + b).
uint64_t crc64Update(uint64_t crc, const uint8_t* data, size_t len);

}  // namespace kiv::zem2
