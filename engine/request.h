// SPDX-License-Identifier: Apache-2.0
/// \file
/// A request to the engine, and what its listener gets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/log_probabilities.h"
#include "engine/sampling_options.h"
#include "engine/stop_options.h"

namespace zem {
namespace text {
class Constraint;
}  // namespace text

/// One reply to one prompt.
struct Request {
  std::vector<uint32_t> prompt;             ///< ids, at least one
  std::vector<size_t> keepAt;               ///< positions in the prompt, counted in tokens, where
                                            ///< other prompts may branch off: states are kept there
  SamplingOptions sampling;                 ///< how tokens are chosen
  StopOptions stops;                        ///< when the reply ends
  std::optional<ThinkingOptions> thinking;  ///< a limit for what is thought before the answer
  std::optional<size_t> logProbabilities;   ///< of each token, and of so many that were likeliest
  /// The form of the reply; null: any. It begins behind the thinking, where the prompt has begun
  /// one, and ends the reply where nothing more may follow.
  std::shared_ptr<const text::Constraint> form;
};

/// One token of a reply.
struct Token {
  uint32_t id = 0;                                   ///< of the vocabulary
  std::string text;                                  ///< what may go out now: whole characters, or
                                                     ///< nothing while a stop text may have begun
  std::optional<LogProbabilities> logProbabilities;  ///< where they were asked for
};

/// Tokens and time of a request.
struct Usage {
  size_t prompt = 0;           ///< tokens of the prompt
  size_t reused = 0;           ///< of them, those whose state was kept from earlier requests
  size_t known = 0;            ///< of them, those that an earlier prompt or reply began with
  size_t generated = 0;        ///< tokens of the reply, an end token among them
  double waitedSeconds = 0;    ///< until the prompt was begun
  double promptSeconds = 0;    ///< until the first token
  double generateSeconds = 0;  ///< from then on
};

/// The end of a reply. Each request has one.
struct End {
  EndReason reason = EndReason::Stop;  ///< why
  std::string text;                    ///< what was held back and may go out
  std::optional<size_t> stopText;      ///< which one came
  std::string error;                   ///< for people; empty unless the reason is Error
  Usage usage;                         ///< of the whole request
};

/// Hears of a reply. The engine's thread calls, one call at a time, and computes nothing
/// meanwhile: return soon. An exception ends the request as cancel() would.
class Listener {
 public:
  Listener() = default;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  virtual ~Listener() = default;

  /// `done` of `total` tokens of the prompt are evaluated or reused.
  virtual void onPrompt(size_t done, size_t total);
  virtual void onToken(const Token& token) = 0;  ///< the next token
  virtual void onEnd(const End& end) = 0;        ///< the last call
};

}  // namespace zem
