// SPDX-License-Identifier: Apache-2.0
#include "convert/ordered_work.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace zemtool {
namespace {

using Produce = std::function<void(size_t, std::vector<uint8_t>&)>;
using Consume = std::function<void(size_t, const std::vector<uint8_t>&)>;

// Job j goes through slot j % slots, which is free once job j - slots was consumed.
class Pipeline {
 public:
  Pipeline(size_t jobCount, size_t slots) : jobCount_(jobCount), slots_(slots) {}

  void work(const Produce& produce) {
    std::unique_lock lock(mutex_);
    while (!stopped_ && started_ < jobCount_) {
      const size_t job = started_++;
      Slot& slot = slots_[job % slots_.size()];
      freed_.wait(lock, [&] { return stopped_ || job < consumed_ + slots_.size(); });
      if (stopped_) return;
      lock.unlock();
      std::exception_ptr error;
      try {
        produce(job, slot.bytes);
      } catch (...) {
        error = std::current_exception();
      }
      lock.lock();
      slot.ready = true;
      if (error) error_ = error;
      filled_.notify_one();
    }
  }

  void consumeAll(const Consume& consume) {
    for (size_t job = 0; job < jobCount_; ++job) {
      Slot& slot = slots_[job % slots_.size()];
      std::unique_lock lock(mutex_);
      filled_.wait(lock, [&] { return slot.ready || error_; });
      if (error_) std::rethrow_exception(error_);
      lock.unlock();
      consume(job, slot.bytes);
      lock.lock();
      slot.ready = false;
      ++consumed_;
      freed_.notify_all();
    }
  }

  void stop() {
    const std::scoped_lock lock(mutex_);
    stopped_ = true;
    freed_.notify_all();
  }

 private:
  struct Slot {
    std::vector<uint8_t> bytes;
    bool ready = false;
  };

  const size_t jobCount_;
  std::vector<Slot> slots_;
  std::mutex mutex_;
  std::condition_variable filled_;
  std::condition_variable freed_;
  size_t started_ = 0;
  size_t consumed_ = 0;
  bool stopped_ = false;
  std::exception_ptr error_;
};

}  // namespace

void runOrdered(size_t jobCount, size_t threads, const Produce& produce, const Consume& consume) {
  threads = std::max<size_t>(threads, 1);
  Pipeline pipeline(jobCount, 3 * threads);
  std::vector<std::thread> workers;
  const auto join = [&] {
    pipeline.stop();
    for (std::thread& worker : workers) worker.join();
  };
  try {
    for (size_t i = 0; i < threads; ++i) {
      workers.emplace_back([&] { pipeline.work(produce); });
    }
    pipeline.consumeAll(consume);
  } catch (...) {
    join();
    throw;
  }
  join();
}

}  // namespace zemtool
