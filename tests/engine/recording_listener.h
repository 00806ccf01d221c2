// SPDX-License-Identifier: Apache-2.0
// What a listener heard.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/request.h"

namespace zemtest {

class RecordingListener : public zem::Listener {
 public:
  void onPrompt(size_t done, size_t total) override {
    const std::lock_guard lock(mutex_);
    prompt_.emplace_back(done, total);
  }
  void onToken(const zem::Token& token) override {
    {
      const std::lock_guard lock(mutex_);
      tokens_.push_back(token);
    }
    if (onEachToken) onEachToken(token);
  }
  void onEnd(const zem::End& end) override {
    const std::lock_guard lock(mutex_);
    ++ends_;
    end_ = end;
    ended_.notify_all();
  }

  // Waits for the end.
  zem::End waitForEnd() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [&] { return end_.has_value(); });
    return *end_;
  }

  // After the end, or on the thread that calls.
  bool hasEnded() const { return end_.has_value(); }
  const zem::End& end() const { return *end_; }
  int ends() const { return ends_; }
  const std::vector<zem::Token>& tokens() const { return tokens_; }
  const std::vector<std::pair<size_t, size_t>>& prompt() const { return prompt_; }
  std::vector<uint32_t> ids() const {
    std::vector<uint32_t> ids;
    for (const zem::Token& token : tokens_) ids.push_back(token.id);
    return ids;
  }
  std::string text() const {
    std::string text;
    for (const zem::Token& token : tokens_) text += token.text;
    return end_ ? text + end_->text : text;
  }

  std::function<void(const zem::Token&)> onEachToken;  // set before the request is made

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::vector<std::pair<size_t, size_t>> prompt_;
  std::vector<zem::Token> tokens_;
  std::optional<zem::End> end_;
  int ends_ = 0;
};

}  // namespace zemtest
