// SPDX-License-Identifier: Apache-2.0
#include "compat/mman.h"

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "compat/files.h"
#include "gtest/gtest.h"
#include "support/temp_file.h"

namespace {

using zemtest::TempFile;

// The granularity of offsets on every system.
constexpr size_t kStep = 65536;

class OpenFile {
 public:
  explicit OpenFile(const char* path) : fd_(compat::openToRead(path)) {}
  ~OpenFile() { close(); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int fd() const { return fd_; }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

void* mapped(int fd, size_t length, off_t offset = 0) {
  return mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, offset);
}

std::vector<uint8_t> someBytes(size_t count) {
  std::vector<uint8_t> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 256);
  return bytes;
}

TEST(MmanTest, TheMappingShowsTheFileAndOutlivesTheDescriptor) {
  const std::vector<uint8_t> bytes = someBytes(100'000);
  const TempFile temp(bytes);
  OpenFile file(temp.path());
  ASSERT_GE(file.fd(), 0);
  struct stat facts {};
  ASSERT_EQ(fstat(file.fd(), &facts), 0);
  EXPECT_EQ(facts.st_size, 100'000);
  void* map = mapped(file.fd(), bytes.size());
  ASSERT_NE(map, MAP_FAILED);
  file.close();
  EXPECT_EQ(std::memcmp(map, bytes.data(), bytes.size()), 0);
  EXPECT_EQ(munmap(map, bytes.size()), 0);
}

TEST(MmanTest, AnOffsetSkipsBytes) {
  const std::vector<uint8_t> bytes = someBytes(3 * kStep);
  const TempFile temp(bytes);
  const OpenFile file(temp.path());
#if defined(_WIN32)
  // A view of `length` bytes of a mapping of `length` bytes leaves no room for an offset.
  EXPECT_EQ(mapped(file.fd(), kStep, kStep), MAP_FAILED);
#else
  void* map = mapped(file.fd(), kStep, kStep);
  ASSERT_NE(map, MAP_FAILED);
  EXPECT_EQ(std::memcmp(map, bytes.data() + kStep, kStep), 0);
  munmap(map, kStep);
#endif
  EXPECT_EQ(mapped(file.fd(), 1, 1), MAP_FAILED);  // not a multiple of the granularity
}

TEST(MmanTest, NothingIsMappedOfNoFileOrNoBytes) {
  const TempFile temp(someBytes(10));
  OpenFile file(temp.path());
  EXPECT_EQ(mapped(file.fd(), 0), MAP_FAILED);
  EXPECT_EQ(mapped(-1, 10), MAP_FAILED);
  const int closed = file.fd();
  file.close();
  EXPECT_EQ(mapped(closed, 10), MAP_FAILED);
}

TEST(MmanTest, TwoMappingsOfOneFileAreIndependent) {
  const std::vector<uint8_t> bytes = someBytes(5000);
  const TempFile temp(bytes);
  const OpenFile file(temp.path());
  void* one = mapped(file.fd(), bytes.size());
  void* two = mapped(file.fd(), bytes.size());
  ASSERT_NE(one, MAP_FAILED);
  ASSERT_NE(two, MAP_FAILED);
  EXPECT_NE(one, two);
  EXPECT_EQ(munmap(one, bytes.size()), 0);
  EXPECT_EQ(std::memcmp(two, bytes.data(), bytes.size()), 0);
  EXPECT_EQ(munmap(two, bytes.size()), 0);
}

TEST(MmanTest, AdviceIsTaken) {
  const std::vector<uint8_t> bytes = someBytes(5000);
  const TempFile temp(bytes);
  const OpenFile file(temp.path());
  void* map = mapped(file.fd(), bytes.size());
  ASSERT_NE(map, MAP_FAILED);
  EXPECT_EQ(madvise(map, bytes.size(), MADV_DONTNEED), 0);
  EXPECT_EQ(std::memcmp(map, bytes.data(), bytes.size()), 0);
  munmap(map, bytes.size());
}

TEST(MmanTest, ThreadsMapAndUnmapAtOnce) {
  const std::vector<uint8_t> bytes = someBytes(5000);
  const TempFile temp(bytes);
  std::vector<std::thread> threads;
  std::array<bool, 4> same{};
  for (bool& result : same) {
    threads.emplace_back([&] {
      result = true;
      for (int i = 0; i < 100; ++i) {
        const OpenFile file(temp.path());
        void* map = mapped(file.fd(), bytes.size());
        result = result && map != MAP_FAILED && std::memcmp(map, bytes.data(), bytes.size()) == 0;
        munmap(map, bytes.size());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const bool result : same) EXPECT_TRUE(result);
}

#if defined(_WIN32)

TEST(MmanOnWindows, UnknownAddressesAreLeftAlone) {
  const std::vector<uint8_t> bytes = someBytes(2 * kStep);
  const TempFile temp(bytes);
  const OpenFile file(temp.path());
  void* map = mapped(file.fd(), bytes.size());
  ASSERT_NE(map, MAP_FAILED);
  int nothing = 5;
  EXPECT_EQ(munmap(nullptr, 1), 0);
  EXPECT_EQ(munmap(&nothing, 1), 0);
  EXPECT_EQ(munmap(static_cast<char*>(map) + kStep, 1), 0);  // inside, not its beginning
  EXPECT_EQ(std::memcmp(map, bytes.data(), bytes.size()), 0);
  EXPECT_EQ(munmap(map, 1), 0);  // the whole of it, whatever the length
  EXPECT_EQ(munmap(map, bytes.size()), 0);
}

TEST(MmanOnWindows, EveryMappingIsReadOnlyAndItsPlaceIsTheSystems) {
  const std::vector<uint8_t> bytes = someBytes(5000);
  const TempFile temp(bytes);
  const OpenFile file(temp.path());
  void* wanted = reinterpret_cast<void*>(uintptr_t{0x12340000});
  void* map = mmap(wanted, bytes.size(), PROT_READ | PROT_WRITE, MAP_SHARED, file.fd(), 0);
  ASSERT_NE(map, MAP_FAILED);
  EXPECT_EQ(std::memcmp(map, bytes.data(), bytes.size()), 0);
  munmap(map, bytes.size());
}

TEST(MmanOnWindows, NoMoreIsMappedThanTheFileHas) {
  const TempFile temp(someBytes(10));
  const OpenFile file(temp.path());
  EXPECT_EQ(mapped(file.fd(), 11), MAP_FAILED);
  EXPECT_EQ(mapped(file.fd(), size_t{1} << 40), MAP_FAILED);
}

TEST(MmanOnWindows, AFileWithoutAMappingCanBeRemoved) {
  TempFile temp(someBytes(5000));
  {
    const OpenFile file(temp.path());
    void* map = mapped(file.fd(), 5000);
    ASSERT_NE(map, MAP_FAILED);
    EXPECT_EQ(munmap(map, 5000), 0);
  }
  EXPECT_TRUE(compat::removeFile(temp.path()));
  EXPECT_FALSE(temp.exists());
}

TEST(MmanOnWindows, AdviceIsAlwaysTaken) { EXPECT_EQ(madvise(nullptr, 1, 12345), 0); }

#endif

}  // namespace
