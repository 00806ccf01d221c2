// SPDX-License-Identifier: Apache-2.0
#include "libzem/event.h"

#include <utility>

namespace zem::boundary {
namespace {

zem_event_kind kindOfPiece(text::ReplyEvent::Kind kind) {
  switch (kind) {
    case text::ReplyEvent::Kind::Reasoning:
      return ZEM_EVENT_REASONING;
    case text::ReplyEvent::Kind::CallBegin:
      return ZEM_EVENT_CALL_BEGIN;
    case text::ReplyEvent::Kind::CallArguments:
      return ZEM_EVENT_CALL_ARGUMENTS;
    case text::ReplyEvent::Kind::CallEnd:
      return ZEM_EVENT_CALL_END;
    default:
      return ZEM_EVENT_CONTENT;
  }
}

bool goesOn(zem_event_kind kind) {
  return kind == ZEM_EVENT_REASONING || kind == ZEM_EVENT_CONTENT ||
         kind == ZEM_EVENT_CALL_ARGUMENTS;
}

}  // namespace

zem_event Event::record() const {
  zem_event out{};
  out.struct_size = sizeof out;
  out.kind = kind;
  out.text = text.c_str();
  out.text_size = text.size();
  out.token = token;
  out.call = call;
  out.complete = complete ? 1 : 0;
  out.end_reason = endReason;
  out.stop_text = stopText;
  out.likely_count = static_cast<uint32_t>(likeliest.size());
  out.log_probability = logProbability;
  out.likeliest = likeliest.empty() ? nullptr : likeliest.data();
  out.done = done;
  out.total = total;
  out.usage = usage;
  return out;
}

bool Event::join(const Event& next) {
  if (kind != next.kind || call != next.call) return false;
  if (kind == ZEM_EVENT_PROMPT) {
    *this = next;
    return true;
  }
  if (!goesOn(kind)) return false;
  text += next.text;
  return true;
}

Event promptEvent(size_t done, size_t total) {
  Event event;
  event.kind = ZEM_EVENT_PROMPT;
  event.done = done;
  event.total = total;
  return event;
}

Event tokenEvent(const Token& token, std::string_view spelling) {
  Event event;
  event.kind = ZEM_EVENT_TOKEN;
  event.text = spelling;
  event.token = token.id;
  if (token.logProbabilities) {
    event.logProbability = token.logProbabilities->chosen;
    for (const TokenLogProbability& one : token.logProbabilities->likeliest) {
      event.likeliest.push_back({one.id, 0, one.logProbability});
    }
  }
  return event;
}

Event contentEvent(std::string text) {
  Event event;
  event.text = std::move(text);
  return event;
}

Event pieceEvent(const text::ReplyEvent& piece) {
  Event event;
  event.kind = kindOfPiece(piece.kind);
  event.text = piece.text;
  event.call = static_cast<uint32_t>(piece.call);
  event.complete = piece.kind == text::ReplyEvent::Kind::CallEnd && piece.complete;
  return event;
}

Event endEvent(const End& end, size_t reasoningTokens) {
  Event event;
  event.kind = ZEM_EVENT_END;
  event.endReason = static_cast<zem_end_reason>(end.reason);
  event.text = end.error;
  if (end.stopText) event.stopText = static_cast<int32_t>(*end.stopText);
  event.usage.prompt_tokens = end.usage.prompt;
  event.usage.reused_tokens = end.usage.reused;
  event.usage.generated_tokens = end.usage.generated;
  event.usage.reasoning_tokens = reasoningTokens;
  event.usage.waited_seconds = end.usage.waitedSeconds;
  event.usage.prompt_seconds = end.usage.promptSeconds;
  event.usage.generate_seconds = end.usage.generateSeconds;
  return event;
}

Event lostEvent() {
  Event event;
  event.kind = ZEM_EVENT_END;
  event.endReason = ZEM_END_ERROR;
  event.text = "out of memory";  // short enough for the string itself
  return event;
}

}  // namespace zem::boundary
