// SPDX-License-Identifier: Apache-2.0
// What is at which path, and who may ask for it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "server/generation.h"
#include "server/http/transport.h"
#include "server/metrics.h"
#include "server/server.h"

namespace zem::server {

// Answers requests with the engine's replies. The transport is set before it runs.
class Service : public Handler {
 public:
  Service(Engine& engine, const ServerOptions& options);

  void setTransport(const Transport& transport) { transport_ = &transport; }
  const std::string& name() const { return name_; }

  std::optional<HttpReply> checkHead(const HttpRequest& head) override;
  void handle(HttpRequest request, std::shared_ptr<Exchange> exchange) override;
  HttpReply problem(const HttpRequest& head, int status, const std::string& message) override;
  void finishHead(const HttpRequest& head, HttpReply& reply) override;
  void log(const AccessRecord& record) override;

 private:
  using Target = std::shared_ptr<Exchange>;
  using Answer = void (Service::*)(const HttpRequest&, const Target&);
  struct Route {
    std::string_view method;
    std::string_view path;
    bool isPublic;  // needs no key
    Answer answer;
  };

  static std::span<const Route> routes();
  const Route* find(std::string_view method, std::string_view path) const;
  bool knowsPath(std::string_view path) const;
  static std::optional<HttpReply> checkHosts(const HttpRequest& head);
  std::optional<HttpReply> checkClient(const HttpRequest& head) const;
  std::optional<HttpReply> checkRoute(const HttpRequest& head) const;
  static HttpReply preflight(const HttpRequest& head);

  // Helpers
  void health(const HttpRequest& request, const Target& exchange);
  void models(const HttpRequest& request, const Target& exchange);
  void oneModel(const HttpRequest& request, const Target& exchange);
  void tokenize(const HttpRequest& request, const Target& exchange);
  void detokenize(const HttpRequest& request, const Target& exchange);
  void applyTemplate(const HttpRequest& request, const Target& exchange);
  void metrics(const HttpRequest& request, const Target& exchange);
  void page(const HttpRequest& request, const Target& exchange);
  // Replies
  void chat(const HttpRequest& request, const Target& exchange);
  void completions(const HttpRequest& request, const Target& exchange);
  void responses(const HttpRequest& request, const Target& exchange);
  void messages(const HttpRequest& request, const Target& exchange);
  void countTokens(const HttpRequest& request, const Target& exchange);
  void ollamaChat(const HttpRequest& request, const Target& exchange);
  void ollamaGenerate(const HttpRequest& request, const Target& exchange);
  void ollamaTags(const HttpRequest& request, const Target& exchange);
  void ollamaShow(const HttpRequest& request, const Target& exchange);
  void ollamaVersion(const HttpRequest& request, const Target& exchange);

  void replyOllama(struct OllamaCall call, const Target& exchange);
  void replyRaw(const struct CompletionCall& call, GenerationPlan plan,
                std::unique_ptr<ReplyWriter> writer, const Target& exchange);
  // `effort` is the dialect's name of the member with the reasoning effort.
  PreparedChat prepare(const ChatRequest& chat, std::string_view effort = "reasoning_effort") const;
  void checkRoom(size_t promptTokens) const;
  ReplyFacts facts(std::string_view prefix, size_t promptTokens) const;
  GenerationPlan plan(const PreparedChat& prepared, size_t choices, bool stream,
                      Dialect dialect) const;
  void begin(const Target& exchange, GenerationPlan plan);

  Engine& engine_;
  ServerOptions options_;
  std::string name_;
  int64_t created_;
  const Transport* transport_ = nullptr;
  Metrics metrics_;  // of the thread of input and output
};

}  // namespace zem::server
