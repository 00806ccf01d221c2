// SPDX-License-Identifier: Apache-2.0
#include "bench/read_speed.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "console/terminal.h"

namespace zemtool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kLeastBytes = size_t{512} << 20;
constexpr size_t kCacheMultiple = 8;
constexpr size_t kStepBytes = 256;  // four cache lines
constexpr size_t kAheadBytes = 1024;
constexpr int kMostPasses = 16;
constexpr int kLeastPasses = 4;
constexpr double kEnoughSeconds = 2;

// The number of processors in a list such as "0-3,8".
size_t countListed(const std::string& list) {
  size_t count = 0;
  std::istringstream ranges(list);
  for (std::string range; std::getline(ranges, range, ',');) {
    size_t first = 0;
    size_t last = 0;
    char dash = 0;
    std::istringstream numbers(range);
    if (!(numbers >> first)) continue;
    if (!(numbers >> dash >> last)) last = first;
    count += last - first + 1;
  }
  return count;
}

// The size of all last-level caches together, if all are like the first processor's. 0 when
// the system does not tell.
size_t lastLevelCacheBytes() {
  size_t bytes = 0;
  size_t sharing = 1;
  int highest = 0;
  for (int index = 0; index < 8; ++index) {
    const std::string folder =
        "/sys/devices/system/cpu/cpu0/cache/index" + std::to_string(index) + "/";
    int level = 0;
    size_t size = 0;
    char unit = 0;
    if (!(std::ifstream(folder + "level") >> level) || level <= highest) continue;
    if (!(std::ifstream(folder + "size") >> size >> unit)) continue;
    std::string list;
    std::getline(std::ifstream(folder + "shared_cpu_list"), list);
    highest = level;
    bytes = size * (unit == 'M' ? size_t{1} << 20 : size_t{1} << 10);
    sharing = std::max<size_t>(countListed(list), 1);
  }
  const size_t processors = std::max<size_t>(std::thread::hardware_concurrency(), 1);
  return bytes * ((processors + sharing - 1) / sharing);
}

using Words = uint64_t __attribute__((vector_size(16)));

// The sum of the words in `bytes` bytes, a multiple of kStepBytes. Reads every word once, into
// several sums, so that no addition waits for the one before it.
template <bool kAhead>
uint64_t sumWords(const unsigned char* data, size_t bytes) {
  constexpr size_t kSums = kStepBytes / sizeof(Words);
  Words sums[kSums] = {};
  for (size_t at = 0; at < bytes; at += kStepBytes) {
    if constexpr (kAhead) {
      for (size_t line = 0; line < kStepBytes; line += 64) {
        __builtin_prefetch(data + at + kAheadBytes + line);
      }
    }
    for (size_t i = 0; i < kSums; ++i) {
      Words words;
      std::memcpy(&words, data + at + i * sizeof(Words), sizeof(Words));
      sums[i] += words;
    }
  }
  uint64_t total = 0;
  for (const Words& sum : sums) total += sum[0] + sum[1];
  return total;
}

// One thread's part of the buffer. Its words count from 0 upward.
class Part {
 public:
  explicit Part(size_t bytes) : bytes_(bytes), data_(new unsigned char[bytes]) {
    for (uint64_t i = 0; i < bytes / sizeof(uint64_t); ++i) {
      std::memcpy(data_.get() + i * sizeof(uint64_t), &i, sizeof(uint64_t));
    }
  }

  // Reads everything. Whether it is what was written.
  bool read(bool ahead) const {
    const uint64_t sum =
        ahead ? sumWords<true>(data_.get(), bytes_) : sumWords<false>(data_.get(), bytes_);
    const uint64_t words = bytes_ / sizeof(uint64_t);
    return sum == words / 2 * (words - 1);  // `words` is even
  }

 private:
  size_t bytes_;
  std::unique_ptr<unsigned char[]> data_;
};

// A barrier that threads pass many times. (std::barrier loses wake-ups where the C++ library
// has no futex, as on Windows.)
class MeetingPoint {
 public:
  explicit MeetingPoint(size_t expected) : expected_(expected) {}

  void arriveAndWait() {
    std::unique_lock<std::mutex> lock(lock_);
    const uint64_t meeting = meetings_;
    ++arrived_;
    letGo();
    together_.wait(lock, [&] { return meetings_ != meeting; });
  }
  // One fewer is expected from now on.
  void drop() {
    const std::lock_guard<std::mutex> lock(lock_);
    --expected_;
    letGo();
  }

 private:
  void letGo() {
    if (arrived_ < expected_) return;
    arrived_ = 0;
    ++meetings_;
    together_.notify_all();
  }

  std::mutex lock_;
  std::condition_variable together_;
  size_t expected_;
  size_t arrived_ = 0;
  uint64_t meetings_ = 0;
};

// Threads that read their parts together, pass by pass.
class Readers {
 public:
  Readers(size_t threads, size_t bytesEach) : bytesEach_(bytesEach), together_(threads + 1) {
    threads_.reserve(threads);
    for (size_t i = 0; i < threads; ++i) {
      try {
        threads_.emplace_back([this] { readParts(); });
      } catch (const std::system_error&) {
        failed_ = true;
        together_.drop();
      }
    }
    together_.arriveAndWait();  // the parts are filled
  }
  ~Readers() {
    ended_ = true;
    together_.arriveAndWait();
    for (std::thread& thread : threads_) thread.join();
  }
  Readers(const Readers&) = delete;
  Readers& operator=(const Readers&) = delete;

  bool failed() const { return failed_; }
  bool damaged() const { return damaged_; }

  // Seconds until the last has read its part.
  double pass(bool ahead) {
    ahead_ = ahead;
    const Clock::time_point start = Clock::now();
    together_.arriveAndWait();
    together_.arriveAndWait();
    return std::chrono::duration<double>(Clock::now() - start).count();
  }

 private:
  void readParts() {
    std::unique_ptr<Part> part;
    try {
      part = std::make_unique<Part>(bytesEach_);  // here, so that it lies near this thread
    } catch (const std::bad_alloc&) {
      failed_ = true;
    }
    together_.arriveAndWait();
    for (;;) {
      together_.arriveAndWait();
      if (ended_) return;
      if (part != nullptr && !part->read(ahead_)) damaged_ = true;
      together_.arriveAndWait();
    }
  }

  size_t bytesEach_;
  MeetingPoint together_;
  std::atomic<bool> ahead_ = false;
  std::atomic<bool> ended_ = false;
  std::atomic<bool> failed_ = false;
  std::atomic<bool> damaged_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace

size_t readSpeedBytes() { return std::max(kLeastBytes, kCacheMultiple * lastLevelCacheBytes()); }

double measureReadSpeed(int threads) {
  const auto count = static_cast<size_t>(threads);
  const size_t bytesEach = readSpeedBytes() / count / kStepBytes * kStepBytes;
  Readers readers(count, bytesEach);
  if (readers.failed()) {
    throw Failure("cannot measure the memory: the system refused " + std::to_string(threads) +
                  " threads or " + std::to_string(readSpeedBytes() >> 20) + " MiB");
  }
  double best = 0;
  double spent = 0;
  for (int i = 0; i < kMostPasses && (i < kLeastPasses || spent < kEnoughSeconds); ++i) {
    const double seconds = readers.pass(i % 2 == 1);
    spent += seconds;
    best = std::max(best, static_cast<double>(bytesEach * count) / seconds);
  }
  if (readers.damaged()) throw Failure("the memory does not hold what was written to it");
  return best;
}

}  // namespace zemtool
