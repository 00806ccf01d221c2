// What only many repetitions show: memory that grows, replies that change, calls that
// get slower. ZEM_LONG_CYCLES says how many there are.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session_support.h"

namespace {

using zemtest::linked;
using zemtest::ModelFile;

constexpr double kMiB = 1024.0 * 1024.0;

size_t numberFrom(const char* variable, size_t otherwise) {
  const char* value = std::getenv(variable);
  return value == nullptr ? otherwise : std::strtoul(value, nullptr, 10);
}

// Bytes of this process that are in memory, pages of files among them.
double residentBytes() {
  std::ifstream file("/proc/self/statm");
  double all = 0;
  double resident = 0;
  file >> all >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// The address sanitizer keeps what was freed; there the leak sanitizer looks instead.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kMemoryComesBack = false;
#else
constexpr bool kMemoryComesBack = true;
#endif

void expectGrowthBelow(double from, double to, double most) {
  std::printf("  memory %.2f MiB, then %.2f MiB\n", from / kMiB, to / kMiB);
  if (kMemoryComesBack) {
    EXPECT_LE(to - from, most);
  }
}

std::string lifeOf(const ModelFile& file) {
  ZEMRuntimeHandle* handle = nullptr;
  const ZEMRuntimeDescriptorV2& api = *linked().v2;
  // Room for the turn's frame and a short reply.
  if (api.create(file.path(), "host;ctx=24", &handle, nullptr, 0) != 0) return "not created";
  char reply[1024] = "";
  const int rc = api.chat_turn(handle, "hi", reply, sizeof reply);
  api.destroy(handle);
  return std::to_string(rc) + reply;
}

double meanOf(const std::vector<double>& values, size_t first, size_t count) {
  double sum = 0;
  for (size_t i = first; i < first + count; ++i) sum += values[i];
  return sum / static_cast<double>(count);
}

TEST(LongRunsTest, SessionsThatComeAndGoLeaveNothing) {
  const size_t cycles = numberFrom("ZEM_LONG_CYCLES", 40);
  ASSERT_GE(cycles, 20U);
  const ModelFile file{zemtest::endlessModel()};
  std::vector<double> milliseconds;
  std::string first;
  double before = 0;
  testing::internal::CaptureStderr();  // a line of each session's
  for (size_t i = 0; i < cycles; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const std::string said = lifeOf(file);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    milliseconds.push_back(took.count());
    if (i == 0) first = said;
    ASSERT_EQ(said, first) << "cycle " << i;
    if (i == cycles / 10) before = residentBytes();  // the allocator has what it keeps
  }
  const double after = residentBytes();
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(first[0], '0') << first;
  const size_t some = std::min<size_t>(100, cycles / 2);
  std::printf("  %zu cycles: the first %zu took %.2f ms each, the last %zu %.2f ms\n", cycles, some,
              meanOf(milliseconds, 0, some), some, meanOf(milliseconds, cycles - some, some));
  // A leak of 600 bytes a cycle would show in the long run.
  expectGrowthBelow(before, after, kMiB);
}

}  // namespace
