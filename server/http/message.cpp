// SPDX-License-Identifier: Apache-2.0
#include "server/http/message.h"

#include <algorithm>

namespace zem::server {

std::string_view HttpRequest::header(std::string_view name) const {
  const auto found =
      std::find_if(headers.begin(), headers.end(), [&](const auto& h) { return h.first == name; });
  return found == headers.end() ? std::string_view() : found->second;
}

std::string_view reasonOf(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 204:
      return "No Content";
    case 304:
      return "Not Modified";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 413:
      return "Content Too Large";
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    default:
      return "Error";
  }
}

}  // namespace zem::server
