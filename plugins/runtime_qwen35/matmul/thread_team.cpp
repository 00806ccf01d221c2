// SPDX-License-Identifier: Apache-2.0
#include "matmul/thread_team.h"

#include <emmintrin.h>

namespace qwen35 {
namespace {

thread_local ThreadTeam* currentTeam = nullptr;

// Between two loops of a token step lie a few microseconds; a wake-up takes fifty. A pause is up
// to 140 cycles.
constexpr int kSpins = 500;

template <typename Condition>
bool spinUntil(const Condition& condition) {
  for (int i = 0; i < kSpins; ++i) {
    if (condition()) return true;
    _mm_pause();
  }
  return condition();
}

}  // namespace

ThreadTeam* ThreadTeam::current() { return currentTeam; }

ThreadTeam::ThreadTeam(size_t threads) {
  workers_.reserve(threads);
  try {
    for (size_t i = 1; i < threads; ++i) workers_.emplace_back([this, i] { work(i); });
  } catch (...) {
    stop();
    throw;
  }
}

ThreadTeam::~ThreadTeam() { stop(); }

void ThreadTeam::stop() {
  ends_ = true;
  ++calls_;
  wake(called_);
  for (std::thread& worker : workers_) worker.join();
}

// Passes through the mutex: who has looked and not yet fallen asleep is not missed.
void ThreadTeam::wake(std::condition_variable& sleeping) {
  { const std::lock_guard lock(mutex_); }
  sleeping.notify_all();
}

void ThreadTeam::run(size_t pieces, Piece piece, void* context) {
  if (pieces == 0) return;
  piece_ = piece;
  context_ = context;
  done_.store(0, std::memory_order_relaxed);
  const uint64_t number = (job_.load(std::memory_order_relaxed) >> (2 * kPieceBits)) + 1;
  job_.store(number << (2 * kPieceBits) | pieces << kPieceBits);
  ++calls_;
  if (sleepers_ > 0) wake(called_);

  while (takePiece(0)) {
  }
  const auto all = static_cast<uint32_t>(pieces);
  const auto finished = [&] { return done_ == all; };
  if (spinUntil(finished)) return;
  std::unique_lock lock(mutex_);
  callerSleeps_ = true;
  finished_.wait(lock, finished);
  callerSleeps_ = false;
}

// The job's fields are safe to read once a piece is taken: the job cannot end before that piece.
bool ThreadTeam::takePiece(size_t thread) {
  uint64_t job = job_.load(std::memory_order_acquire);
  while (hasWork(job)) {
    if (!job_.compare_exchange_weak(job, job + 1, std::memory_order_acq_rel)) continue;
    // Later pieces may end the job, so this one's number is read beforehand.
    const uint64_t pieces = piecesOf(job);
    piece_(context_, thread, nextOf(job));
    const bool last = done_.fetch_add(1) + 1 == pieces;
    if (last && callerSleeps_) wake(finished_);
    return true;
  }
  return false;
}

void ThreadTeam::work(size_t thread) {
  while (!ends_) {
    const uint32_t seen = calls_;
    while (takePiece(thread)) {
    }
    const auto called = [&] { return calls_ != seen; };
    if (spinUntil(called)) continue;
    std::unique_lock lock(mutex_);
    ++sleepers_;
    called_.wait(lock, called);
    --sleepers_;
  }
}

UseTeam::UseTeam(ThreadTeam& team) : before_(currentTeam) { currentTeam = &team; }
UseTeam::~UseTeam() { currentTeam = before_; }

}  // namespace qwen35
