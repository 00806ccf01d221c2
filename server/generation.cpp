// SPDX-License-Identifier: Apache-2.0
#include "server/generation.h"

#include <new>
#include <optional>
#include <utility>

namespace zem::server {
namespace {

using Clock = std::chrono::steady_clock;
using Events = std::vector<text::ReplyEvent>;

constexpr const char* kTimedOut = "the reply was not finished in time";
constexpr const char* kEnding = "the server ends";
constexpr const char* kLost = "out of memory, try again later";

// All members run on the exchange's thread.
class Generation : public std::enable_shared_from_this<Generation> {
 public:
  Generation(Engine& engine, Metrics& metrics, std::shared_ptr<Exchange> exchange,
             GenerationPlan plan)
      : engine_(engine),
        metrics_(metrics),
        exchange_(std::move(exchange)),
        plan_(std::move(plan)),
        choices_(plan_.choices.size()),
        left_(plan_.choices.size()) {}

  Exchange& exchange() { return *exchange_; }

  void start();
  void onPrompt(size_t choice, size_t done, size_t total, Clock::time_point at);
  void onToken(size_t choice, const Token& token, const Events& events, Clock::time_point at);
  void onEnd(const ReplyEnd& end, const Events& events);
  // A reply ended without being told so.
  void onLoss() { fail(ApiError(503, kLost)); }

 private:
  struct Choice {
    RequestHandle handle;
    ContentTokens tokens;
    WholeReply whole;
    std::optional<size_t> reused;
    Clock::time_point begun;
    std::optional<Clock::time_point> lastToken;
  };

  bool submit(size_t choice);
  void send(const std::string& bytes) {
    if (!bytes.empty()) exchange_->write(bytes);
  }
  bool wantsTokens() const { return plan_.choices.front().request.logProbabilities.has_value(); }
  ContentToken contentToken(const Token& token) const;
  void pass(const ReplyStep& step);
  void finish();
  void fail(const ApiError& error);
  void cancel();

  Engine& engine_;
  Metrics& metrics_;
  std::shared_ptr<Exchange> exchange_;
  GenerationPlan plan_;
  std::vector<Choice> choices_;
  size_t left_;        // choices that have not ended
  bool over_ = false;  // the answer has ended, or the client has left
};

// Runs on the engine's thread, and hands everything over.
void handOver(const std::shared_ptr<Generation>& generation,
              std::function<void(Generation&)> work) {
  generation->exchange().post([generation, work = std::move(work)] { work(*generation); });
}

// The engine lets a listener go without an end when that has thrown, for want of memory. Without
// effect behind a failure.
void tellLoss(const std::shared_ptr<Generation>& generation) noexcept {
  if (generation == nullptr) return;
  try {
    handOver(generation, [](Generation& g) { g.onLoss(); });
  } catch (const std::bad_alloc&) {  // the time limit ends the answer
  }
}

ReplyEnd endOf(size_t choice, const End& end, bool called, size_t reasoningTokens) {
  ReplyEnd result;
  result.choice = choice;
  result.end = end;
  result.called = called;
  result.reasoningTokens = reasoningTokens;
  return result;
}

class ChatAnswer : public ChatListener {
 public:
  ChatAnswer(const PreparedChat& chat, std::shared_ptr<Generation> generation, size_t choice)
      : ChatListener(chat), generation_(std::move(generation)), choice_(choice) {}
  ~ChatAnswer() override { tellLoss(generation_); }

  void onPrompt(size_t done, size_t total) override {
    handOver(generation_, [choice = choice_, done, total, now = Clock::now()](Generation& g) {
      g.onPrompt(choice, done, total, now);
    });
  }
  void onReply(const Token& token, const Events& events) override {
    handOver(generation_, [choice = choice_, token, events, now = Clock::now()](Generation& g) {
      g.onToken(choice, token, events, now);
    });
  }
  void onReplyEnd(const End& end, const Events& events) override {
    handOver(generation_, [last = endOf(choice_, end, called(), reasoningTokens()),
                           events](Generation& g) { g.onEnd(last, events); });
    generation_.reset();
  }

 private:
  std::shared_ptr<Generation> generation_;
  size_t choice_;
};

Events contentOf(const std::string& text) {
  if (text.empty()) return {};
  return {{text::ReplyEvent::Kind::Content, text, 0, true}};
}

// All text is content.
class RawAnswer : public Listener {
 public:
  RawAnswer(std::shared_ptr<Generation> generation, size_t choice)
      : generation_(std::move(generation)), choice_(choice) {}
  ~RawAnswer() override { tellLoss(generation_); }

  void onToken(const Token& token) override {
    handOver(generation_, [choice = choice_, token, now = Clock::now()](Generation& g) {
      g.onToken(choice, token, contentOf(token.text), now);
    });
  }
  void onEnd(const End& end) override {
    handOver(generation_, [last = endOf(choice_, end, false, 0)](Generation& g) {
      g.onEnd(last, contentOf(last.end.text));
    });
    generation_.reset();
  }

