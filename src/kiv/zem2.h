// The container file as it lies on disk (".zem", version 2): fixed records,
// section types and the checksum. docs/container-format.md has the whole format.
// All numbers are little-endian. Only the reader (zem2_*.cpp) and the writer use
// these records on bytes; everybody else goes through ZEM2Reader.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kiv::zem2 {

inline constexpr char kMagic[4] = {'Z', 'E', 'M', '2'};
inline constexpr uint32_t kVersion = 2;
inline constexpr uint32_t kEndianMark = 0x01020304;
inline constexpr uint64_t kAlignment = 64;  // of every section and tensor
inline constexpr uint32_t kMaxSections = 16;
inline constexpr size_t kMaxNameBytes = 64;  // of a tensor's name
inline constexpr uint16_t kMaxDims = 4;
inline constexpr char kTokenizerMagic[4] = {'T', 'K', 'N', 'Z'};
inline constexpr uint32_t kMaxTokenizerCount = 0x4000000;  // entries a table may state

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

// Type tags of metadata values.
enum class MetaType : uint8_t { U32 = 0, I32 = 1, F32 = 2, U64 = 3, Str = 4, U32Array = 5 };

#pragma pack(push, 1)

struct Header {
  char magic[4];
  uint32_t version;
  uint32_t endian;
  uint32_t sectionCount;
  uint32_t modelType;
  uint32_t padding0;
  uint64_t hiddenSize;
  uint32_t layerCount;
  uint32_t vocabSize;
  uint32_t tensorCount;
  uint32_t reserved[2];
  uint32_t padding1;
  uint64_t crc64;  // of the bytes before it, followed by the section table
};
static_assert(sizeof(Header) == 64 && offsetof(Header, hiddenSize) == 24 &&
              offsetof(Header, crc64) == 56);

struct SectionEntry {
  uint32_t type;  // a SectionType; unknown values are allowed
  uint32_t flags;
  uint64_t offset;  // from the start of the file
  uint64_t size;    // bytes
};
static_assert(sizeof(SectionEntry) == 24);

struct TensorEntry {
  char name[kMaxNameBytes];  // NUL-padded; a 64-byte name has no terminator
  uint16_t nameLen;
  uint16_t dtype;
  uint16_t ndim;
  uint16_t pad;
  uint64_t shape[kMaxDims];
  uint64_t offset;  // from the start of WeightData
  uint64_t size;    // bytes
  uint64_t reserved;
};
static_assert(sizeof(TensorEntry) == 128 && offsetof(TensorEntry, shape) == 72 &&
              offsetof(TensorEntry, offset) == 104);

struct QuantEntry {
  uint16_t quantType;
  uint16_t blockSize;
  uint32_t bytesPerBlock;
  uint32_t scaleBytes;
  uint32_t scaleOffset;
  uint32_t zeroOffset;
  uint32_t flags;
  uint64_t reserved;
};
static_assert(sizeof(QuantEntry) == 32);

#pragma pack(pop)

// The reader's raw view of one tensor; all zero for a miss. Nothing in it is
// checked: `ptr` may point outside the file, and `ndim` may exceed the four
// extents that `shape` has room for (no more than those are ever filled in).
struct TensorView {
  const uint8_t* ptr = nullptr;
  size_t size = 0;
  uint16_t dtype = 0;
  uint16_t ndim = 0;
  uint64_t shape[kMaxDims] = {};
  uint16_t quantType = 0;
  uint16_t blockSize = 0;
  uint32_t bytesPerBlock = 0;
};

// The container's CRC-64: the constant 0x42F0E1EBA9EA3693 shifted right, least
// significant bit first, starting from 0 and not inverted. The mix is the
// format's own (it is not CRC-64/XZ). 0 for no bytes; "123456789" gives
// 0x4DB9A9F87EC10C59.
uint64_t crc64(const uint8_t* data, size_t len);

// The same over pieces: crc64Update(crc64Update(0, a), b) == crc64(a + b).
uint64_t crc64Update(uint64_t crc, const uint8_t* data, size_t len);

}  // namespace kiv::zem2
