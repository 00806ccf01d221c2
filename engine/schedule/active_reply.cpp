// SPDX-License-Identifier: Apache-2.0
#include "engine/schedule/active_reply.h"

#include <algorithm>
#include <new>
#include <utility>

#include "engine/sampling/log_probabilities.h"

namespace zem {
namespace {

double secondsBetween(ActiveReply::Clock::time_point from, ActiveReply::Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// The reply ends where the context does.
StopOptions within(StopOptions stops, size_t context, size_t prompt) {
  stops.contextTokens = std::min<uint64_t>(stops.contextTokens, context - prompt);
  return stops;
}

}  // namespace

ActiveReply::ActiveReply(Request request, std::shared_ptr<Listener> listener,
                         const TokenBytes& bytes, size_t context, Clock::time_point asked)
    : request_(std::move(request)),
      listener_(std::move(listener)),
      bytes_(bytes),
      tokens_(request_.prompt),
      sampler_(request_.sampling, bytes.size()),
      stops_(within(request_.stops, context, request_.prompt.size())),
      asked_(asked),
      begun_(asked) {
  if (request_.thinking) thinking_.emplace(*request_.thinking);
  if (request_.form != nullptr) {
    form_ = std::make_unique<ReplyForm>(request_.form, bytes, request_.stops.endTokens);
    if (!thinking_ || !thinking_->inside()) form_->begin();
  }
  usage_.prompt = request_.prompt.size();
}

void ActiveReply::begin(size_t reused, size_t known) {
  begun_ = Clock::now();
  usage_.reused = reused;
  usage_.known = known;
  usage_.waitedSeconds = secondsBetween(asked_, begun_);
  reportPrompt(reused);
  if (stops_.reason()) end(*stops_.reason());
}

void ActiveReply::reportPrompt(size_t done) {
  tell([&] { listener_->onPrompt(done, request_.prompt.size()); });
}

void ActiveReply::choose(std::span<const float> logits) {
  if (usage_.generated == 0) {
    firstToken_ = Clock::now();
    usage_.promptSeconds = secondsBetween(begun_, firstToken_);
  }
  const std::optional<uint32_t> id = nextId(logits);
  if (!id) return end(EndReason::Error, "the model gave no token a finite score");
  Token token;
  token.id = *id;
  if (request_.logProbabilities) {
    token.logProbabilities = logProbabilities(logits, *id, *request_.logProbabilities);
  }
  tokens_.push_back(*id);
  ++usage_.generated;
  sampler_.record(*id);
  follow(*id);
  token.text = stops_.push(*id, bytes_.bytesOf(*id));
  tell([&] { listener_->onToken(token); });
  if (stops_.reason()) {
    end(*stops_.reason());
  } else if (form_ != nullptr && form_->over()) {
    end(EndReason::Stop);
  }
}

// What comes inside a form is never thinking, `<think>` in a JSON string for one.
void ActiveReply::follow(uint32_t id) {
  if (form_ != nullptr && form_->begun()) return form_->push(id);
  if (!thinking_) return;
  thinking_->push(id);
  if (form_ != nullptr && !thinking_->inside()) form_->begin();
}

std::optional<uint32_t> ActiveReply::nextId(std::span<const float> logits) {
  const bool thinks = thinking_ && (form_ == nullptr || !form_->begun());
  const std::optional<uint32_t> forced = thinks ? thinking_->forced() : std::nullopt;
  return forced ? forced : sampler_.next(logits, form_.get());
}

void ActiveReply::end(EndReason reason, std::string error) {
  if (ended_) return;
  ended_ = true;
  End end;
  try {
    end.text = stops_.end(reason);
  } catch (const std::bad_alloc&) {
    end.text.clear();  // the end itself matters more
  }
  end.reason = reason == EndReason::Error ? reason : stops_.reason().value_or(reason);
  end.stopText = stops_.stopText();
  end.error = std::move(error);
  if (usage_.generated > 0) usage_.generateSeconds = secondsBetween(firstToken_, Clock::now());
  end.usage = usage_;
  tell([&] { listener_->onEnd(end); });
}

template <typename Call>
void ActiveReply::tell(const Call& call) {
  if (!listens_) return;
  try {
    call();
  } catch (...) {
    listens_ = false;
    ended_ = true;
  }
}

}  // namespace zem
