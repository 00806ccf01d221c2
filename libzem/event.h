// SPDX-License-Identifier: Apache-2.0
// One event of a reply, which owns what its record points to.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "engine/request.h"
#include "engine/text/reply_parser.h"
#include "zem/engine.h"

namespace zem::boundary {

struct Event {
  zem_event_kind kind = ZEM_EVENT_CONTENT;
  std::string text;
  uint32_t token = 0;
  uint32_t call = 0;
  bool complete = false;
  zem_end_reason endReason = ZEM_END_STOP;
  int32_t stopText = -1;
  double logProbability = std::numeric_limits<double>::quiet_NaN();
  std::vector<zem_likelihood> likeliest;
  uint64_t done = 0;
  uint64_t total = 0;
  zem_usage usage{};

  // Memory in all.
  size_t bytes() const {
    return sizeof *this + text.size() + likeliest.size() * sizeof(zem_likelihood);
  }

  // The record. Its pointers lead into this event.
  zem_event record() const;

  // Takes in `next` where both together are one: a piece that goes on, a later count of the
  // prompt's tokens.
  bool join(const Event& next);
};

Event promptEvent(size_t done, size_t total);
Event tokenEvent(const Token& token, std::string_view spelling);
Event contentEvent(std::string text);
Event pieceEvent(const text::ReplyEvent& piece);
Event endEvent(const End& end, size_t reasoningTokens);
// The end of a request that ran out of memory. Needs none itself.
Event lostEvent();

}  // namespace zem::boundary
