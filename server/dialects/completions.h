// SPDX-License-Identifier: Apache-2.0
// POST /v1/completions: texts that the model goes on with as they stand.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/sampling_options.h"
#include "engine/vocabulary.h"
#include "server/dialects/openai_chat.h"

namespace zem::server {

inline constexpr size_t kMostPrompts = 64;  // of a request

// A text, ids, or pieces of both that alternate.
struct RawPrompt {
  struct Piece {
    std::string text;
    std::vector<uint32_t> ids;  // behind the text
  };
  std::vector<Piece> pieces;
};

struct CompletionCall {
  std::vector<RawPrompt> prompts;  // each gives ReplyForm::choices / prompts.size() choices
  SamplingSettings sampling;
  std::vector<std::string> stopTexts;
  uint64_t maxTokens = 16;
  std::optional<size_t> logProbabilities;
  ReplyForm form;  // its choices are those of all prompts
};

// Throws ApiError for what is wrong, by name.
CompletionCall readCompletion(const Json& body);

// The ids of a prompt. Control tokens in its text are recognised.
kiv::Status encodePrompt(const Vocabulary& vocabulary, const RawPrompt& prompt,
                         std::vector<uint32_t>& ids);
// The text of ids, control tokens left out.
std::string textOf(const Vocabulary& vocabulary, std::span<const uint32_t> ids);

// `echoes` has a text a prompt where ReplyForm::echo is set.
std::unique_ptr<ReplyWriter> makeCompletionWriter(const ReplyFacts& facts,
                                                  const CompletionCall& call,
                                                  std::vector<std::string> echoes);

}  // namespace zem::server
