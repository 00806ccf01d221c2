// SPDX-License-Identifier: Apache-2.0
// Errors of requests, and the form that each dialect gives them.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kiv/status.h"
#include "server/http/message.h"

namespace zem::server {

// The form of requests and answers.
enum class Dialect : uint8_t { OpenAi, Anthropic, Ollama };

// The dialect of a path; OpenAi for those that belong to none.
Dialect dialectOf(std::string_view path);

// A failure, thrown by what reads requests. `field` is the member at fault, "messages[2].content".
class ApiError : public std::exception {
 public:
  ApiError(int statusCode, std::string text, std::string member = {}, std::string errorCode = {})
      : status(statusCode),
        message(std::move(text)),
        field(std::move(member)),
        code(std::move(errorCode)) {}
  const char* what() const noexcept override { return message.c_str(); }

  int status;           // of HTTP
  std::string message;  // for people
  std::string field;
  std::string code;  // for programs, "context_length_exceeded"
  struct Room {
    size_t prompt;   // tokens
    size_t context;  // tokens
  };
  // A prompt that does not fit.
  static ApiError ofRoom(Room found);
  std::optional<Room> room;  // of a prompt that does not fit
};

// Throws the failure as one of the request: 400. A message that begins with a member,
// "messages[2].role: found ...", has it as the field.
void require(const kiv::Status& status);

// The body of an answer in the dialect's form.
std::string errorBody(Dialect dialect, const ApiError& error);
// The whole answer. 429 and 503 ask to come back in a second.
HttpReply errorReply(Dialect dialect, const ApiError& error);

}  // namespace zem::server
