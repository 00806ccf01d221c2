// SPDX-License-Identifier: Apache-2.0
// JSON values as the text of answers and events.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "engine/text/json.h"

namespace zem::server {

using text::Json;

// On one line. Bytes that are not UTF-8 become U+FFFD.
std::string jsonText(const Json& value);
// An event of a stream: "data: ...", with a line "event: " in front where `name` is not empty.
std::string eventText(std::string_view name, const Json& value);

}  // namespace zem::server
