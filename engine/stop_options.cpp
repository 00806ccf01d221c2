// SPDX-License-Identifier: Apache-2.0
#include "engine/stop_options.h"

#include "engine/text/unicode/utf8.h"

namespace zem {
namespace {

constexpr size_t kMostStopTexts = 64;
constexpr size_t kLongestStopText = 4096;

std::string faultOf(const std::string& text) {
  if (text.empty()) return "found an empty text, needed a character or more";
  if (text.size() > kLongestStopText) {
    return "found " + std::to_string(text.size()) + " bytes, needed at most " +
           std::to_string(kLongestStopText);
  }
  const size_t wellFormed = text::wellFormedLength(text);
  if (wellFormed == text.size()) return {};
  return "found bytes that are no UTF-8 at offset " + std::to_string(wellFormed) + ", needed UTF-8";
}

}  // namespace

std::string_view nameOf(EndReason reason) {
  switch (reason) {
    case EndReason::Stop:
      return "stop";
    case EndReason::StopText:
      return "stop_text";
    case EndReason::Length:
      return "length";
    case EndReason::Context:
      return "context";
    case EndReason::Cancelled:
      return "cancelled";
    case EndReason::Error:
      break;
  }
  return "error";
}

kiv::Status validate(const StopOptions& options) {
  const size_t count = options.stopTexts.size();
  if (count > kMostStopTexts) {
    return kiv::invalidFormat("stop texts: found " + std::to_string(count) + ", needed at most " +
                              std::to_string(kMostStopTexts));
  }
  for (size_t i = 0; i < count; ++i) {
    const std::string fault = faultOf(options.stopTexts[i]);
    if (fault.empty()) continue;
    return kiv::invalidFormat("stop text " + std::to_string(i + 1) + ": " + fault);
  }
  return {};
}

}  // namespace zem
