// SPDX-License-Identifier: Apache-2.0
/// \file
/// The prompt of a conversation, as the model family's chat template makes it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "engine/text/chat_format.h"
#include "engine/text/json.h"
#include "kiv/status.h"

namespace zem::text {

struct Message;

/// A run of a prompt.
///
/// A tokenizer looks for control tokens in runs that may hold them, and nowhere else. It
/// cuts text only there: between two control tokens, neighbouring runs are one text,
/// because a word may begin in one and end in the next.
struct Segment {
  std::string text;      ///< UTF-8, never empty
  bool control = false;  ///< may hold control tokens; false for what a client wrote
};

/// What a request asks of its prompt. As constructed: what the template does when only
/// messages and tools are given, with the reply opened.
struct RenderOptions {
  bool openReply = true;         ///< ends in an open turn of the assistant
  std::optional<bool> thinking;  ///< "enable_thinking"; none: the format decides
  std::optional<bool>
      preserveThinking;         ///< keep the think blocks of earlier turns; see ThinkHistory
  std::string reasoningEffort;  ///< of formats that know it; empty: the usual one
  bool numberMedia = false;     ///< "Picture 1: " before an image; the template's add_vision_id

  // Beyond the template.

  /// System and developer messages from anywhere become one leading system message,
  /// with an empty line between the texts. Otherwise they are errors, but for a system
  /// message that is the first.
  bool mergeSystem = false;
  /// A think block without text is left out of the conversation. A turn then looks the
  /// same before and after the next question.
  bool omitEmptyThinking = false;
  /// Text of messages and tools may hold control tokens, as in the published programs.
  /// A stranger's message can then end its turn and write others.
  bool trustText = false;
};

/// A prompt, and what the caller may want to know of it.
struct RenderedChat {
  std::vector<Segment> segments;  ///< in order; all joined are the prompt
  size_t systemSegments = 0;      ///< so many of them are the system turn; 0 without one
  size_t lastQuestion = 0;        ///< the segment with which the user's last question begins
  size_t images = 0;              ///< places for images
  size_t videos = 0;              ///< places for videos
  bool thinking = false;          ///< the reply begins inside a think block

  /// All segments as one text.
  std::string text() const;
};

/// Renders `messages` with `tools`, which are shown to the model. Fails for what the
/// template refuses: no message, no question of a user, a system message behind others
/// or with an image, a developer's message; and for an unknown reasoning effort. The
/// error names the message. `out` is empty then.
///
/// A tool's answer in front of all other messages has no `<|im_start|>user`: that is
/// the template's doing. Pure, any thread.
kiv::Status renderChat(const ChatFormat& format, const std::vector<Message>& messages,
                       const std::vector<Json>& tools, const RenderOptions& options,
                       RenderedChat& out);

}  // namespace zem::text
