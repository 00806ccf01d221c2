// SPDX-License-Identifier: Apache-2.0
#include "talk/follow_reply.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "console/terminal.h"
#include "console/text.h"

namespace zemtool {
namespace {

using zem::text::ReplyEvent;

// A signal handler cannot wake the thread that waits.
constexpr auto kLookForInterrupt = std::chrono::milliseconds(30);

struct Piece {
  std::optional<std::pair<size_t, size_t>> prompt;
  std::optional<zem::Token> token;
  std::vector<ReplyEvent> events;
  std::optional<zem::End> end;
};

// From the engine's thread to the one that waits.
class Pieces {
 public:
  void push(Piece piece) {
    {
      const std::lock_guard lock(mutex_);
      pieces_.push_back(std::move(piece));
    }
    arrived_.notify_one();
  }

  // The next one; nothing when none comes for a while.
  std::optional<Piece> pop() {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, kLookForInterrupt, [&] { return !pieces_.empty(); });
    if (pieces_.empty()) return std::nullopt;
    Piece piece = std::move(pieces_.front());
    pieces_.pop_front();
    return piece;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Piece> pieces_;
};

class ChatPieces : public zem::ChatListener {
 public:
  explicit ChatPieces(const zem::PreparedChat& chat) : ChatListener(chat) {}
  void onPrompt(size_t done, size_t total) override { pieces.push({{{done, total}}, {}, {}, {}}); }

  Pieces pieces;

 protected:
  void onReply(const zem::Token& token, const std::vector<ReplyEvent>& events) override {
    pieces.push({{}, token, events, {}});
  }
  void onReplyEnd(const zem::End& end, const std::vector<ReplyEvent>& events) override {
    pieces.push({{}, {}, events, end});
  }
};

class TextPieces : public zem::Listener {
 public:
  void onPrompt(size_t done, size_t total) override { pieces.push({{{done, total}}, {}, {}, {}}); }
  void onToken(const zem::Token& token) override {
    pieces.push({{}, token, eventsOf(token.text), {}});
  }
  void onEnd(const zem::End& end) override { pieces.push({{}, {}, eventsOf(end.text), end}); }

  Pieces pieces;

 private:
  static std::vector<ReplyEvent> eventsOf(const std::string& text) {
    if (text.empty()) return {};
    return {{ReplyEvent::Kind::Content, text, 0, true}};
  }
};

class CancelAtExit {
 public:
  explicit CancelAtExit(zem::RequestHandle handle) : handle_(std::move(handle)) {}
  ~CancelAtExit() { handle_.cancel(); }
  CancelAtExit(const CancelAtExit&) = delete;
  CancelAtExit& operator=(const CancelAtExit&) = delete;

  void cancel() const { handle_.cancel(); }

 private:
  zem::RequestHandle handle_;
};

void show(const Piece& piece, ReplyWatcher& watcher, FollowedReply& reply) {
  if (piece.prompt) watcher.onPrompt(piece.prompt->first, piece.prompt->second);
  if (piece.token) {
    reply.ids.push_back(piece.token->id);
    watcher.onToken(*piece.token);
  }
  for (const ReplyEvent& event : piece.events) watcher.onEvent(event);
}

template <typename Listener>
FollowedReply follow(zem::Engine& engine, zem::Request request,
                     const std::shared_ptr<Listener>& listener, ReplyWatcher& watcher) {
  zem::RequestHandle handle;
  const kiv::Status status = engine.submit(std::move(request), listener, handle);
  if (!status.ok()) throw Failure(status.message());
  const CancelAtExit running(handle);
  FollowedReply reply;
  for (;;) {
    if (interruptFlag != 0) running.cancel();
    const std::optional<Piece> piece = listener->pieces.pop();
    if (!piece) continue;
    show(*piece, watcher, reply);
    if (!piece->end) continue;
    reply.end = *piece->end;
    return reply;
  }
}

std::string rateOf(size_t tokens, double seconds) {
  if (!(seconds > 0)) return {};
  return " (" + formatNumber(static_cast<double>(tokens) / seconds, 1) + " tokens/s)";
}

std::string counted(size_t tokens) {
  return std::to_string(tokens) + (tokens == 1 ? " token" : " tokens");
}

}  // namespace

FollowedReply followReply(zem::Engine& engine, zem::Request request, ReplyWatcher& watcher) {
  return follow(engine, std::move(request), std::make_shared<TextPieces>(), watcher);
}

FollowedReply followReply(zem::Engine& engine, zem::PreparedChat chat, ReplyWatcher& watcher) {
  const auto listener = std::make_shared<ChatPieces>(chat);
  return follow(engine, std::move(chat.request), listener, watcher);
}

std::string describeUsage(const zem::Usage& usage) {
  const size_t evaluated = usage.prompt - usage.reused;
  return "prompt: " + counted(usage.prompt) + ", " + std::to_string(usage.reused) + " reused, " +
         std::to_string(evaluated) + " evaluated in " + formatNumber(usage.promptSeconds, 2) +
         " s" + rateOf(evaluated, usage.promptSeconds) + "\nreply:  " + counted(usage.generated) +
         " in " + formatNumber(usage.generateSeconds, 2) + " s" +
         rateOf(usage.generated, usage.generateSeconds);
}

}  // namespace zemtool
