// SPDX-License-Identifier: Apache-2.0
// When a reply ends, and which part of its text may go out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/stop_options.h"
#include "engine/stops/stop_texts.h"

namespace zem {

// Follows one reply, token by token. The text that goes out is, in a row, that of all tokens up to
// the end or the stop text, whole characters only: however the text is split into tokens, and as
// soon as it cannot be the beginning of a stop text. Bytes that make no character
// become U+FFFD.
//
// One thread at a time.
class StopRules {
 public:
  // REQUIRES: validate(options) succeeds. A reply of no tokens has ended from the start.
  explicit StopRules(const StopOptions& options);

  // The text that may go out now that token `id`, which stands for `bytes`, was written: drawn
  // or forced. An end token comes first, then a stop text, maxTokens, contextTokens.
  // Nothing once the reply has ended.
  std::string push(uint32_t id, std::string_view bytes);

  // Ends the reply for a reason from outside; gives what was held back. Nothing once it has
  // ended. If what was held back ends with a stop text, that is the reason.
  std::string end(EndReason reason);

  std::optional<EndReason> reason() const { return reason_; }   // nothing: the reply goes on
  std::optional<size_t> stopText() const { return stopText_; }  // index of the one that came
  uint64_t tokens() const { return tokens_; }  // that were pushed, an end token among them

 private:
  bool isEndToken(uint32_t id) const;
  bool take(std::string_view text, std::string& out);
  std::optional<EndReason> limitReached() const;

  std::vector<uint32_t> endTokens_;
  uint64_t maxTokens_;
  uint64_t contextTokens_;
  StopTexts stopTexts_;
  std::string bytes_;  // of a character that is not whole yet
  uint64_t tokens_ = 0;
  std::optional<EndReason> reason_;
  std::optional<size_t> stopText_;
};

}  // namespace zem
