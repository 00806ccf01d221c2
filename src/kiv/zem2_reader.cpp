// SPDX-License-Identifier: Apache-2.0
// The frame: the mapping, header, section table and checksum.
#include "kiv/zem2_reader.h"

#include <cstring>

#include "compat/files.h"
#include "compat/mman.h"

namespace kiv {
Status ZEM2Reader::open(const char* path) {
  close();
  try {
    Status status = mapAndParse(path);
    valid_ = status.ok();
    if (!valid_) close();
    return status;
  } catch (...) {
    close();
    throw;
  }
}

Status ZEM2Reader::mapAndParse(const char* path) {
  Status status = mapFile(path);
  if (status.ok()) status = checkHeader();
  if (status.ok()) status = checkSections();
  if (status.ok()) status = parseMeta();
  if (status.ok()) status = parseQuantInfo();
  return status;
}

void ZEM2Reader::close() {
  if (map_ != nullptr) ::munmap(const_cast<uint8_t*>(map_), mapSize_);
  if (fd_ >= 0) ::close(fd_);
  map_ = nullptr;
  mapSize_ = 0;
  fd_ = -1;
  sections_ = nullptr;
  meta_.clear();
  quant_.clear();
  valid_ = false;
}

Status ZEM2Reader::mapFile(const char* path) {
  if (path == nullptr) return invalidFormat("ZEM2: null path");
  fd_ = compat::openToRead(path);
  if (fd_ < 0) return invalidFormat("ZEM2: cannot open file");

  struct stat info {};
  if (::fstat(fd_, &info) != 0 || info.st_size <= 0) return invalidFormat("ZEM2: cannot stat file");
  const auto size = static_cast<size_t>(info.st_size);
  void* map = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd_, 0);
  if (map == MAP_FAILED) return invalidFormat("ZEM2: mmap failed");
  // Saves page faults where the file system can do it; nothing depends on it.
  (void)::madvise(map, size, MADV_HUGEPAGE);
  map_ = static_cast<const uint8_t*>(map);
  mapSize_ = size;
  return {};
}

Status ZEM2Reader::checkHeader() {
  if (mapSize_ < sizeof(Header)) return invalidFormat("ZEM2: file too small");
  std::memcpy(&header_, map_, sizeof(Header));
  if (std::memcmp(header_.magic, zem2::kMagic, sizeof(zem2::kMagic)) != 0) {
    return invalidFormat("ZEM2: bad magic");
  }
  if (header_.version != zem2::kVersion) return invalidFormat("ZEM2: unsupported version");
  if (header_.endian != zem2::kEndianMark) {
    return invalidFormat("ZEM2: big-endian files unsupported");
  }

  const uint64_t tableBytes = sizeof(SectionEntry) * uint64_t{header_.sectionCount};
  if (mapSize_ - sizeof(Header) < tableBytes) return invalidFormat("ZEM2: truncated section table");
  if (header_.sectionCount > zem2::kMaxSections) return invalidFormat("ZEM2: too many sections");

  const uint8_t* table = map_ + sizeof(Header);
  const uint64_t crc = zem2::crc64(map_, offsetof(Header, crc64));
  if (zem2::crc64Update(crc, table, tableBytes) != header_.crc64) {
    return invalidFormat("ZEM2: CRC mismatch");
  }
  sections_ = reinterpret_cast<const SectionEntry*>(table);
  return {};
}

Status ZEM2Reader::checkSections() const {
  for (uint32_t i = 0; i < header_.sectionCount; ++i) {
    const SectionEntry& s = sections_[i];
    if (s.offset % zem2::kAlignment != 0 || s.offset > mapSize_ || s.size > mapSize_ - s.offset) {
      return invalidFormat("ZEM2: bad section bounds");
    }
  }
  const SectionEntry* index = section(SectionType::TensorIndex);
  if (index == nullptr || index->size < sizeof(TensorEntry) * uint64_t{tensorCount()}) {
    return invalidFormat("ZEM2: missing tensor index");
  }
  const SectionEntry* quant = section(SectionType::QuantInfo);
  if (quant != nullptr && quant->size < sizeof(QuantEntry) * uint64_t{tensorCount()}) {
    return invalidFormat("ZEM2: bad quant info");
  }
  if (section(SectionType::WeightData) == nullptr) {
    return invalidFormat("ZEM2: missing weight data");
  }
  return {};
}

const ZEM2Reader::SectionEntry* ZEM2Reader::sectionAt(size_t i) const {
  return sections_ != nullptr && i < header_.sectionCount ? sections_ + i : nullptr;
}

const ZEM2Reader::SectionEntry* ZEM2Reader::section(SectionType t) const {
  for (size_t i = 0; const SectionEntry* s = sectionAt(i); ++i) {
    if (s->type == static_cast<uint32_t>(t)) return s;
  }
  return nullptr;
}

const uint8_t* ZEM2Reader::sectionData(SectionType t) const {
  const SectionEntry* s = section(t);
  return s != nullptr ? map_ + s->offset : nullptr;
}

uint64_t ZEM2Reader::sectionSize(SectionType t) const {
  const SectionEntry* s = section(t);
  return s != nullptr ? s->size : 0;
}

bool ZEM2Reader::aligned64() const {
  if (!valid_) return false;
  for (size_t i = 0; const SectionEntry* s = sectionAt(i); ++i) {
    if (s->offset % zem2::kAlignment != 0) return false;
  }
  return true;
}

}  // namespace kiv
