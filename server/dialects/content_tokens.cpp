// SPDX-License-Identifier: Apache-2.0
#include "server/dialects/content_tokens.h"

#include <utility>

namespace zem::server {
namespace {

// What stands for bytes that make no character.
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

}  // namespace

void ContentTokens::push(ContentToken token) {
  if (!token.bytes.empty()) waiting_.push_back(std::move(token));
}

void ContentTokens::take(const std::vector<text::ReplyEvent>& events,
                         std::vector<ContentToken>& out) {
  using Kind = text::ReplyEvent::Kind;
  for (const text::ReplyEvent& event : events) {
    if (event.kind == Kind::Content) {
      content_ += event.text;
      match(content_, &out, false);
      continue;
    }
    match(content_, &out, true);
    content_.clear();
    if (event.kind == Kind::Reasoning) {
      std::string reasoning = event.text;
      match(reasoning, nullptr, true);
    } else {
      waiting_.clear();
    }
  }
}

void ContentTokens::finish(std::vector<ContentToken>& out) {
  match(content_, &out, true);
  content_.clear();
  waiting_.clear();
}

// Takes from `said` the text of tokens that are certain. With `last`, nothing more is said that
// could belong to the last one.
void ContentTokens::match(std::string& said, std::vector<ContentToken>* out, bool last) {
  while (!said.empty() && !waiting_.empty()) {
    ContentToken& token = waiting_.front();
    size_t taken = 0;
    if (said.starts_with(token.bytes)) {
      taken = token.bytes.size();
    } else if (token.bytes.starts_with(said)) {
      if (!last) return;
      token.bytes = said;
      taken = said.size();
    } else if (said.starts_with(kReplacement)) {
      taken = kReplacement.size();
    }
    if (taken != 0 && out != nullptr) out->push_back(std::move(token));
    waiting_.pop_front();
    said.erase(0, taken);
  }
}

}  // namespace zem::server
