// SPDX-License-Identifier: Apache-2.0
/// \file
/// The revisions of the model family's chat template, as flags of one renderer.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zem::text {

/// Which think blocks of a conversation a prompt shows. Those behind the last question
/// of the user always are.
enum class ThinkHistory : uint8_t {
  LastTurn,         ///< no others
  AllWhenAsked,     ///< all when RenderOptions::preserveThinking is true
  AllUnlessRefused  ///< all unless it is false
};

/// One revision of the chat template.
struct ChatFormat {
  std::string_view name;  ///< by which people choose it
  bool thinksUnlessTold;  ///< thinking is on unless it is switched off; else the reverse
  ThinkHistory history;   ///< which think blocks stay
  bool splitsContent;     ///< `</think>` inside an assistant's content ends its reasoning
  bool omitsEmptySystem;  ///< a system message without text takes no turn
  bool jsonArguments;     ///< arguments but text as JSON; else as Python's str() has them
  bool knowsEffort;       ///< takes a reasoning effort
};

/// The revision with this name: qwen3.5, qwen3.5-small, qwen3.6 or qwen3.8. Null for
/// any other. Valid as long as the program runs, any thread.
const ChatFormat* chatFormatByName(std::string_view name);

/// The revision of a model's template, known by its SHA-256. Null for a text that is
/// not known; choose one by name then.
const ChatFormat* chatFormatOfTemplate(std::string_view text);

/// A text that chatFormatOfTemplate() does not know, for a message: "none of the known
/// revisions (SHA-256 a4aee8...)".
std::string describeUnknownTemplate(std::string_view text);

/// All names, for a message: "qwen3.5, qwen3.5-small, ...".
std::string chatFormatNames();

}  // namespace zem::text
