// SPDX-License-Identifier: Apache-2.0
// Requests and answers of HTTP as plain values.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zem::server {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method;  // in capitals
  std::string path;    // of the target, before "?"; as it was sent, escapes included
  std::string query;   // behind "?"
  Headers headers;     // names in lower case
  std::string body;
  std::string peer;  // address of the client
  std::string id;    // of the request, in its answer as x-request-id

  // The first header of that name, in lower case; empty without one.
  std::string_view header(std::string_view name) const;
};

// An answer. Length, connection, date and x-request-id are the transport's.
struct HttpReply {
  int status = 200;
  std::string contentType = "application/json";  // empty: the answer has no body
  Headers headers;
  std::string body;
};

// "Not Found"; "Error" for a status that is not used here.
std::string_view reasonOf(int status);

}  // namespace zem::server
