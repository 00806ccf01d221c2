// SPDX-License-Identifier: Apache-2.0
// Paths that are answered with a reply of the model.
#include <ctime>
#include <utility>

#include "server/api_error.h"
#include "server/dialects/anthropic.h"
#include "server/dialects/completions.h"
#include "server/dialects/fields.h"
#include "server/dialects/ollama.h"
#include "server/dialects/openai_chat.h"
#include "server/dialects/responses.h"
#include "server/http/random_id.h"
#include "server/service.h"

namespace zem::server {
namespace {

// As require(); what the chat calls "reasoning_effort" has the name `effort`.
void requireChat(const kiv::Status& status, std::string_view effort) {
  constexpr std::string_view kEffort = "reasoning_effort: ";
  try {
    require(status);
  } catch (ApiError& error) {
    if (error.message.starts_with(kEffort)) {
      error.field = effort;
      error.message = error.field + ": " + error.message.substr(kEffort.size());
    }
    throw;
  }
}

}  // namespace

void Service::checkRoom(size_t promptTokens) const {
  if (promptTokens < engine_.context()) return;
  throw ApiError::ofRoom({promptTokens, engine_.context()});
}

PreparedChat Service::prepare(const ChatRequest& chat, std::string_view effort) const {
  PreparedChat prepared;
  requireChat(prepareChat(engine_, chat, prepared), effort);
  checkRoom(prepared.request.prompt.size());
  return prepared;
}

ReplyFacts Service::facts(std::string_view prefix, size_t promptTokens) const {
  return {randomId(prefix), name_, std::time(nullptr), promptTokens};
}

GenerationPlan Service::plan(const PreparedChat& prepared, size_t choices, bool stream,
                             Dialect dialect) const {
  GenerationPlan plan;
  plan.choices.assign(choices, prepared);
  // The same request again gives the same choices.
  std::optional<uint64_t> seed = prepared.request.sampling.seed;
  for (PreparedChat& choice : plan.choices) {
    choice.request.sampling.seed = seed;
    if (seed) ++*seed;
  }
  plan.stream = stream;
  plan.dialect = dialect;
  plan.timeout = options_.timeout;
  return plan;
}

void Service::begin(const Target& exchange, GenerationPlan plan) {
  startGeneration(engine_, metrics_, exchange, std::move(plan));
}

void Service::chat(const HttpRequest& request, const Target& exchange) {
  const ChatCall call = readOpenAiChat(parseBody(request.body));
  const PreparedChat prepared = prepare(call.chat);
  GenerationPlan next = plan(prepared, call.form.choices, call.form.stream, Dialect::OpenAi);
  next.writer = makeOpenAiChatWriter(facts("chatcmpl-", prepared.request.prompt.size()), call.form);
  begin(exchange, std::move(next));
}

void Service::completions(const HttpRequest& request, const Target& exchange) {
  const CompletionCall call = readCompletion(parseBody(request.body));
  GenerationPlan next;
  next.stream = call.form.stream;
  next.dialect = Dialect::OpenAi;
  replyRaw(call, std::move(next), nullptr, exchange);
}

void Service::replyRaw(const CompletionCall& call, GenerationPlan plan,
                       std::unique_ptr<ReplyWriter> writer, const Target& exchange) {
  plan.raw = true;
  plan.timeout = options_.timeout;
  std::vector<std::string> echoes;
  const size_t perPrompt = call.form.choices / call.prompts.size();
  for (const RawPrompt& prompt : call.prompts) {
    PreparedChat prepared;
    Request& request = prepared.request;
    require(encodePrompt(engine_.vocabulary(), prompt, request.prompt));
    if (request.prompt.empty()) throw ApiError(400, "prompt: found none, needed a text", "prompt");
    checkRoom(request.prompt.size());
    request.sampling = call.sampling.over(engine_.defaultSampling(false));
    request.stops = {engine_.vocabulary().endTokens(), call.stopTexts, call.maxTokens};
    request.logProbabilities = call.logProbabilities;
    if (call.form.echo) echoes.push_back(textOf(engine_.vocabulary(), request.prompt));
    const GenerationPlan some = this->plan(prepared, perPrompt, plan.stream, plan.dialect);
    plan.choices.insert(plan.choices.end(), some.choices.begin(), some.choices.end());
  }
  plan.writer = writer != nullptr
                    ? std::move(writer)
                    : makeCompletionWriter(facts("cmpl-", 0), call, std::move(echoes));
  begin(exchange, std::move(plan));
}

void Service::responses(const HttpRequest& request, const Target& exchange) {
  ResponsesCall call = readResponses(parseBody(request.body));
  const PreparedChat prepared = prepare(call.chat, "reasoning.effort");
  GenerationPlan next = plan(prepared, 1, call.stream, Dialect::OpenAi);
  next.writer =
      makeResponsesWriter(facts("resp_", prepared.request.prompt.size()), std::move(call.echo));
  begin(exchange, std::move(next));
}

void Service::messages(const HttpRequest& request, const Target& exchange) {
  const AnthropicCall call = readAnthropic(parseBody(request.body), false);
  const PreparedChat prepared = prepare(call.chat, kAnthropicEffort);
  GenerationPlan next = plan(prepared, 1, call.stream, Dialect::Anthropic);
  next.writer =
      makeAnthropicWriter(facts("msg_", prepared.request.prompt.size()), call.chat.stopTexts);
  begin(exchange, std::move(next));
}

void Service::ollamaChat(const HttpRequest& request, const Target& exchange) {
  replyOllama(readOllamaChat(parseBody(request.body)), exchange);
}

void Service::ollamaGenerate(const HttpRequest& request, const Target& exchange) {
  replyOllama(readOllamaGenerate(parseBody(request.body)), exchange);
}

void Service::replyOllama(OllamaCall call, const Target& exchange) {
  const ReplyFacts about = facts("", 0);
  if (call.loads) {
    return exchange->reply({200, "application/json", {}, ollamaLoaded(about, call.generates)});
  }
  auto writer = makeOllamaWriter(about, call.generates);
  if (call.raw) {
    GenerationPlan next;
    next.stream = call.stream;
    next.dialect = Dialect::Ollama;
    return replyRaw(*call.raw, std::move(next), std::move(writer), exchange);
  }
  GenerationPlan next = plan(prepare(call.chat, "think"), 1, call.stream, Dialect::Ollama);
  next.writer = std::move(writer);
  begin(exchange, std::move(next));
}

}  // namespace zem::server
