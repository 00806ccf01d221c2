// SPDX-License-Identifier: Apache-2.0
#include "server/api_error.h"

#include "server/dialects/json_text.h"

namespace zem::server {
namespace {

std::string_view openAiType(int status) {
  switch (status) {
    case 401:
      return "authentication_error";
    case 403:
      return "permission_error";
    case 404:
      return "not_found_error";
    case 429:
      return "rate_limit_error";
    default:
      return status >= 500 ? "server_error" : "invalid_request_error";
  }
}

std::string_view anthropicType(int status) {
  switch (status) {
    case 401:
      return "authentication_error";
    case 403:
      return "permission_error";
    case 404:
      return "not_found_error";
    case 413:
      return "request_too_large";
    case 429:
      return "rate_limit_error";
    case 503:
      return "overloaded_error";
    default:
      return status >= 500 ? "api_error" : "invalid_request_error";
  }
}

Json openAiError(const ApiError& error) {
  const auto textOrNull = [](const std::string& text) {
    return text.empty() ? Json() : Json(text);
  };
  Json body = {{"message", error.message},
               {"type", openAiType(error.status)},
               {"param", textOrNull(error.field)},
               {"code", textOrNull(error.code)}};
  if (error.room) {
    body["n_prompt_tokens"] = error.room->prompt;
    body["n_ctx"] = error.room->context;
  }
  return {{"error", body}};
}

bool isMember(std::string_view text) {
  return !text.empty() && text.find(' ') == std::string_view::npos;
}

}  // namespace

Dialect dialectOf(std::string_view path) {
  if (path.starts_with("/api/")) return Dialect::Ollama;
  const bool messages = path == "/v1/messages" || path.starts_with("/v1/messages/");
  return messages ? Dialect::Anthropic : Dialect::OpenAi;
}

void require(const kiv::Status& status) {
  if (status.ok()) return;
  const std::string& message = status.message();
  const std::string member = message.substr(0, message.find(": "));
  const bool named = member.size() < message.size() && isMember(member);
  throw ApiError(400, message, named ? member : std::string());
}

ApiError ApiError::ofRoom(Room found) {
  ApiError error(400,
                 "the prompt has " + std::to_string(found.prompt) +
                     " tokens, and the context has room for " + std::to_string(found.context) +
                     "; make the conversation shorter",
                 "messages", "context_length_exceeded");
  error.room = found;
  return error;
}

std::string errorBody(Dialect dialect, const ApiError& error) {
  switch (dialect) {
    case Dialect::Anthropic:
      return jsonText(
          {{"type", "error"},
           {"error", {{"type", anthropicType(error.status)}, {"message", error.message}}}});
    case Dialect::Ollama:
      return jsonText({{"error", error.message}});
    default:
      return jsonText(openAiError(error));
  }
}

HttpReply errorReply(Dialect dialect, const ApiError& error) {
  HttpReply reply{error.status, "application/json", {}, errorBody(dialect, error)};
  if (error.status == 401) reply.headers.emplace_back("www-authenticate", "Bearer");
  if (error.status == 429 || error.status == 503) reply.headers.emplace_back("retry-after", "1");
  return reply;
}

}  // namespace zem::server
