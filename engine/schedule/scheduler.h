// SPDX-License-Identifier: Apache-2.0
// Which tokens of which requests go through the model together.
//
// Each turn computes one batch: the next token of every reply, and in what is left of the batch
// the next tokens of prompts. So a reply never waits for longer than one batch, however long the
// prompts beside it are. Prompts take turns.
#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "engine/model/decoder.h"
#include "engine/prefix/prefix_cache.h"
#include "engine/request.h"
#include "engine/schedule/active_reply.h"
#include "engine/seconds_histogram.h"
#include "kiv/status.h"

namespace zem {

struct SchedulerOptions {
  size_t sequences = 4;                 // requests that run at the same time
  size_t batchTokens = kBatchTokens;    // of one turn, at least as many as sequences
  size_t context = 4096;                // tokens of prompt and reply together
  size_t memoryBytes = 0;               // states and pages of running requests; 0: no limit
  size_t cacheBytes = size_t{1} << 30;  // states and pages kept for later requests; 0: none
};

// A request as it waits. `cancelled` may be set by any thread.
struct Ticket {
  Request request;
  std::shared_ptr<Listener> listener;
  std::shared_ptr<std::atomic<bool>> cancelled;
  ActiveReply::Clock::time_point asked = ActiveReply::Clock::now();
};

// One thread at a time. Decoder and bytes outlive it.
class Scheduler {
 public:
  Scheduler(Decoder& decoder, const TokenBytes& bytes, const SchedulerOptions& options);

  ~Scheduler();

  // Why a request cannot be computed at all: InvalidFormat. Any thread.
  kiv::Status check(const Request& request) const;

  // Takes requests for which check() succeeds. They run when a place and memory are free, in this
  // order. Needs no memory.
  void add(std::list<Ticket> tickets);

  // Computes one batch, if there is anything to compute. False: no request is left.
  bool turn();
  // Ends all requests.
  void endAll(EndReason reason, const std::string& error);

  size_t running() const { return places_.size(); }
  size_t waiting() const { return waiting_.size(); }
  PrefixCache& cache() { return cache_; }
  // How long the decoder took for each batch.
  const SecondsHistogram& steps() const { return steps_; }

 private:
  struct Place;

  void dropCancelled();
  void admit();
  bool hasRoomFor(const Request& request) const;
  size_t bytesFor(const Request& request) const;
  std::unique_ptr<SequenceState> takeState();
  void start(const Ticket& ticket);
  static void endWaiting(const Ticket& ticket, EndReason reason, const std::string& error);
  void plan();
  size_t chunkOf(const Place& place, size_t most) const;
  kiv::Status checkThinking(const Request& request) const;
  void compute();
  void step();
  void deliver();
  PrefixCache::Match findKept(const std::vector<uint32_t>& prompt);
  static void choose(Place& place, std::span<const float> logits);
  void keep(Place& place, std::span<const float> logits);
  void failBatch(const std::string& error);
  void removeEnded();

  Decoder& decoder_;
  const TokenBytes& bytes_;
  SchedulerOptions options_;
  PrefixCache cache_;
  std::list<Ticket> waiting_;
  std::vector<std::unique_ptr<Place>> places_;
  std::vector<std::unique_ptr<SequenceState>> idleStates_;
  size_t reservedBytes_ = 0;
  SecondsHistogram steps_;
  size_t firstPrompt_ = 0;  // the place whose prompt is first in the next batch

  // Of the batch that is computed.
  std::vector<Place*> batch_;
  std::vector<Chunk> chunks_;
  std::vector<float> logits_;
};

}  // namespace zem
