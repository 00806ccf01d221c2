// SPDX-License-Identifier: Apache-2.0
// Paths that are answered without a reply of the model.
#include <utility>

#include "engine/text/chat_renderer.h"
#include "server/api_error.h"
#include "server/dialects/anthropic.h"
#include "server/dialects/completions.h"
#include "server/dialects/fields.h"
#include "server/dialects/ollama.h"
#include "server/dialects/openai_chat.h"
#include "server/page/page_files.h"
#include "server/service.h"

namespace zem::server {
namespace {

void replyJson(const std::shared_ptr<Exchange>& exchange, const Json& value, int status = 200) {
  exchange->reply({status, "application/json", {}, jsonText(value)});
}

std::vector<uint32_t> readIds(const Fields& fields, std::string_view name, uint32_t size) {
  const Json* list = fields.list(name);
  if (list == nullptr) fields.fail(name, "a list of ids");
  std::vector<uint32_t> ids;
  for (size_t i = 0; i < list->size(); ++i) {
    const Json& id = (*list)[i];
    if (!id.is_number_unsigned() || id.get<uint64_t>() >= size) {
      failField(fields.named(name) + "[" + std::to_string(i) + "]", &id,
                "an id below " + std::to_string(size));
    }
    ids.push_back(id.get<uint32_t>());
  }
  return ids;
}

Json openAiModel(const Engine& engine, const std::string& name, int64_t created) {
  const ModelFacts& model = engine.model();
  return {{"id", name},
          {"object", "model"},
          {"created", created},
          {"owned_by", "zem"},
          {"context_length", engine.context()},
          {"meta",
           {{"n_ctx", engine.context()},
            {"n_ctx_train", model.context},
            {"n_embd", model.width},
            {"n_vocab", engine.vocabulary().size()},
            {"n_params", model.parameters},
            {"size", model.weightBytes}}}};
}

Json ollamaDetails(const Engine& engine) {
  const double billions = static_cast<double>(engine.model().parameters) / 1e9;
  std::string size = jsonText(std::to_string(billions));
  size = size.substr(1, size.find('.') + 1) + "B";
  return {{"parent_model", ""},     {"format", "zem"},
          {"family", "qwen35"},     {"families", Json::array({"qwen35"})},
          {"parameter_size", size}, {"quantization_level", ""}};
}

}  // namespace

void Service::health(const HttpRequest& /*request*/, const Target& exchange) {
  const bool ends = transport_->draining();
  replyJson(exchange, {{"status", ends ? "draining" : "ok"}}, ends ? 503 : 200);
}

void Service::models(const HttpRequest& /*request*/, const Target& exchange) {
  replyJson(exchange,
            {{"object", "list"}, {"data", Json::array({openAiModel(engine_, name_, created_)})}});
}

void Service::oneModel(const HttpRequest& request, const Target& exchange) {
  if (request.path != "/v1/models/" + name_) {
    throw ApiError(404, "there is no such model; /v1/models lists them", "model",
                   "model_not_found");
  }
  replyJson(exchange, openAiModel(engine_, name_, created_));
}

void Service::tokenize(const HttpRequest& request, const Target& exchange) {
  const Json body = parseBody(request.body);
  const Fields fields(body);
  const auto content = fields.text("content");
  if (!content) fields.fail("content", "a text");
  const bool control = fields.flag("parse_special").value_or(true);
  std::vector<uint32_t> ids;
  require(engine_.vocabulary().encode(
      *content, control ? text::AddedTokens::Recognised : text::AddedTokens::AsText, ids));
  if (!fields.flag("with_pieces").value_or(false)) {
    return replyJson(exchange, {{"tokens", ids}});
  }
  Json tokens = Json::array();
  for (const uint32_t id : ids) {
    tokens.push_back({{"id", id}, {"piece", engine_.vocabulary().spellingOf(id)}});
  }
  replyJson(exchange, {{"tokens", std::move(tokens)}});
}

void Service::detokenize(const HttpRequest& request, const Target& exchange) {
  const Json body = parseBody(request.body);
  const auto ids = readIds(Fields(body), "tokens", engine_.vocabulary().size());
  std::string text;
  for (const uint32_t id : ids) {
    const std::string_view bytes = engine_.vocabulary().bytesOf(id);
    text += bytes.empty() ? engine_.vocabulary().spellingOf(id) : bytes;
  }
  replyJson(exchange, {{"content", text}});
}

void Service::applyTemplate(const HttpRequest& request, const Target& exchange) {
  const Json body = parseBody(request.body);
  const ChatRequest chat = readOpenAiChat(body).chat;
  const text::ChatFormat* format = engine_.chatFormat();
  if (format == nullptr) {
    throw ApiError(400, "the model's chat template is none of the known revisions");
  }
  const std::vector<Json> none;
  text::RenderedChat rendered;
  require(text::renderChat(*format, chat.messages,
                           chat.toolChoice == ToolChoice::None ? none : chat.tools, chat.format,
                           rendered));
  replyJson(exchange, {{"prompt", rendered.text()}});
}

void Service::metrics(const HttpRequest& /*request*/, const Target& exchange) {
  // A request with a body comes on another thread than the one that counts.
  exchange->post([this, exchange] {
    exchange->reply({200,
                     "text/plain; version=0.0.4",
                     {},
                     metrics_.text(engine_.load(), transport_->connections())});
  });
}

void Service::page(const HttpRequest& request, const Target& exchange) {
  const PageFile& file = *findPageFile(request.path);
  HttpReply reply{200, std::string(file.contentType), {}, {}};
  for (const PageHeader& header : pageHeaders()) {
    // Every answer has this one.
    if (header.name == "X-Content-Type-Options") continue;
    reply.headers.emplace_back(header.name, header.value);
  }
  reply.headers.emplace_back("etag", file.etag);
  reply.headers.emplace_back("vary", "accept-encoding");
  if (request.header("if-none-match") == file.etag) {
    reply.status = 304;
    reply.contentType.clear();
  } else if (request.header("accept-encoding").find("gzip") != std::string_view::npos) {
    reply.headers.emplace_back("content-encoding", "gzip");
    reply.body = file.gzip;
  } else {
    reply.body = file.bytes;
  }
  exchange->reply(std::move(reply));
}

void Service::countTokens(const HttpRequest& request, const Target& exchange) {
  const Json body = parseBody(request.body);
  const PreparedChat prepared = prepare(readAnthropic(body, true).chat, kAnthropicEffort);
  replyJson(exchange, {{"input_tokens", prepared.request.prompt.size()}});
}

void Service::ollamaTags(const HttpRequest& /*request*/, const Target& exchange) {
  const Json model = {{"name", name_},
                      {"model", name_},
                      {"modified_at", isoTime(created_)},
                      {"size", engine_.model().weightBytes},
                      {"digest", ""},
                      {"details", ollamaDetails(engine_)}};
  replyJson(exchange, {{"models", Json::array({model})}});
}

void Service::ollamaShow(const HttpRequest& request, const Target& exchange) {
  parseBody(request.body);
  replyJson(exchange, {{"modelfile", ""},
                       {"parameters", ""},
                       {"template", ""},
                       {"details", ollamaDetails(engine_)},
                       {"model_info",
                        {{"general.architecture", "qwen35"},
                         {"general.parameter_count", engine_.model().parameters},
                         {"qwen35.context_length", engine_.context()},
                         {"qwen35.embedding_length", engine_.model().width},
                         {"qwen35.block_count", engine_.model().layers}}},
                       {"capabilities", Json::array({"completion", "tools", "thinking"})}});
}

void Service::ollamaVersion(const HttpRequest& /*request*/, const Target& exchange) {
  replyJson(exchange, {{"version", ZEM_SERVER_VERSION}});
}

}  // namespace zem::server
