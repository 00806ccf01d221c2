// SPDX-License-Identifier: Apache-2.0
// Listeners that turn the engine's calls about a reply into the events of its request.
#pragma once

#include <memory>
#include <vector>

#include "engine/chat.h"
#include "engine/vocabulary.h"
#include "libzem/open_request.h"

namespace zem::boundary {

// For a completion. A request always gets its last event: the engine destroys a listener without
// onEnd() only when memory runs out, and the destructor then adds that event. `vocabulary` outlives
// the listener.
class CompletionListener : public Listener {
 public:
  CompletionListener(std::shared_ptr<OpenRequest> request, const Vocabulary& vocabulary);
  ~CompletionListener() override;
  void onPrompt(size_t done, size_t total) override;
  void onToken(const Token& token) override;
  void onEnd(const End& end) override;

 private:
  std::shared_ptr<OpenRequest> request_;
  const Vocabulary& vocabulary_;
};

// For a chat, with the same rules.
class ChatEvents : public ChatListener {
 public:
  ChatEvents(const PreparedChat& chat, std::shared_ptr<OpenRequest> request,
             const Vocabulary& vocabulary);
  ~ChatEvents() override;
  void onPrompt(size_t done, size_t total) override;
  void onReply(const Token& token, const std::vector<text::ReplyEvent>& events) override;
  void onReplyEnd(const End& end, const std::vector<text::ReplyEvent>& events) override;

 private:
  std::shared_ptr<OpenRequest> request_;
  const Vocabulary& vocabulary_;
};

}  // namespace zem::boundary
