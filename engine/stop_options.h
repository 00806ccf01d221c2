// SPDX-License-Identifier: Apache-2.0
/// \file
/// When a reply ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/status.h"

namespace zem {

/// Why a reply ended.
enum class EndReason : uint8_t {
  Stop,       ///< the model wrote an end token, or nothing more may follow in the form asked for
  StopText,   ///< a stop text came
  Length,     ///< the reply has as many tokens as were asked for
  Context,    ///< the context is full
  Cancelled,  ///< the one who asked has lost interest
  Error,      ///< something failed
};

/// "stop", "stop_text", "length", "context", "cancelled", "error".
std::string_view nameOf(EndReason reason);

/// No limit for a number of tokens.
inline constexpr uint64_t kNoTokenLimit = std::numeric_limits<uint64_t>::max();

/// When one reply ends.
struct StopOptions {
  std::vector<uint32_t> endTokens;         ///< ids that end a reply and are no part of its text
  std::vector<std::string> stopTexts;      ///< end a reply and are no part of it
  uint64_t maxTokens = kNoTokenLimit;      ///< of the reply
  uint64_t contextTokens = kNoTokenLimit;  ///< tokens of a reply that fit into the context
};

/// Fails with InvalidFormat and "stop text N: found ..., needed ..." (N from 1) for a stop text
/// that is empty, longer than 4096 bytes or no UTF-8, and for more than 64 of them.
kiv::Status validate(const StopOptions& options);

/// A limit for what a model thinks before it answers. When it is reached, the closing text and
/// the end token are written in the model's place.
struct ThinkingOptions {
  uint32_t beginToken = 0;          ///< `<think>`
  uint32_t endToken = 0;            ///< `</think>`
  std::vector<uint32_t> closing;    ///< ids of a short text that ends the thinking; may be empty
  uint64_t budget = kNoTokenLimit;  ///< tokens of thinking
  bool inside = false;              ///< the prompt has begun the thinking
};

}  // namespace zem
