// SPDX-License-Identifier: Apache-2.0
/// \file
/// What Python makes of text and of JSON: the chat templates of the model family are
/// run by Python, so prompts have its spelling.
#pragma once

#include <string>
#include <string_view>

#include "engine/text/json.h"

namespace zem::text {

/// json.dumps(value, ensure_ascii=False): ", " and ": " between, 1.0 and 1e+16 as
/// Python writes them. Recursive: see kMaxJsonDepth.
std::string pythonJson(const Json& value);

/// One string of pythonJson(), with its quotation marks.
std::string quotedJson(std::string_view text);

/// quotedJson() of the beginning of `text`, for a message: at most 80 bytes of whole
/// characters.
std::string quotedStart(std::string_view text);

/// The inside of quotedJson(text).
void appendEscaped(std::string_view text, std::string& out);

/// str(value): text as it is, True, False, None; lists and objects as pythonJson().
std::string pythonText(const Json& value);

/// text.strip(): without blanks at both ends. Blanks are the 29 characters that Python
/// counts as such, non-breaking and ideographic spaces among them.
std::string_view pythonStrip(std::string_view text);

}  // namespace zem::text
