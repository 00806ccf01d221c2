// SPDX-License-Identifier: Apache-2.0
// A reply of the engine, seen from the thread that waits for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/chat.h"
#include "engine/engine.h"

namespace zemtool {

// Sees a reply come. All calls are on the thread that waits for the reply.
class ReplyWatcher {
 public:
  ReplyWatcher() = default;
  ReplyWatcher(const ReplyWatcher&) = delete;
  ReplyWatcher& operator=(const ReplyWatcher&) = delete;
  virtual ~ReplyWatcher() = default;

  // `done` of `total` tokens of the prompt are evaluated.
  virtual void onPrompt(size_t /*done*/, size_t /*total*/) {}
  // A token, and then what it adds to the reply. What was held back at the end comes without one.
  virtual void onToken(const zem::Token& /*token*/) {}
  virtual void onEvent(const zem::text::ReplyEvent& /*event*/) {}
};

struct FollowedReply {
  zem::End end;
  std::vector<uint32_t> ids;  // of its tokens, an end token among them
};

// Computes a reply and waits for its end. Ctrl-C, noted in interruptFlag, ends it as cancelled. A
// plain request is read as content alone. Throws Failure for a request that the engine refuses,
// and what the watcher throws, which cancels the reply.
FollowedReply followReply(zem::Engine& engine, zem::Request request, ReplyWatcher& watcher);
FollowedReply followReply(zem::Engine& engine, zem::PreparedChat chat, ReplyWatcher& watcher);

// Two lines: "prompt: 12 tokens, 10 reused, 2 evaluated in 0.25 s (8.0 tokens/s)" and the reply.
std::string describeUsage(const zem::Usage& usage);

}  // namespace zemtool
