// SPDX-License-Identifier: Apache-2.0
#include "server/http/answer_text.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace zem::server {
namespace {

// As HTTP writes it: "Sun, 06 Nov 1994 08:49:37 GMT".
std::string httpDate() {
  static constexpr std::array<const char*, 7> kDays = {"Sun", "Mon", "Tue", "Wed",
                                                       "Thu", "Fri", "Sat"};
  static constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::time_t now = std::time(nullptr);
  const std::tm* utc = std::gmtime(&now);
  if (utc == nullptr) return {};
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%s, %02d %s %04d %02d:%02d:%02d GMT",
                kDays[static_cast<size_t>(utc->tm_wday)], utc->tm_mday,
                kMonths[static_cast<size_t>(utc->tm_mon)], utc->tm_year + 1900, utc->tm_hour,
                utc->tm_min, utc->tm_sec);
  return text.data();
}

// Where a header would end early, a client could write headers of its own.
std::string oneLine(std::string text) {
  std::erase_if(text, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
  return text;
}

}  // namespace

std::string answerHead(const HttpReply& reply, std::string_view id, const AnswerFraming& framing) {
  std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " " +
                     std::string(reasonOf(reply.status)) + "\r\ndate: " + httpDate() + "\r\n";
  const auto add = [&](std::string_view name, std::string_view value) {
    text.append(name).append(": ").append(oneLine(std::string(value))).append("\r\n");
  };
  if (!reply.contentType.empty()) add("content-type", reply.contentType);
  for (const auto& [name, value] : reply.headers) add(name, value);
  add("x-request-id", id);
  if (framing.inPieces) add("transfer-encoding", "chunked");
  const bool bodiless = reply.status == 204 || reply.status == 304;
  if (framing.length && !bodiless) add("content-length", std::to_string(*framing.length));
  add("connection", framing.keepAlive ? "keep-alive" : "close");
  return text + "\r\n";
}

std::string pieceOf(std::string_view bytes) {
  std::array<char, 24> size{};
  std::snprintf(size.data(), size.size(), "%zx\r\n", bytes.size());
  return std::string(size.data()) + std::string(bytes) + "\r\n";
}

}  // namespace zem::server
