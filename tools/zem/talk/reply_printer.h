// SPDX-License-Identifier: Apache-2.0
// Shows a reply while it comes: the answer on standard output, all else on standard error.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "talk/follow_reply.h"
#include "talk/reply_record.h"

namespace zemtool {

enum class ThinkingView : uint8_t {
  Hidden,
  Folded,  // a line says that the model thinks, and for how long it did
  Shown,   // dim on a terminal
};

// How far the evaluation of a prompt is: a line on standard error once that takes a second, where
// it is a terminal.
class PromptProgress {
 public:
  PromptProgress();
  ~PromptProgress();
  PromptProgress(const PromptProgress&) = delete;
  PromptProgress& operator=(const PromptProgress&) = delete;

  void update(size_t done, size_t total);
  void erase();

 private:
  using Clock = std::chrono::steady_clock;

  bool terminal_;
  bool shown_ = false;
  Clock::time_point start_ = Clock::now();
};

class ReplyPrinter : public ReplyWatcher {
 public:
  explicit ReplyPrinter(ThinkingView view) : view_(view) {}

  void onPrompt(size_t done, size_t total) override { progress_.update(done, total); }
  void onToken(const zem::Token& token) override;
  void onEvent(const zem::text::ReplyEvent& event) override;

  // Ends the last line. Call it once, behind the end or a failure.
  void finish();

  const ReplyRecord& record() const { return record_; }
  size_t reasoningTokens() const { return reasoningTokens_; }

 private:
  void beginThinking();
  void endThinking();
  void write(const std::string& text);

  ThinkingView view_;
  PromptProgress progress_;
  ReplyRecord record_;
  bool thinking_ = false;
  size_t tokens_ = 0;
  size_t reasoningTokens_ = 0;
  bool wrote_ = false;
  bool atLineStart_ = true;
};

}  // namespace zemtool
