// SPDX-License-Identifier: Apache-2.0
// A team of threads that shares out many small pieces of work, thousands of times a second.
//
// Any member takes the next piece that is left. So a member that the system does not run, because
// other programs keep the processors busy, delays the piece that it holds and no other. Members
// without work spin for some microseconds and then sleep.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace qwen35 {

class ThreadTeam {
 public:
  // `threads` members, the caller of run() included; at least one. Throws std::system_error when
  // the system gives no more threads.
  explicit ThreadTeam(size_t threads);
  ~ThreadTeam();
  ThreadTeam(const ThreadTeam&) = delete;
  ThreadTeam& operator=(const ThreadTeam&) = delete;

  size_t size() const { return workers_.size() + 1; }

  // Calls piece(context, thread, i) once for each i of [0, pieces) and returns when all have
  // returned. `thread` is below size(); a thread calls one piece at a time. A piece must neither
  // throw nor call run(). One thread at a time calls run(). At most 65535 pieces.
  using Piece = void (*)(void* context, size_t thread, size_t i);
  void run(size_t pieces, Piece piece, void* context);

  // The team that loops of this thread use, or null: then they use OpenMP's.
  static ThreadTeam* current();

 private:
  friend class UseTeam;

  void work(size_t thread);
  void stop();
  void wake(std::condition_variable& sleeping);
  bool takePiece(size_t thread);

  // One word holds the job's number, the count of its pieces and the next piece to take. So a late
  // thread cannot take a piece of a newer job by mistake.
  static constexpr uint64_t kPieceBits = 16;
  static constexpr uint64_t kPieceMask = (uint64_t{1} << kPieceBits) - 1;
  static uint64_t nextOf(uint64_t job) { return job & kPieceMask; }
  static uint64_t piecesOf(uint64_t job) { return job >> kPieceBits & kPieceMask; }
  static bool hasWork(uint64_t job) { return nextOf(job) < piecesOf(job); }

  alignas(64) std::atomic<uint64_t> job_{0};
  alignas(64) std::atomic<uint32_t> done_{0};  // pieces of the job that have returned
  std::atomic<bool> callerSleeps_{false};
  alignas(64) std::atomic<uint32_t> calls_{0};  // goes up when there is work, or the end
  std::atomic<uint32_t> sleepers_{0};
  std::atomic<bool> ends_{false};
  // For sleep alone. std::atomic's own wait will not do: on Windows, as GCC 12 builds it, threads
  // slept for ever.
  std::mutex mutex_;
  std::condition_variable called_;
  std::condition_variable finished_;
  Piece piece_ = nullptr;
  void* context_ = nullptr;
  std::vector<std::thread> workers_;
};

// While it lives, the loops of this thread use `team`, which must outlive it.
class UseTeam {
 public:
  explicit UseTeam(ThreadTeam& team);
  ~UseTeam();
  UseTeam(const UseTeam&) = delete;
  UseTeam& operator=(const UseTeam&) = delete;

 private:
  ThreadTeam* before_;
};

}  // namespace qwen35
