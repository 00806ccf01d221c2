// SPDX-License-Identifier: Apache-2.0
// Answers as bytes of HTTP/1.1.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "server/http/message.h"

namespace zem::server {

// How a client finds the end of an answer.
struct AnswerFraming {
  std::optional<size_t> length;  // of the body, where it is known
  bool inPieces = false;         // it is not known, and the body comes in pieces
  bool keepAlive = true;         // the connection stays open behind it
};

// The header of `reply`, with the date and the id of its request. One thread at a time.
std::string answerHead(const HttpReply& reply, std::string_view id, const AnswerFraming& framing);

// A piece of a body; its end is an empty one.
std::string pieceOf(std::string_view bytes);
inline constexpr std::string_view kLastPiece = "0\r\n\r\n";

}  // namespace zem::server
