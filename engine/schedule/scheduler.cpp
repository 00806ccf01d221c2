// SPDX-License-Identifier: Apache-2.0
#include "engine/schedule/scheduler.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <new>
#include <utility>

namespace zem {
namespace {

// A state is worth keeping where it saves at least as many tokens.
constexpr size_t kFewTokens = 16;
// Short enough for a string that needs no memory.
constexpr const char* kOutOfMemory = "out of memory";

// The positions in a prompt at which states are kept. The first `fed` tokens are computed already;
// an earlier conversation began with the first `known`. Each position ends a chunk, so positions
// close behind another are left out.
std::vector<size_t> positionsToKeep(const Request& request, size_t fed, size_t known) {
  std::vector<size_t> wanted = request.keepAt;
  wanted.push_back(known);
  std::ranges::sort(wanted);
  std::vector<size_t> result;
  size_t before = fed;
  for (const size_t at : wanted) {
    if (at < before + kFewTokens || at >= request.prompt.size()) continue;
    result.push_back(at);
    before = at;
  }
  if (request.prompt.size() > fed) result.push_back(request.prompt.size());
  return result;
}

}  // namespace

struct Scheduler::Place {
  Place(ActiveReply active, std::shared_ptr<std::atomic<bool>> cancelFlag)
      : reply(std::move(active)), cancelled(std::move(cancelFlag)) {}

  size_t fed() const { return state->length(); }
  bool inPrompt() const { return reply.inPrompt(fed()); }
  size_t left() const { return reply.tokens().size() - fed(); }

