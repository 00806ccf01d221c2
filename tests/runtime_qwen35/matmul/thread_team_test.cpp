// SPDX-License-Identifier: Apache-2.0
#include "matmul/thread_team.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <numeric>
#include <thread>
#include <vector>

#include "matmul/team.h"

namespace qwen35 {
namespace {

struct Counts {
  explicit Counts(size_t pieces) : of(pieces) {}
  std::vector<std::atomic<int>> of;
  std::atomic<size_t> largestThread{0};

  static void piece(void* context, size_t thread, size_t i) {
    auto& counts = *static_cast<Counts*>(context);
    ++counts.of[i];
    size_t largest = counts.largestThread;
    while (thread > largest && !counts.largestThread.compare_exchange_weak(largest, thread)) {
    }
  }
};

TEST(ThreadTeam, EachPieceIsDoneOnce) {
  for (const size_t threads : {1, 2, 5, 16}) {
    ThreadTeam team(threads);
    EXPECT_EQ(team.size(), threads);
    for (const size_t pieces : {0, 1, 2, 3, 64, 65535}) {
      Counts counts(pieces);
      team.run(pieces, Counts::piece, &counts);
      for (const auto& count : counts.of) ASSERT_EQ(count, 1) << pieces;
      EXPECT_LT(counts.largestThread, threads);
    }
  }
}

TEST(ThreadTeam, ManyShortRunsFollowOneAnother) {
  ThreadTeam team(4);
  for (int run = 0; run < 20000; ++run) {
    Counts counts(7);
    team.run(7, Counts::piece, &counts);
    for (const auto& count : counts.of) ASSERT_EQ(count, 1) << run;
  }
}

TEST(ThreadTeam, WakesUpAfterAPause) {
  ThreadTeam team(3);
  for (int run = 0; run < 20; ++run) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    Counts counts(50);
    team.run(50, Counts::piece, &counts);
    for (const auto& count : counts.of) ASSERT_EQ(count, 1) << run;
  }
}

// The caller sleeps while another member has the last piece.
TEST(ThreadTeam, CallerWaitsForASlowMember) {
  ThreadTeam team(2);
  for (int run = 0; run < 5; ++run) {
    struct {
      std::atomic<bool> otherBegan{false};
      std::atomic<int> done{0};
    } state;
    team.run(
        2,
        [](void* context, size_t thread, size_t) {
          auto& s = *static_cast<decltype(state)*>(context);
          if (thread == 0) {
            while (!s.otherBegan) std::this_thread::yield();
          } else {
            s.otherBegan = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
          }
          ++s.done;
        },
        &state);
    EXPECT_EQ(state.done, 2);
  }
}

TEST(ThreadTeam, LoopsOfAThreadUseItsTeam) {
  EXPECT_EQ(ThreadTeam::current(), nullptr);
  ThreadTeam outer(3);
  ThreadTeam inner(2);
  {
    const UseTeam useOuter(outer);
    EXPECT_EQ(ThreadTeam::current(), &outer);
    EXPECT_EQ(teamSize(), 3U);
    {
      const UseTeam useInner(inner);
      EXPECT_EQ(teamSize(), 2U);
    }
    EXPECT_EQ(ThreadTeam::current(), &outer);
    std::thread([] { EXPECT_EQ(ThreadTeam::current(), nullptr); }).join();
  }
  EXPECT_EQ(ThreadTeam::current(), nullptr);
}

TEST(ThreadTeam, SharesCoverAllUnitsOnce) {
  ThreadTeam team(3);
  const UseTeam use(team);
  for (const size_t units : {0, 1, 2, 11, 12, 13, 31, 32, 33, 1000, 248320}) {
    std::vector<std::atomic<int>> counts(units);
    forEachShare(units, true, [&](size_t thread, size_t begin, size_t end) {
      EXPECT_LT(thread, 3U);
      for (size_t i = begin; i < end; ++i) ++counts[i];
    });
    for (const auto& count : counts) ASSERT_EQ(count, 1) << units;
    forEachUnitInTurn(units, [&](size_t, size_t unit) { ++counts[unit]; });
    for (const auto& count : counts) ASSERT_EQ(count, 2) << units;
  }
}

TEST(ThreadTeam, TwoTeamsWorkSideBySide) {
  const auto work = [] {
    ThreadTeam team(2);
    for (int run = 0; run < 2000; ++run) {
      Counts counts(9);
      team.run(9, Counts::piece, &counts);
      for (const auto& count : counts.of) ASSERT_EQ(count, 1);
    }
  };
  std::thread other(work);
  work();
  other.join();
}

}  // namespace
}  // namespace qwen35
