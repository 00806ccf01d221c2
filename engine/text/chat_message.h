// SPDX-License-Identifier: Apache-2.0
/// \file
/// The messages and tools of a chat request.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/json.h"
#include "kiv/status.h"

namespace zem::text {

/// Who speaks in a message.
enum class Role : uint8_t { System, Developer, User, Assistant, Tool };

/// "system", "developer", ...
std::string_view nameOf(Role role);

/// A piece of a message.
struct ContentPart {
  /// An image or a video has a place in the prompt and nothing else.
  enum class Kind : uint8_t { Text, Image, Video };
  Kind kind = Kind::Text;  ///< what it is
  std::string text;        ///< UTF-8; empty for an image or a video
};

/// A function that the assistant called.
struct ToolCall {
  std::string name;                 ///< of the function
  Json arguments = Json::object();  ///< name to value, in the order in which they are shown
};

/// One message of a conversation.
struct Message {
  Role role = Role::User;                ///< whose message it is
  std::vector<ContentPart> content;      ///< shown one after the other
  std::optional<std::string> reasoning;  ///< of an assistant; none: it may be inside the content
  std::vector<ToolCall> calls;           ///< of an assistant
};

/// Reads the list "messages" of a request. A message is an object with
///
/// - `role`: system, developer, user, assistant or tool;
/// - `content`: text, null, or a list of parts: objects with `text`, or with `image`,
///   `image_url`, `video` or such a `type`;
/// - of an assistant `reasoning_content`: text or null; and `tool_calls`: a list of
///   objects with `name` and `arguments`, or with these inside `function`. Arguments
///   are an object, or JSON text of one; null and empty text stand for none.
///
/// Other members are ignored. Fails with the message's index, the member, and what was
/// found there: "messages[2].content: found a number, expected ...". Any thread.
kiv::Status readMessages(const Json& messages, std::vector<Message>& out);

/// Reads the list "tools" of a request, or null for none: objects, which are shown to
/// the model as they are. Fails like readMessages().
kiv::Status readTools(const Json& tools, std::vector<Json>& out);

}  // namespace zem::text
