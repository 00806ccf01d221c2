// SPDX-License-Identifier: Apache-2.0
#include "server/service.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "server/api_error.h"
#include "server/page/page_files.h"
#include "server/safety.h"

namespace zem::server {
namespace {

bool drainsWith(std::string_view path) { return path == "/health" || path == "/metrics"; }

HttpReply forbidden(const HttpRequest& head, const char* message) {
  return errorReply(dialectOf(head.path), ApiError(403, message));
}

std::string_view readAs(std::string_view method) { return method == "HEAD" ? "GET" : method; }

}  // namespace

Service::Service(Engine& engine, const ServerOptions& options)
    : engine_(engine),
      options_(options),
      name_(options.name.empty() ? engine.model().name : options.name),
      created_(std::time(nullptr)) {}

std::span<const Service::Route> Service::routes() {
  static constexpr std::array<Route, 18> kRoutes = {{
      {"GET", "/health", true, &Service::health},
      {"GET", "/v1/models", true, &Service::models},
      {"GET", "/v1/models/", true, &Service::oneModel},
      {"GET", "/metrics", false, &Service::metrics},
      {"POST", "/tokenize", false, &Service::tokenize},
      {"POST", "/detokenize", false, &Service::detokenize},
      {"POST", "/apply-template", false, &Service::applyTemplate},
      {"POST", "/v1/chat/completions", false, &Service::chat},
      {"POST", "/v1/completions", false, &Service::completions},
      {"POST", "/v1/responses", false, &Service::responses},
      {"POST", "/v1/messages", false, &Service::messages},
      {"POST", "/v1/messages/count_tokens", false, &Service::countTokens},
      {"POST", "/api/chat", false, &Service::ollamaChat},
      {"POST", "/api/generate", false, &Service::ollamaGenerate},
      {"POST", "/api/show", false, &Service::ollamaShow},
      {"GET", "/api/tags", true, &Service::ollamaTags},
      {"GET", "/api/version", true, &Service::ollamaVersion},
      {"GET", "/*", true, &Service::page},
  }};
  return kRoutes;
}

// A path that ends with "/" takes what lies below it; "/*" stands for the files of the page.
const Service::Route* Service::find(std::string_view method, std::string_view path) const {
  const auto all = routes();
  const auto found = std::find_if(all.begin(), all.end(), [&](const Route& route) {
    if (route.answer == &Service::metrics && !options_.metrics) return false;
    if (route.method != method) return false;
    if (route.path == "/*") return options_.page && findPageFile(path) != nullptr;
    const bool below = route.path.ends_with('/');
    return below ? path.size() > route.path.size() && path.starts_with(route.path)
                 : path == route.path;
  });
  return found == all.end() ? nullptr : &*found;
}

bool Service::knowsPath(std::string_view path) const {
  return find("GET", path) != nullptr || find("POST", path) != nullptr;
}

std::optional<HttpReply> Service::checkHead(const HttpRequest& head) {
  if (auto refusal = checkHosts(head)) return refusal;
  if (auto refusal = checkClient(head)) return refusal;
  if (head.method == "OPTIONS") return preflight(head);
  return checkRoute(head);
}

// What reads the request before this server may have looked at the other one.
std::optional<HttpReply> Service::checkHosts(const HttpRequest& head) {
  const auto hosts = std::count_if(head.headers.begin(), head.headers.end(),
                                   [](const auto& header) { return header.first == "host"; });
  if (hosts < 2) return std::nullopt;
  return errorReply(dialectOf(head.path), ApiError(400, "the header \"host\" comes twice"));
}

// Whether a browser of a stranger's page asks.
std::optional<HttpReply> Service::checkClient(const HttpRequest& head) const {
  const std::string_view host = head.header("host");
  if (transport_->isLoopback() && !namesThisMachine(host, options_.hosts)) {
    return forbidden(head, "the header \"host\" does not name this machine; use localhost");
  }
  const std::string_view origin = head.header("origin");
  if (origin.empty() || mayAsk(origin, host, options_.origins)) return std::nullopt;
  return forbidden(head, "pages of this origin may not ask; the option --cors allows them");
}

std::optional<HttpReply> Service::checkRoute(const HttpRequest& head) const {
  const Dialect dialect = dialectOf(head.path);
  const Route* route = find(readAs(head.method), head.path);
  if (route == nullptr && knowsPath(head.path)) {
    const bool reads = find("GET", head.path) != nullptr;
    HttpReply reply = errorReply(
        dialect, ApiError(405, std::string("this path needs ") + (reads ? "GET" : "POST")));
    reply.headers.emplace_back("allow", reads ? "GET, HEAD, OPTIONS" : "POST, OPTIONS");
    return reply;
  }
  if (route == nullptr) {
    return errorReply(dialect, ApiError(404, "there is nothing at this path"));
  }
  const std::string_view key = keyOf(head.header("authorization"), head.header("x-api-key"));
  if (!options_.keys.empty() && !route->isPublic && !isKnownKey(key, options_.keys)) {
    return errorReply(dialect, ApiError(401,
                                        key.empty() ? "a key is needed: Authorization: Bearer KEY"
                                                    : "the key is not known",
                                        {}, "invalid_api_key"));
  }
  if (transport_->draining() && !drainsWith(head.path)) {
    return errorReply(dialect, ApiError(503, "the server ends"));
  }
  return std::nullopt;
}

HttpReply Service::preflight(const HttpRequest& head) {
  HttpReply reply{204, "", {}, {}};
  reply.headers.emplace_back("access-control-allow-methods", "GET, POST, OPTIONS");
  const std::string_view wanted = head.header("access-control-request-headers");
  if (!wanted.empty()) reply.headers.emplace_back("access-control-allow-headers", wanted);
  reply.headers.emplace_back("access-control-max-age", "600");
  return reply;
}

void Service::handle(HttpRequest request, std::shared_ptr<Exchange> exchange) {
  const Route* route = find(readAs(request.method), request.path);
  const Dialect dialect = dialectOf(request.path);
  try {
    (this->*route->answer)(request, exchange);
  } catch (const ApiError& error) {
    exchange->reply(errorReply(dialect, error));
  } catch (const std::bad_alloc&) {
    exchange->reply(errorReply(dialect, ApiError(503, "out of memory, try again later")));
  }
}

HttpReply Service::problem(const HttpRequest& head, int status, const std::string& message) {
  HttpReply reply = errorReply(dialectOf(head.path), ApiError(status, message));
  return reply;
}

void Service::finishHead(const HttpRequest& head, HttpReply& reply) {
  reply.headers.emplace_back("x-content-type-options", "nosniff");
  const std::string_view origin = head.header("origin");
  if (origin.empty()) return;
  reply.headers.emplace_back("vary", "origin");
  if (!mayAsk(origin, head.header("host"), options_.origins)) return;
  reply.headers.emplace_back("access-control-allow-origin", origin);
  reply.headers.emplace_back("access-control-expose-headers", "x-request-id, retry-after");
}

void Service::log(const AccessRecord& record) {
  metrics_.countAnswer(record.status);
  if (options_.log) options_.log(accessLine(record, options_.logForm, std::time(nullptr)));
}

}  // namespace zem::server