  ActiveReply reply;
  std::shared_ptr<std::atomic<bool>> cancelled;
  std::unique_ptr<SequenceState> state;
  std::vector<size_t> keepAt;  // ascending, beyond what is fed
  size_t reservedBytes = 0;
};

Scheduler::Scheduler(Decoder& decoder, const TokenBytes& bytes, const SchedulerOptions& options)
    : decoder_(decoder),
      bytes_(bytes),
      options_(options),
      cache_(options.cacheBytes, decoder.pool().layout().bytes()) {
  options_.batchTokens = std::max(options_.batchTokens, options_.sequences + kFewTokens);
  places_.reserve(options_.sequences);
  idleStates_.reserve(options_.sequences);
  batch_.reserve(options_.sequences);
  chunks_.reserve(options_.sequences);
}
Scheduler::~Scheduler() = default;

kiv::Status Scheduler::check(const Request& request) const {
  const size_t prompt = request.prompt.size();
  if (prompt == 0) return kiv::invalidFormat("the prompt is empty, needs at least one token");
  for (size_t i = 0; i < prompt; ++i) {
    if (request.prompt[i] >= decoder_.vocabulary()) {
      return kiv::invalidFormat("token " + std::to_string(i) + " of the prompt is " +
                                std::to_string(request.prompt[i]) + ", the model has " +
                                std::to_string(decoder_.vocabulary()) + " tokens");
    }
  }
  if (prompt >= options_.context) {
    return kiv::invalidFormat("the prompt has " + std::to_string(prompt) +
                              " tokens, but prompt and reply together have room for " +
                              std::to_string(options_.context));
  }
  const size_t bytes = bytesFor(request);
  if (options_.memoryBytes != 0 && bytes > options_.memoryBytes) {
    return kiv::invalidFormat("the request may need " + std::to_string(bytes >> 20) +
                              " MiB, the limit is " + std::to_string(options_.memoryBytes >> 20) +
                              " MiB; ask for fewer tokens");
  }
  kiv::Status status = validate(request.sampling, bytes_.size());
  if (status.ok()) status = checkThinking(request);
  return status.ok() ? validate(request.stops) : status;
}

// Its tokens are written in the model's place and then fed to it.
kiv::Status Scheduler::checkThinking(const Request& request) const {
  if (!request.thinking) return {};
  std::vector<uint32_t> written = request.thinking->closing;
  written.push_back(request.thinking->endToken);
  for (const uint32_t id : written) {
    if (id < decoder_.vocabulary()) continue;
    return kiv::invalidFormat("thinking ends with token " + std::to_string(id) +
                              ", the model has " + std::to_string(decoder_.vocabulary()) +
                              " tokens");
  }
  return {};
}

void Scheduler::add(std::list<Ticket> tickets) { waiting_.splice(waiting_.end(), tickets); }

bool Scheduler::turn() {
  dropCancelled();
  admit();
  removeEnded();
  plan();
  if (!batch_.empty()) compute();
  removeEnded();
  return !places_.empty() || !waiting_.empty();
}

void Scheduler::endAll(EndReason reason, const std::string& error) {
  for (const auto& place : places_) place->reply.end(reason, error);
  removeEnded();
  for (; !waiting_.empty(); waiting_.pop_front()) endWaiting(waiting_.front(), reason, error);
}

void Scheduler::dropCancelled() {
  for (const auto& place : places_) {
    if (*place->cancelled) place->reply.end(EndReason::Cancelled);
  }
  removeEnded();
  for (auto it = waiting_.begin(); it != waiting_.end();) {
    if (!*it->cancelled) {
      ++it;
      continue;
    }
    endWaiting(*it, EndReason::Cancelled, {});
    it = waiting_.erase(it);
  }
}

void Scheduler::admit() {
  while (!waiting_.empty() && places_.size() < options_.sequences &&
         hasRoomFor(waiting_.front().request)) {
    std::list<Ticket> first;
    first.splice(first.end(), waiting_, waiting_.begin());
    try {
      start(first.front());
    } catch (const std::bad_alloc&) {
      endWaiting(first.front(), EndReason::Error, kOutOfMemory);
    } catch (const std::exception& error) {  // the others go on
      endWaiting(first.front(), EndReason::Error, error.what());
    }
  }
}

// Ends a request that has no place. Needs no memory for a short error.
void Scheduler::endWaiting(const Ticket& ticket, EndReason reason, const std::string& error) {
  try {
    End end;
    end.reason = reason;
    end.error = error;
    end.usage.prompt = ticket.request.prompt.size();
    ticket.listener->onEnd(end);
  } catch (...) {  // the listener has lost interest
  }
}

bool Scheduler::hasRoomFor(const Request& request) const {
  return options_.memoryBytes == 0 || reservedBytes_ + bytesFor(request) <= options_.memoryBytes;
}

// Of the state and the pages that the request may come to use.
size_t Scheduler::bytesFor(const Request& request) const {
  const uint64_t room = options_.context - request.prompt.size();
  const auto reply = static_cast<size_t>(std::min<uint64_t>(room, request.stops.maxTokens));
  const size_t pages = (request.prompt.size() + reply + kPagePositions - 1) / kPagePositions;
  return decoder_.recurrentBytes() + pages * decoder_.pool().layout().bytes();
}

std::unique_ptr<SequenceState> Scheduler::takeState() {
  if (idleStates_.empty()) return std::make_unique<SequenceState>(decoder_.newSequence());
  std::unique_ptr<SequenceState> state = std::move(idleStates_.back());
  idleStates_.pop_back();
  return state;
}

void Scheduler::start(const Ticket& ticket) {
  ActiveReply reply(ticket.request, ticket.listener, bytes_, options_.context, ticket.asked);
  auto place = std::make_unique<Place>(std::move(reply), ticket.cancelled);
  const Request& request = place->reply.request();
  place->state = takeState();
  const PrefixCache::Match match = findKept(request.prompt);
  if (match.snapshot != nullptr) {
    place->state->restore(*match.snapshot);
  } else {
    place->state->reset();
  }
  const size_t fed = place->fed();
  const Logits logits = fed == request.prompt.size() ? match.snapshot->logits : nullptr;
  place->keepAt = positionsToKeep(request, fed, match.known);
  place->reservedBytes = bytesFor(request);
  reservedBytes_ += place->reservedBytes;
  place->reply.begin(fed, match.known);
  places_.push_back(std::move(place));
  if (logits != nullptr && !places_.back()->reply.ended()) choose(*places_.back(), *logits);
}

// The logits of the last token choose the reply's first: where they are not kept, it is evaluated
// anew.
PrefixCache::Match Scheduler::findKept(const std::vector<uint32_t>& prompt) {
  const PrefixCache::Match match = cache_.find(prompt, prompt.size());
  const bool lacksLogits = match.snapshot != nullptr && match.snapshot->length == prompt.size() &&
                           match.snapshot->logits == nullptr;
  return lacksLogits ? cache_.find(prompt, prompt.size() - 1) : match;
}

void Scheduler::choose(Place& place, std::span<const float> logits) {
  try {
    place.reply.choose(logits);
  } catch (const std::bad_alloc&) {
    place.reply.end(EndReason::Error, kOutOfMemory);
  }
}

// Every reply's next token, then prompts, from firstPrompt_ on.
void Scheduler::plan() {
  batch_.clear();
  chunks_.clear();
  size_t left = options_.batchTokens;
  const auto take = [&](Place& place, size_t count) {
    const std::span<const uint32_t> tokens(place.reply.tokens());
    const bool last = count == place.left();
    chunks_.push_back({place.state.get(), tokens.subspan(place.fed(), count),
                       last ? LogitsOf::Last : LogitsOf::None});
    batch_.push_back(&place);
    left -= count;
  };
  for (const auto& place : places_) {
    if (!place->inPrompt() && left > 0) take(*place, 1);
  }
  for (size_t i = 0; i < places_.size() && left > 0; ++i) {
    Place& place = *places_[(firstPrompt_ + i) % places_.size()];
    if (place.inPrompt()) take(place, chunkOf(place, left));
  }
  ++firstPrompt_;
}

// Chunks end where a state is to be kept.
size_t Scheduler::chunkOf(const Place& place, size_t most) const {
  const size_t count = std::min(most, place.left());
  const auto next = std::ranges::upper_bound(place.keepAt, place.fed());
  return next == place.keepAt.end() ? count : std::min(count, *next - place.fed());
}

void Scheduler::compute() {
  try {
    step();
  } catch (const std::bad_alloc&) {
    const bool untouched =
        std::ranges::none_of(batch_, [](const Place* place) { return place->state->broken(); });
    // What is kept for later requests gives way to those that run.
    if (untouched && cache_.dropOne()) return;
    return failBatch(kOutOfMemory);
  }
  deliver();
}

void Scheduler::step() {
  const auto begin = std::chrono::steady_clock::now();
  decoder_.step(chunks_, logits_);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  steps_.add(seconds.count());
}

void Scheduler::deliver() {
  const float* row = logits_.data();
  for (size_t i = 0; i < batch_.size(); ++i) {
    Place& place = *batch_[i];
    const bool hasLogits = chunks_[i].logits == LogitsOf::Last;
    const std::span<const float> logits(row, hasLogits ? decoder_.vocabulary() : 0);
    if (place.fed() <= place.reply.request().prompt.size()) {
      place.reply.reportPrompt(place.fed());
      keep(place, logits);
    }
    if (!hasLogits) continue;
    choose(place, logits);
    row += decoder_.vocabulary();
    if (place.reply.ended()) keep(place, {});
  }
}

// Keeps the state for later requests, where that was asked for or the reply has ended; with the
// logits of the next token, if there are any.
void Scheduler::keep(Place& place, std::span<const float> logits) {
  const size_t length = place.fed();
  const bool wanted = std::ranges::binary_search(place.keepAt, length) || place.reply.ended();
  const std::vector<size_t>& asked = place.reply.request().keepAt;
  const bool byName = std::find(asked.begin(), asked.end(), length) != asked.end();
  if (!wanted || (length < kFewTokens && !byName)) return;
  if (!cache_.hasRoomFor(decoder_.recurrentBytes() + logits.size_bytes(), length)) return;
  try {
    Snapshot snapshot = place.state->snapshot();
    if (!logits.empty()) {
      snapshot.logits = std::make_shared<const std::vector<float>>(logits.begin(), logits.end());
    }
    cache_.insert(std::span(place.reply.tokens()).first(length), std::move(snapshot));
  } catch (const std::bad_alloc&) {
    cache_.dropOne();
  }
}

void Scheduler::failBatch(const std::string& error) {
  for (Place* place : batch_) place->reply.end(EndReason::Error, error);
}

void Scheduler::removeEnded() {
  std::erase_if(places_, [&](std::unique_ptr<Place>& place) {
    if (!place->reply.ended()) return false;
    place->state->reset();
    idleStates_.push_back(std::move(place->state));
    reservedBytes_ -= place->reservedBytes;
    return true;
  });
}

}  // namespace zem
