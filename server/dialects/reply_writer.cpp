// SPDX-License-Identifier: Apache-2.0
#include "server/dialects/reply_writer.h"

#include <algorithm>

namespace zem::server {
namespace {

constexpr double kMilliseconds = 1000.0;

double perSecond(size_t count, double seconds) {
  return seconds > 0.0 ? static_cast<double>(count) / seconds : 0.0;
}

}  // namespace

void WholeReply::add(const ReplyStep& step) {
  using Kind = text::ReplyEvent::Kind;
  for (const text::ReplyEvent& event : step.events) {
    switch (event.kind) {
      case Kind::Reasoning:
        reasoning += event.text;
        break;
      case Kind::Content:
        content += event.text;
        break;
      case Kind::CallBegin:
        calls.push_back({event.text, {}, true});
        break;
      case Kind::CallArguments:
        calls.back().arguments += event.text;
        break;
      case Kind::CallEnd:
        calls.back().complete = event.complete;
        break;
    }
  }
  tokens.insert(tokens.end(), step.tokens.begin(), step.tokens.end());
}

Usage sumOf(std::span<const ReplyEnd> ends, size_t sharing) {
  Usage sum;
  for (const ReplyEnd& end : ends) {
    const Usage& usage = end.end.usage;
    sum.generated += usage.generated;
    sum.generateSeconds = std::max(sum.generateSeconds, usage.generateSeconds);
    if (end.choice % (sharing == 0 ? ends.size() : sharing) != 0) continue;
    sum.prompt += usage.prompt;
    sum.reused += usage.reused;
    sum.promptSeconds += usage.promptSeconds;
  }
  return sum;
}

Json timingsJson(const Usage& usage) {
  const size_t evaluated = usage.prompt - std::min(usage.prompt, usage.reused);
  return {{"cache_n", usage.reused},
          {"prompt_n", evaluated},
          {"prompt_ms", usage.promptSeconds * kMilliseconds},
          {"prompt_per_second", perSecond(evaluated, usage.promptSeconds)},
          {"predicted_n", usage.generated},
          {"predicted_ms", usage.generateSeconds * kMilliseconds},
          {"predicted_per_second", perSecond(usage.generated, usage.generateSeconds)}};
}

}  // namespace zem::server
