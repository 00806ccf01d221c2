// SPDX-License-Identifier: Apache-2.0
/// \file
/// The tokens of a model: text to ids, and ids to text.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/tokenizer.h"
#include "kiv/status.h"
#include "kiv/zem_loader.h"

namespace zem {

/// Read-only once loaded: any thread.
class Vocabulary {
 public:
  Vocabulary();
  ~Vocabulary();
  Vocabulary(Vocabulary&& other) noexcept;
  Vocabulary& operator=(Vocabulary&& other) noexcept;

  /// The tokenizer that the container has from its source, or, where it has none, the one of the
  /// plug-in. `loader` has to be open; nothing of it is kept.
  static kiv::Status load(const kiv::ZEMLoader& loader, Vocabulary& out);

  /// Whether the tokenizer is that of the model's source, exact in every detail.
  bool isExact() const;

  /// Replaces `ids` by those of the parts' texts in a row. The plug-in's tokenizer recognises
  /// special tokens wherever they stand and drops text that it has no token for.
  kiv::Status encode(std::span<const text::TextPart> parts, std::vector<uint32_t>& ids) const;
  /// The same for one text.
  kiv::Status encode(std::string_view text, text::AddedTokens added,
                     std::vector<uint32_t>& ids) const;

  /// What a token adds to a text; empty for an id without a token and for special tokens.
  std::string_view bytesOf(uint32_t id) const;
  /// The token's own text, special or not; empty for an id without a token.
  std::string_view spellingOf(uint32_t id) const;
  uint32_t size() const;  ///< one more than the largest id with a token
  /// The id of the added token of that text, such as "</think>".
  std::optional<uint32_t> idOf(std::string_view spelling) const;

  /// Tokens that end a reply: those that the container names, else those that the model family
  /// uses for it.
  const std::vector<uint32_t>& endTokens() const;

 private:
  struct Impl;
  std::unique_ptr<const Impl> impl_;
};

}  // namespace zem