 private:
  std::shared_ptr<Generation> generation_;
  size_t choice_;
};

void Generation::start() {
  for (size_t i = 0; i < choices_.size(); ++i) {
    if (!submit(i)) return;
  }
  exchange_->whenGone([self = shared_from_this()] { self->cancel(); });
  if (plan_.timeout.count() > 0) {
    exchange_->after(plan_.timeout, [self = shared_from_this()] {
      // Who asked for it again would wait as long again.
      self->fail(ApiError(408, kTimedOut, {}, "timeout"));
    });
  }
  if (!plan_.stream) return;
  exchange_->beginStream({200, plan_.writer->streamType(), {{"cache-control", "no-store"}}, {}},
                         plan_.writer->ping());
  send(plan_.writer->begin());
}

bool Generation::submit(size_t choice) {
  PreparedChat& prepared = plan_.choices[choice];
  std::shared_ptr<Listener> listener;
  if (plan_.raw) {
    listener = std::make_shared<RawAnswer>(shared_from_this(), choice);
  } else {
    listener = std::make_shared<ChatAnswer>(prepared, shared_from_this(), choice);
  }
  const kiv::Status status =
      engine_.submit(prepared.request, std::move(listener), choices_[choice].handle);
  if (status.ok()) return true;
  const bool full = status.code() == kiv::StatusCode::Unsupported;
  fail(ApiError(full ? 429 : 400, status.message(), {}, full ? "queue_full" : ""));
  return false;
}

void Generation::onPrompt(size_t choice, size_t done, size_t total, Clock::time_point at) {
  if (over_ || !plan_.stream) return;
  Choice& mine = choices_[choice];
  if (!mine.reused) {
    mine.reused = done;
    mine.begun = at;
  }
  const std::chrono::duration<double> seconds = at - mine.begun;
  send(plan_.writer->prompt({choice, total, *mine.reused, done, seconds.count()}));
}

void Generation::onToken(size_t choice, const Token& token, const Events& events,
                         Clock::time_point at) {
  Choice& mine = choices_[choice];
  if (mine.lastToken) {
    metrics_.countWait(std::chrono::duration<double>(at - *mine.lastToken).count());
  }
  mine.lastToken = at;
  if (over_) return;
  std::vector<ContentToken> tokens;
  if (token.logProbabilities) {
    mine.tokens.push(contentToken(token));
    mine.tokens.take(events, tokens);
  }
  pass({choice, events, tokens});
}

ContentToken Generation::contentToken(const Token& token) const {
  const Vocabulary& vocabulary = engine_.vocabulary();
  ContentToken own{std::string(vocabulary.bytesOf(token.id)), token.logProbabilities->chosen, {}};
  for (const TokenLogProbability& other : token.logProbabilities->likeliest) {
    const std::string_view bytes = vocabulary.bytesOf(other.id);
    // Special tokens add nothing to a text, but have a name.
    own.likeliest.push_back({std::string(bytes.empty() ? vocabulary.spellingOf(other.id) : bytes),
                             other.logProbability});
  }
  return own;
}

void Generation::onEnd(const ReplyEnd& end, const Events& events) {
  --left_;
  metrics_.countReply(end.end);
  if (over_) return;
  if (end.end.reason == EndReason::Error) return fail(ApiError(500, end.end.error));
  if (end.end.reason == EndReason::Cancelled) return fail(ApiError(503, kEnding));
  std::vector<ContentToken> tokens;
  Choice& mine = choices_[end.choice];
  if (wantsTokens()) {
    mine.tokens.take(events, tokens);
    mine.tokens.finish(tokens);
  }
  if (!events.empty() || !tokens.empty()) pass({end.choice, events, tokens});
  mine.whole.end = end;
  if (plan_.stream) send(plan_.writer->end(end));
  if (left_ == 0) finish();
}

void Generation::pass(const ReplyStep& step) {
  if (plan_.stream) {
    send(plan_.writer->step(step));
  } else {
    choices_[step.choice].whole.add(step);
  }
}

void Generation::finish() {
  over_ = true;
  if (plan_.stream) {
    send(plan_.writer->finish());
    return exchange_->endStream();
  }
  std::vector<WholeReply> replies;
  for (Choice& choice : choices_) replies.push_back(std::move(choice.whole));
  exchange_->reply({200, "application/json", {}, plan_.writer->whole(replies)});
}

void Generation::fail(const ApiError& error) {
  if (over_) return;
  // In front of what comes back from the engine.
  cancel();
  HttpReply reply = errorReply(plan_.dialect, error);
  if (error.status == 408) reply.headers.emplace_back("x-should-retry", "false");
  // Only one of them has an effect: before a stream began, or afterwards.
  exchange_->reply(std::move(reply));
  if (!plan_.stream) return;
  send(plan_.writer->error(error));
  exchange_->endStream();
}

void Generation::cancel() {
  over_ = true;
  for (const Choice& choice : choices_) choice.handle.cancel();
}

}  // namespace

void startGeneration(Engine& engine, Metrics& metrics, std::shared_ptr<Exchange> exchange,
                     GenerationPlan plan) {
  Exchange& target = *exchange;
  auto generation =
      std::make_shared<Generation>(engine, metrics, std::move(exchange), std::move(plan));
  target.post([generation = std::move(generation)] { generation->start(); });
}

}  // namespace zem::server
