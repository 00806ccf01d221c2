// SPDX-License-Identifier: Apache-2.0
// What a file says about text: its publisher's tokenizer and its chat template. Files are
// containers, GGUF files, and the tokenizer.json of a checkpoint.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "engine/text/chat_format.h"
#include "engine/text/tokenizer.h"
#include "kiv/zem2_reader.h"

namespace zemtool {

enum class TextSource : uint8_t { Container, Gguf, TokenizerJson };

// What the file is, by its first bytes. Container for all that is nothing else: opening it
// as one says what is wrong with it. Throws Failure when it cannot be read.
TextSource textSourceOf(const std::string& path);

// The tokenizer that a model's publisher describes.
struct ExactTokenizer {
  zem::text::Tokenizer tokenizer;
  std::string origin;  // "tokenizer.json" or "GGUF entries"

  std::string description() const { return "exact, of " + origin; }
};

// The one of the file; nothing for a container that carries none. Throws Failure when the
// file cannot be read, and for a tokenizer that is broken or not supported.
std::optional<ExactTokenizer> openExactTokenizer(const std::string& path);

// Likewise, of a container that is open. Throws Failure without the file's name.
std::optional<ExactTokenizer> exactTokenizerOf(const kiv::ZEM2Reader& reader);

// The chat template of a container or a GGUF file; empty when it has none. Throws Failure
// when the file cannot be read.
std::string chatTemplateOf(const std::string& path);

// Where a command takes its chat format from.
struct ChatFormatOptions {
  std::string model;         // a file with a template
  std::string templateFile;  // the template itself
  std::string name;          // of a format, in place of both
};

// Throws UsageError when no option is given, and Failure for a template that is missing,
// cannot be read, or is not known.
const zem::text::ChatFormat& chooseChatFormat(const ChatFormatOptions& options);

}  // namespace zemtool
