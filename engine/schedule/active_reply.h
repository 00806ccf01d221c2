// SPDX-License-Identifier: Apache-2.0
// A request that has a place among the running ones.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/model/sequence_state.h"
#include "engine/request.h"
#include "engine/sampling/sampler_chain.h"
#include "engine/schedule/reply_form.h"
#include "engine/schedule/token_bytes.h"
#include "engine/stops/stop_rules.h"
#include "engine/stops/thinking_budget.h"

namespace zem {

// Prompt and reply of one request, and what chooses and ends its tokens. The listener hears of
// every token and, once, of the end.
class ActiveReply {
 public:
  using Clock = std::chrono::steady_clock;

  // `context` tokens of prompt and reply fit at most.
  ActiveReply(Request request, std::shared_ptr<Listener> listener, const TokenBytes& bytes,
              size_t context, Clock::time_point asked);

  const Request& request() const { return request_; }
  const std::vector<uint32_t>& tokens() const { return tokens_; }  // of the prompt, then the reply
  bool inPrompt(size_t fed) const { return fed < request_.prompt.size(); }

  // A reply of no tokens ends here. The prompt is begun, with `reused` tokens from a kept state; an
  // earlier conversation began with `known` of them.
  void begin(size_t reused, size_t known);
  void reportPrompt(size_t done);
  // Chooses the next token by its logits and tells the listener. The reply may have ended then.
  void choose(std::span<const float> logits);
  // Ends the reply, if it has not ended.
  void end(EndReason reason, std::string error = {});

  bool ended() const { return ended_; }

 private:
  std::optional<uint32_t> nextId(std::span<const float> logits);
  void follow(uint32_t id);
  template <typename Call>
  void tell(const Call& call);

  Request request_;
  std::shared_ptr<Listener> listener_;
  const TokenBytes& bytes_;
  std::vector<uint32_t> tokens_;
  SamplerChain sampler_;
  StopRules stops_;
  std::optional<ThinkingBudget> thinking_;
  std::unique_ptr<ReplyForm> form_;
  Usage usage_;
  Clock::time_point asked_;
  Clock::time_point begun_;
  Clock::time_point firstToken_;
  bool listens_ = true;
  bool ended_ = false;
};

}  // namespace zem
