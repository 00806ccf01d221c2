// SPDX-License-Identifier: Apache-2.0
// Which tokens the content of a reply is made of. Log-probabilities need it: the texts of their
// tokens, joined, are the content.
#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "engine/log_probabilities.h"
#include "engine/text/reply_parser.h"

namespace zem::server {

// One of the likeliest tokens at a place, with its text.
struct Alternative {
  std::string bytes;
  double logProbability = 0.0;
};

// A token of the content. Of one that is in part content, `bytes` are this part.
struct ContentToken {
  std::string bytes;
  double logProbability = 0.0;
  std::vector<Alternative> likeliest;
};

// Follows a reply: its tokens, and the events that they make. Content may come later than its
// tokens, and newlines around it not at all. One thread at a time.
class ContentTokens {
 public:
  // A token, before the events that it makes.
  void push(ContentToken token);
  // The events of that token. Puts tokens at the end of `out` once their content has come whole.
  void take(const std::vector<text::ReplyEvent>& events, std::vector<ContentToken>& out);
  // The reply is over.
  void finish(std::vector<ContentToken>& out);

 private:
  void match(std::string& said, std::vector<ContentToken>* out, bool last);

  std::deque<ContentToken> waiting_;  // tokens without their text so far
  std::string content_;               // text without certain tokens
};

}  // namespace zem::server
