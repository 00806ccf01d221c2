// SPDX-License-Identifier: Apache-2.0
// Any bytes as the body of a request, in every dialect: a request, or an error of the client that
// says what is wrong.
#include <string>
#include <string_view>

#include "fuzz.h"
#include "server/api_error.h"
#include "server/dialects/anthropic.h"
#include "server/dialects/completions.h"
#include "server/dialects/fields.h"
#include "server/dialects/ollama.h"
#include "server/dialects/openai_chat.h"
#include "server/dialects/responses.h"

namespace {

using namespace zem::server;
using zemfuzz::require;

template <typename Read>
void tryRead(const Read& read) {
  try {
    read();
  } catch (const ApiError& error) {
    require(error.status == 400, "an error that is not the client's");
    require(!error.message.empty(), "an error without a message");
    const Json body = Json::parse(errorBody(Dialect::OpenAi, error), nullptr, false);
    require(body.is_object(), "an error whose body is not a JSON object");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Json body;
  tryRead([&] { body = parseBody(text); });
  if (!body.is_object()) return 0;
  tryRead([&] {
    const ChatCall call = readOpenAiChat(body);
    require(!call.chat.messages.empty(), "a chat without messages");
    require(call.form.choices >= 1 && call.form.choices <= kMostChoices, "a number of choices");
  });
  tryRead([&] {
    const CompletionCall call = readCompletion(body);
    require(!call.prompts.empty(), "a completion without prompts");
    require(call.form.choices % call.prompts.size() == 0, "choices that no prompt has");
  });
  tryRead([&] { require(!readAnthropic(body, true).chat.messages.empty(), "no messages"); });
  tryRead([&] { readOllamaChat(body); });
  tryRead([&] { readOllamaGenerate(body); });
  tryRead([&] { require(!readResponses(body).chat.messages.empty(), "no messages"); });
  return 0;
}
