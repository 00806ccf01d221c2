// SPDX-License-Identifier: Apache-2.0
#include "server/access_log.h"

#include <cmath>

#include "server/dialects/json_text.h"
#include "server/dialects/ollama.h"

namespace zem::server {
namespace {

std::string printable(std::string text) {
  for (char& c : text) {
    if (c <= ' ' || c > '~') c = '?';
  }
  return text;
}

}  // namespace

std::string accessLine(const AccessRecord& record, LogForm form, int64_t secondsSince1970) {
  const HttpRequest& request = *record.request;
  const double milliseconds = std::round(record.seconds * 1e4) / 10.0;
  if (form == LogForm::JsonLines) {
    return jsonText({{"time", isoTime(secondsSince1970)},
                     {"client", request.peer},
                     {"method", request.method},
                     {"path", request.path},
                     {"status", record.status},
                     {"bytes", record.bytes},
                     {"ms", milliseconds},
                     {"complete", record.whole},
                     {"request_id", request.id}});
  }
  std::string line = isoTime(secondsSince1970) + " " + printable(request.peer) + " " +
                     printable(request.method) + " " + printable(request.path) + " " +
                     std::to_string(record.status) + " " + std::to_string(record.bytes) + " B " +
                     jsonText(milliseconds) + " ms " + request.id;
  return record.whole ? line : line + " cut off";
}

}  // namespace zem::server
