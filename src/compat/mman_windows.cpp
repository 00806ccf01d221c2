// SPDX-License-Identifier: Apache-2.0
#include "compat/mman.h"

#include <windows.h>

#include <mutex>
#include <unordered_map>

#include "compat/handles_windows.h"

namespace {

struct MapRec {
  HANDLE file;  // a duplicate, so that the caller may close its descriptor
  HANDLE mapping;
  void* base;
  size_t length;
};

std::unordered_map<uintptr_t, MapRec>& mapRecs() {
  static std::unordered_map<uintptr_t, MapRec> records;  // by base address
  return records;
}

std::mutex& mapLock() {
  static std::mutex lock;
  return lock;
}

DWORD highHalf(uint64_t value) { return static_cast<DWORD>(value >> 32); }
DWORD lowHalf(uint64_t value) { return static_cast<DWORD>(value); }

HANDLE duplicate(HANDLE file) {
  HANDLE copy = nullptr;
  HANDLE self = GetCurrentProcess();
  const BOOL done = DuplicateHandle(self, file, self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
  return done != 0 ? copy : nullptr;
}

void release(const MapRec& record) {
  if (record.base != nullptr) UnmapViewOfFile(record.base);
  if (record.mapping != nullptr) CloseHandle(record.mapping);
  if (record.file != nullptr) CloseHandle(record.file);
}

MapRec mapView(HANDLE original, uint64_t length, uint64_t offset) {
  MapRec record{duplicate(original), nullptr, nullptr, length};
  if (record.file == nullptr) return record;
  record.mapping = CreateFileMappingW(record.file, nullptr, PAGE_READONLY, highHalf(length),
                                      lowHalf(length), nullptr);
  if (record.mapping == nullptr) return record;
  record.base =
      MapViewOfFile(record.mapping, FILE_MAP_READ, highHalf(offset), lowHalf(offset), length);
  return record;
}

}  // namespace

void* mmap(void* /*addr*/, size_t length, int /*prot*/, int /*flags*/, int fd, off_t offset) {
  if (fd < 0 || length == 0) return MAP_FAILED;
  HANDLE file = compat::handleOf(fd);
  if (file == INVALID_HANDLE_VALUE) return MAP_FAILED;
  const MapRec record = mapView(file, length, static_cast<uint64_t>(offset));
  if (record.base == nullptr) {
    release(record);
    return MAP_FAILED;
  }
  const std::lock_guard<std::mutex> lock(mapLock());
  mapRecs().insert_or_assign(reinterpret_cast<uintptr_t>(record.base), record);
  return record.base;
}

int munmap(void* addr, size_t /*length*/) {
  if (addr == nullptr) return 0;
  MapRec record{};
  {
    const std::lock_guard<std::mutex> lock(mapLock());
    const auto found = mapRecs().find(reinterpret_cast<uintptr_t>(addr));
    if (found == mapRecs().end()) return 0;
    record = found->second;
    mapRecs().erase(found);
  }
  release(record);
  return 0;
}

int madvise(void* /*addr*/, size_t /*length*/, int /*advice*/) { return 0; }
