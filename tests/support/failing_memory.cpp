// SPDX-License-Identifier: Apache-2.0
#include "support/failing_memory.h"

#include <execinfo.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>

namespace zemtest {
namespace {

enum class Mode { Off, Recording, Failing };

std::atomic<Mode> mode{Mode::Off};
std::atomic<size_t> requests{0};
std::atomic<size_t> failingIndex{0};
std::atomic<bool> failingLasts{false};

// Of each request, a hash of the calls that led to it.
constexpr size_t kMostRequests = size_t{1} << 21;
std::array<uint64_t, kMostRequests> callers;

uint64_t hashOfCallers() {
  std::array<void*, 24> frames{};
  const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
  uint64_t hash = 0xcbf29ce484222325;
  for (int i = 0; i < count; ++i) {
    hash = (hash ^ reinterpret_cast<uintptr_t>(frames[static_cast<size_t>(i)])) * 0x100000001b3;
  }
  return hash;
}

// Whether this request is to fail.
bool refuse() {
  const Mode now = mode.load();
  if (now == Mode::Off) return false;
  const size_t index = requests++;
  if (now == Mode::Recording) {
    if (index >= kMostRequests) std::abort();
    callers[index] = hashOfCallers();
    return false;
  }
  return index == failingIndex || (failingLasts && index > failingIndex);
}

void* allocate(size_t bytes, size_t alignment) {
  if (refuse()) throw std::bad_alloc();
  if (bytes == 0) bytes = 1;
  void* block = alignment == 0 ? std::malloc(bytes)
                               : std::aligned_alloc(
                                     alignment, (bytes + alignment - 1) / alignment * alignment);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

// Requests by one chain of calls.
struct Kind {
  size_t first;
  size_t last;
};

}  // namespace

std::vector<size_t> requestsWorthFailing(const std::function<void()>& work) {
  void* frame = nullptr;
  backtrace(&frame, 1);  // loads a library the first time
  requests = 0;
  mode = Mode::Recording;
  work();
  mode = Mode::Off;
  std::map<uint64_t, Kind> kinds;
  for (size_t i = 0; i < requests; ++i)
    kinds.try_emplace(callers[i], Kind{i, i}).first->second.last = i;
  std::vector<size_t> chosen;
  for (const auto& [hash, kind] : kinds) {
    chosen.insert(chosen.end(), {kind.first, kind.last});
  }
  std::sort(chosen.begin(), chosen.end());
  chosen.erase(std::unique(chosen.begin(), chosen.end()), chosen.end());
  return chosen;
}

FailingMemory::FailingMemory(size_t index, Shortage shortage) {
  requests = 0;
  failingIndex = index;
  failingLasts = shortage == Shortage::Lasting;
  mode = Mode::Failing;
}

FailingMemory::~FailingMemory() { mode = Mode::Off; }

bool FailingMemory::failed() const { return requests > failingIndex; }

}  // namespace zemtest

// Every form that the library uses: a sanitizer's own would not go with these.
void* operator new(size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return zemtest::allocate(bytes, 0);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](size_t bytes, const std::nothrow_t& tag) noexcept {
  return operator new(bytes, tag);
}
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept { std::free(block); }
void* operator new(size_t bytes) { return zemtest::allocate(bytes, 0); }
void* operator new[](size_t bytes) { return zemtest::allocate(bytes, 0); }
void* operator new(size_t bytes, std::align_val_t alignment) {
  return zemtest::allocate(bytes, static_cast<size_t>(alignment));
}
void* operator new[](size_t bytes, std::align_val_t alignment) {
  return zemtest::allocate(bytes, static_cast<size_t>(alignment));
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t /*bytes*/) noexcept { std::free(block); }
void operator delete[](void* block, size_t /*bytes*/) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept { std::free(block); }
void operator delete[](void* block, std::align_val_t /*alignment*/) noexcept { std::free(block); }
void operator delete(void* block, size_t /*bytes*/, std::align_val_t /*alignment*/) noexcept {
  std::free(block);
}
void operator delete[](void* block, size_t /*bytes*/, std::align_val_t /*alignment*/) noexcept {
  std::free(block);
}

extern "C" void* __real_mmap(void* at, size_t bytes, int access, int flags, int fd, off_t offset);
extern "C" void* __wrap_mmap(void* at, size_t bytes, int access, int flags, int fd, off_t offset);
extern "C" void* __wrap_mmap(void* at, size_t bytes, int access, int flags, int fd, off_t offset) {
  if (zemtest::refuse()) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  return __real_mmap(at, bytes, access, flags, fd, offset);
}
