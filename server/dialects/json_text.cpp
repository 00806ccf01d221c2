// SPDX-License-Identifier: Apache-2.0
#include "server/dialects/json_text.h"

namespace zem::server {

std::string jsonText(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string eventText(std::string_view name, const Json& value) {
  std::string text;
  if (!name.empty()) text.append("event: ").append(name).append("\n");
  return text + "data: " + jsonText(value) + "\n\n";
}

}  // namespace zem::server
