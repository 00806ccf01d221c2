// SPDX-License-Identifier: Apache-2.0
#include "engine/stops/stop_rules.h"

#include <algorithm>
#include <string>

#include "engine/text/unicode/utf8.h"

namespace zem {
namespace {

// Moves what is certain at the front of `bytes` to the end of the result.
std::string takeCharacters(std::string& bytes) {
  std::string text;
  size_t at = 0;
  while (at < bytes.size()) {
    const std::string_view rest = std::string_view(bytes).substr(at);
    const text::Utf8Start start = text::utf8Start(rest);
    if (start.state == text::Utf8Start::State::Cut) break;
    text::appendWellFormed(rest.substr(0, start.length), text);
    at += start.length;
  }
  bytes.erase(0, at);
  return text;
}

}  // namespace

StopRules::StopRules(const StopOptions& options)
    : endTokens_(options.endTokens),
      maxTokens_(options.maxTokens),
      contextTokens_(options.contextTokens),
      stopTexts_(options.stopTexts),
      reason_(limitReached()) {}

std::string StopRules::push(uint32_t id, std::string_view bytes) {
  if (reason_) return {};
  ++tokens_;
  if (isEndToken(id)) return end(EndReason::Stop);
  bytes_ += bytes;
  std::string out;
  if (take(takeCharacters(bytes_), out)) return out;
  if (const std::optional<EndReason> limit = limitReached()) out += end(*limit);
  return out;
}

std::string StopRules::end(EndReason reason) {
  if (reason_) return {};
  std::string cut;
  text::appendWellFormed(bytes_, cut);
  bytes_.clear();
  std::string out;
  if (take(cut, out)) return out;
  stopTexts_.finish(out);
  reason_ = reason;
  return out;
}

bool StopRules::isEndToken(uint32_t id) const {
  return std::find(endTokens_.begin(), endTokens_.end(), id) != endTokens_.end();
}

// Whether the reply ended within `text`.
bool StopRules::take(std::string_view text, std::string& out) {
  stopText_ = stopTexts_.push(text, out);
  if (stopText_) reason_ = EndReason::StopText;
  return stopText_.has_value();
}

std::optional<EndReason> StopRules::limitReached() const {
  if (tokens_ >= maxTokens_) return EndReason::Length;
  if (tokens_ >= contextTokens_) return EndReason::Context;
  return std::nullopt;
}

}  // namespace zem
