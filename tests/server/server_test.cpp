// SPDX-License-Identifier: Apache-2.0
// Connections, limits and who may ask, over real sockets.
#include "server/server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "server/running_server.h"

namespace zem::server {
namespace {

using nlohmann::json;
using zemtest::ClosedEarly;
using zemtest::HttpAnswer;
using zemtest::HttpClient;
using zemtest::RunningServer;
using Milliseconds = std::chrono::milliseconds;

json question(uint64_t tokens, const char* text = "Hello") {
  const json message = {{"role", "user"}, {"content", text}};
  return {{"messages", json::array({message})}, {"max_tokens", tokens}, {"temperature", 0}};
}

// A reply that only the end of the context ends.
json endless(const RunningServer& server, bool stream) {
  json body = question(100000);
  body["stream"] = stream;
  for (const uint32_t id : server.engine().vocabulary().endTokens()) {
    body["logit_bias"][std::to_string(id)] = false;
  }
  return body;
}

std::string errorOf(const HttpAnswer& answer) {
  return json::parse(answer.body).at("error").at("message");
}

const char* const kChat = "/v1/chat/completions";

TEST(Server, HealthAndModelsAnswerOnOneConnection) {
  const RunningServer server;
  HttpClient client(server.port());
  const HttpAnswer health = client.ask(HttpClient::get("/health"));
  EXPECT_EQ(health.status, 200);
  EXPECT_EQ(health.body, R"({"status":"ok"})");
  EXPECT_EQ(health.headers.at("content-type"), "application/json");
  EXPECT_EQ(health.headers.at("connection"), "keep-alive");
  const json models = json::parse(client.ask(HttpClient::get("/v1/models")).body);
  EXPECT_EQ(models.at("data")[0].at("id"), "tiny");
  EXPECT_EQ(models.at("data")[0].at("context_length"), 4096);
  EXPECT_EQ(client.ask(HttpClient::get("/v1/models/tiny")).status, 200);
  EXPECT_EQ(client.ask(HttpClient::get("/v1/models/other")).status, 404);
}

TEST(Server, EachAnswerHasAnIdOfItsOwn) {
  const RunningServer server;
  HttpClient client(server.port());
  const std::string first = client.ask(HttpClient::get("/health")).headers.at("x-request-id");
  EXPECT_NE(first, client.ask(HttpClient::get("/nothing")).headers.at("x-request-id"));
  EXPECT_GT(first.size(), 20U);
}

TEST(Server, RequestsInOnePacketAreAnsweredInOrder) {
  const RunningServer server;
  HttpClient client(server.port());
  client.send(HttpClient::get("/health") + HttpClient::post(kChat, question(3).dump()) +
              HttpClient::get("/nothing"));
  EXPECT_EQ(client.read().status, 200);
  const std::string reply = client.read().body;
  EXPECT_TRUE(json::parse(reply).contains("choices")) << reply;
  EXPECT_EQ(client.read().status, 404);
}

TEST(Server, RequestMayComeByteByByte) {
  const RunningServer server;
  HttpClient client(server.port());
  for (const char c : HttpClient::post("/tokenize", R"({"content":"ab"})")) {
    client.send(std::string(1, c));
  }
  EXPECT_EQ(client.read().status, 200);
}

TEST(Server, HeadHasNoBody) {
  const RunningServer server;
  HttpClient client(server.port());
  const HttpAnswer answer = client.ask("HEAD /health HTTP/1.1\r\nhost: localhost\r\n\r\n");
  EXPECT_EQ(answer.headers.at("content-length"), "15");
  EXPECT_EQ(client.ask(HttpClient::get("/health")).body.size(), 15U) << "and no byte too many";
}

TEST(Server, OldVersionGetsAStreamWithoutPieces) {
  const RunningServer server;
  HttpClient client(server.port());
  json body = question(3);
  body["stream"] = true;
  const std::string text = body.dump();
  HttpAnswer answer = client.ask(
      "POST /v1/chat/completions HTTP/1.0\r\nhost: localhost\r\n"
      "content-length: " +
      std::to_string(text.size()) + "\r\n\r\n" + text);
  EXPECT_EQ(answer.headers.count("transfer-encoding"), 0U);
  EXPECT_EQ(answer.headers.at("connection"), "close");
  EXPECT_TRUE(answer.body.ends_with("data: [DONE]\n\n"));
}

TEST(Server, ExpectationIsMet) {
  const RunningServer server;
  HttpClient client(server.port());
  client.send(
      "POST /tokenize HTTP/1.1\r\nhost: localhost\r\nexpect: 100-continue\r\n"
      "content-length: 16\r\n\r\n");
  EXPECT_EQ(client.readHead().status, 100);
  EXPECT_EQ(client.ask(R"({"content":"ab"})").status, 200);
}

TEST(Server, BodyMayComeInPieces) {
  const RunningServer server;
  HttpClient client(server.port());
  EXPECT_EQ(client
                .ask("POST /tokenize HTTP/1.1\r\nhost: localhost\r\n"
                     "transfer-encoding: chunked\r\n\r\n"
                     "8\r\n{\"conten\r\n8\r\nt\":\"ab\"}\r\n0\r\n\r\n")
                .status,
            200);
}

TEST(Server, WrongPathsAndMethodsAreToldApart) {
  const RunningServer server;
  EXPECT_EQ(server.get("/v1/nothing").status, 404);
  EXPECT_EQ(server.get("/../../etc/passwd").status, 404);
  EXPECT_EQ(server.get("/v1/models/").status, 404);
  const HttpAnswer wrong = server.get(kChat);
  EXPECT_EQ(wrong.status, 405);
  EXPECT_EQ(wrong.headers.at("allow"), "POST, OPTIONS");
  EXPECT_EQ(server.post("/health", json::object()).status, 405);
}

TEST(Server, ErrorsHaveTheFormOfTheDialect) {
  const RunningServer server;
  const auto askBroken = [&](const std::string& path) {
    return json::parse(HttpClient(server.port()).ask(HttpClient::post(path, "{")).body);
  };
  EXPECT_EQ(askBroken(kChat).at("error").at("type"), "invalid_request_error");
  EXPECT_EQ(askBroken("/v1/messages").at("type"), "error");
  EXPECT_TRUE(askBroken("/api/chat").at("error").is_string());
}

TEST(Server, WhatIsNoHttpIsRefused) {
  const RunningServer server;
  for (const std::string bad :
       {"nonsense\r\n\r\n", "GET /health\r\n\r\n", "GET /health HTTP/9.9\r\n\r\n",
        "GET /health HTTP/1.1\r\nno colon\r\n\r\n",
        "POST / HTTP/1.1\r\nhost: localhost\r\ncontent-length: -1\r\n\r\n"}) {
    HttpClient client(server.port());
    const HttpAnswer answer = client.ask(bad);
    EXPECT_EQ(answer.status, 400) << bad;
    EXPECT_EQ(answer.headers.at("connection"), "close");
    EXPECT_TRUE(client.isClosed());
  }
  EXPECT_EQ(server.get("/health").status, 200);
}

TEST(Server, LargeHeadersAndBodiesAreRefused) {
  ServerOptions options;
  options.transport.bodyBytes = 1000;
  const RunningServer server({}, options);
  EXPECT_EQ(server.get("/health", "x: " + std::string(15000, 'x') + "\r\n").status, 200);
  EXPECT_EQ(server.get("/health", "x: " + std::string(17000, 'x') + "\r\n").status, 431);
  const HttpAnswer large = server.post("/tokenize", {{"content", std::string(2000, 'x')}});
  EXPECT_EQ(large.status, 413);
  EXPECT_EQ(errorOf(large), "the body of a request may have 1000 bytes");
  HttpClient client(server.port());
  EXPECT_EQ(client
                .ask("POST /tokenize HTTP/1.1\r\nhost: localhost\r\n"
                     "transfer-encoding: chunked\r\n\r\n7d0\r\n" +
                     std::string(2000, 'x'))
                .status,
            413);
}

// Many clients read an answer when they have sent all of a body: no reset may come before.
TEST(Server, ABodyThatIsMuchTooLargeIsReadToItsEnd) {
  ServerOptions options;
  options.transport.bodyBytes = 1000;
  const RunningServer server({}, options);
  const std::string body(size_t{48} << 20, 'x');
  HttpClient client(server.port());
  EXPECT_TRUE(client.send(HttpClient::post("/tokenize", body)));
  EXPECT_EQ(client.read().status, 413);
}

TEST(Server, BodiesTogetherAreBounded) {
  ServerOptions options;
  options.transport.bodyBytes = 1000;
  options.transport.allBodyBytes = 1500;
  const RunningServer server({}, options);
  HttpClient first(server.port());
  first.send("POST /tokenize HTTP/1.1\r\nhost: localhost\r\ncontent-length: 900\r\n\r\n{");
  HttpClient second(server.port());
  HttpAnswer refused;
  // The first one's header may still be on its way.
  for (int i = 0; i < 1000 && refused.status != 503; ++i) {
    refused = server.post("/tokenize", {{"content", std::string(800, 'x')}});
  }
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.headers.at("retry-after"), "1");
  first.close();
  int status = 0;
  for (int i = 0; i < 1000 && status != 200; ++i) {
    status = server.post("/tokenize", {{"content", std::string(800, 'x')}}).status;
  }
  EXPECT_EQ(status, 200) << "the room is free again";
}

TEST(Server, SlowHeadersAndBodiesTimeOut) {
  ServerOptions options;
  options.transport.header = options.transport.body = Milliseconds(50);
  const RunningServer server({}, options);
  HttpClient header(server.port());
  const HttpAnswer late = header.ask("GET /health HTTP/1.1\r\nhost: loc");
  EXPECT_EQ(late.status, 408);
  EXPECT_EQ(errorOf(late), "the header of the request did not come in time");
  HttpClient body(server.port());
  EXPECT_EQ(
      body.ask("POST /tokenize HTTP/1.1\r\nhost: localhost\r\ncontent-length: 9\r\n\r\n{").status,
      408);
  EXPECT_TRUE(body.isClosed());
}

TEST(Server, IdleConnectionsAreClosed) {
  ServerOptions options;
  options.transport.idle = Milliseconds(50);
  const RunningServer server({}, options);
  HttpClient client(server.port());
  EXPECT_EQ(client.ask(HttpClient::get("/health")).status, 200);
  EXPECT_TRUE(client.isClosed());
}

TEST(Server, ConnectionsAreBounded) {
  ServerOptions options;
  options.transport.connections = 2;
  const RunningServer server({}, options);
  HttpClient first(server.port());
  HttpClient second(server.port());
  EXPECT_EQ(first.ask(HttpClient::get("/health")).status, 200);
  EXPECT_EQ(second.ask(HttpClient::get("/health")).status, 200);
  HttpClient third(server.port());
  EXPECT_EQ(third.ask(HttpClient::get("/health")).status, 503);
  EXPECT_TRUE(third.isClosed());
  third.close();
  first.close();
  int status = 0;
  for (int i = 0; i < 1000 && status != 200; ++i) status = server.get("/health").status;
  EXPECT_EQ(status, 200);
}

TEST(Server, StrangersPagesMayNotAsk) {
  const RunningServer server;
  const HttpAnswer own = server.get("/v1/models", "origin: http://localhost:3000\r\n");
  EXPECT_EQ(own.status, 200);
  EXPECT_EQ(own.headers.at("access-control-allow-origin"), "http://localhost:3000");
  for (const char* origin : {"https://localhost.evil.com", "http://evil.com", "null"}) {
    const HttpAnswer answer = server.get("/v1/models", "origin: " + std::string(origin) + "\r\n");
    EXPECT_EQ(answer.status, 403) << origin;
    EXPECT_EQ(answer.headers.count("access-control-allow-origin"), 0U);
  }
}

TEST(Server, HostHasToNameThisMachine) {
  const RunningServer server;
  HttpClient client(server.port());
  EXPECT_EQ(client.ask("GET /health HTTP/1.1\r\nhost: evil.com\r\n\r\n").status, 403);
  EXPECT_EQ(client.ask("GET /health HTTP/1.1\r\n\r\n").status, 403);
  EXPECT_EQ(client.ask("GET /health HTTP/1.1\r\nhost: 127.0.0.1:99\r\n\r\n").status, 200);
}

TEST(Server, TwoHostsAreRefused) {
  const RunningServer server;
  const HttpAnswer answer = server.get("/health", "host: elsewhere.example\r\n");
  EXPECT_EQ(answer.status, 400);
  EXPECT_EQ(errorOf(answer), "the header \"host\" comes twice");
}

TEST(Server, PreflightNeedsNoKeyAndRepeatsHeaders) {
  ServerOptions options;
  options.keys = {"secret"};
  options.origins = {"https://example.org"};
  const RunningServer server({}, options);
  HttpClient client(server.port());
  const HttpAnswer answer = client.ask(
      "OPTIONS /v1/chat/completions HTTP/1.1\r\nhost: localhost\r\n"
      "origin: https://example.org\r\naccess-control-request-method: POST\r\n"
      "access-control-request-headers: authorization, x-stainless-os\r\n\r\n");
  EXPECT_EQ(answer.status, 204);
  EXPECT_EQ(answer.headers.at("access-control-allow-origin"), "https://example.org");
  EXPECT_EQ(answer.headers.at("access-control-allow-headers"), "authorization, x-stainless-os");
}

TEST(Server, KeysGuardAllButWhatIsPublic) {
  ServerOptions options;
  options.keys = {"first", "second"};
  const RunningServer server({}, options);
  const auto statusWith = [&](const std::string& headers) {
    return server.post("/tokenize", {{"content", "x"}}, headers).status;
  };
  EXPECT_EQ(statusWith(""), 401);
  EXPECT_EQ(statusWith("authorization: Bearer wrong\r\n"), 401);
  EXPECT_EQ(statusWith("authorization: Bearer firs\r\n"), 401);
  EXPECT_EQ(statusWith("authorization: Bearer firstfirst\r\n"), 401);
  EXPECT_EQ(statusWith("authorization: Bearer second\r\n"), 200);
  EXPECT_EQ(statusWith("x-api-key: first\r\n"), 200);
  EXPECT_EQ(server.get("/metrics").status, 401);
  EXPECT_EQ(server.get("/health").status, 200);
  EXPECT_EQ(server.get("/v1/models").status, 200);
}

TEST(Server, AddressForOthersNeedsAKey) {
  const RunningServer running;
  ServerOptions options;
  options.transport.host = "0.0.0.0";
  options.transport.port = 0;
  std::unique_ptr<Server> server;
  const kiv::Status status = Server::open(running.engine(), options, server);
  EXPECT_EQ(status.code(), kiv::StatusCode::InvalidFormat);
  EXPECT_NE(status.message().find("there is no key"), std::string::npos) << status.message();
  options.keys = {""};
  EXPECT_FALSE(Server::open(running.engine(), options, server).ok());
  options.keys = {"secret"};
  EXPECT_TRUE(Server::open(running.engine(), options, server).ok());
  options.transport.host = "no such name";
  EXPECT_EQ(Server::open(running.engine(), options, server).code(), kiv::StatusCode::IOError);
}

TEST(Server, ClientThatLeavesFreesItsPlace) {
  const RunningServer server({.sequences = 1});
  for (const bool stream : {true, false}) {
    HttpClient client(server.port());
    client.send(HttpClient::post(kChat, endless(server, stream).dump()));
    while (server.engine().load().running == 0) std::this_thread::yield();
    client.close();
    server.waitForIdle();
  }
  EXPECT_EQ(server.metric("zem_replies_total{reason=\"cancelled\"}"), 2.0);
  EXPECT_EQ(server.post(kChat, question(3)).status, 200);
}

TEST(Server, ClientThatDoesNotReadIsCutOff) {
  ServerOptions options;
  options.transport.unreadBytes = 16 << 10;
  options.transport.sendBuffer = 16 << 10;
  const RunningServer server({.sequences = 1}, options);
  HttpClient client(server.port(), 4 << 10);
  json body = endless(server, true);
  body["logprobs"] = true;
  body["top_logprobs"] = 20;
  client.send(HttpClient::post(kChat, body.dump()));
  while (server.engine().load().running == 0) std::this_thread::yield();
  server.waitForIdle();
  EXPECT_EQ(server.metric("zem_replies_total{reason=\"cancelled\"}"), 1.0);
  EXPECT_TRUE(client.isClosed());
}

TEST(Server, ReplyThatTakesTooLongIsGivenUp) {
  ServerOptions options;
  options.timeout = Milliseconds(50);
  const RunningServer server({.sequences = 1}, options);
  const HttpAnswer whole = server.post(kChat, endless(server, false));
  EXPECT_EQ(whole.status, 408);
  EXPECT_EQ(whole.headers.at("x-should-retry"), "false");
  const std::vector<std::string> events =
      zemtest::eventsOf(server.post(kChat, endless(server, true)).body);
  EXPECT_EQ(json::parse(events.back()).at("error").at("code"), "timeout");
  server.waitForIdle();
}

TEST(Server, FullQueueSaysWhenToComeBack) {
  const RunningServer server({.sequences = 1, .waiting = 1});
  HttpClient runs(server.port());
  HttpClient waits(server.port());
  runs.send(HttpClient::post(kChat, endless(server, true).dump()));
  while (server.engine().load().running == 0) std::this_thread::yield();
  waits.send(HttpClient::post(kChat, endless(server, true).dump()));
  while (server.engine().load().waiting == 0) std::this_thread::yield();
  const HttpAnswer refused = server.post(kChat, question(3));
  EXPECT_EQ(refused.status, 429);
  EXPECT_EQ(refused.headers.at("retry-after"), "1");
  EXPECT_EQ(json::parse(refused.body).at("error").at("code"), "queue_full");
  EXPECT_EQ(server.get("/health").status, 200) << "while it is busy";
}

TEST(Server, DrainLetsRepliesEnd) {
  RunningServer server({.sequences = 2});
  HttpClient waiting(server.port());
  EXPECT_EQ(waiting.ask(HttpClient::get("/health")).status, 200);
  HttpClient running(server.port());
  json body = endless(server, true);
  body["max_tokens"] = 2000;
  running.send(HttpClient::post(kChat, body.dump()));
  EXPECT_EQ(running.readHead().status, 200);
  server.server().drain();
  int status = 200;
  while (status == 200) status = waiting.ask(HttpClient::get("/health")).status;
  EXPECT_EQ(status, 503);
  EXPECT_THROW(HttpClient(server.port()).ask(HttpClient::get("/health")), ClosedEarly);
  std::string text;
  for (std::string piece = running.readChunk(); !piece.empty(); piece = running.readChunk()) {
    text += piece;
  }
  EXPECT_TRUE(text.ends_with("data: [DONE]\n\n"));
  server.join();
}

TEST(Server, DrainEndsAtItsDeadline) {
  ServerOptions options;
  options.transport.drain = Milliseconds(50);
  RunningServer server({.sequences = 1}, options);
  HttpClient client(server.port());
  client.send(HttpClient::post(kChat, endless(server, true).dump()));
  EXPECT_EQ(client.readHead().status, 200);
  server.server().drain();
  server.join();
  EXPECT_TRUE(client.isClosed());
}

TEST(Server, StopCutsEverythingOff) {
  RunningServer server({.sequences = 1});
  std::vector<std::unique_ptr<HttpClient>> clients;
  for (int i = 0; i < 5; ++i) {
    clients.push_back(std::make_unique<HttpClient>(server.port()));
    clients.back()->send(HttpClient::post(kChat, endless(server, i % 2 == 0).dump()));
  }
  while (server.engine().load().running == 0) std::this_thread::yield();
  server.server().stop();
  server.join();
  for (const auto& client : clients) EXPECT_TRUE(client->isClosed());
}

TEST(Server, ManyClientsAreAllAnswered) {
  const RunningServer server({.sequences = 4, .waiting = 100});
  std::vector<std::thread> clients;
  std::vector<std::string> texts(64);
  for (size_t i = 0; i < texts.size(); ++i) {
    clients.emplace_back([&, i] {
      HttpClient client(server.port());
      const HttpAnswer answer = client.ask(HttpClient::post(kChat, question(8).dump()));
      texts[i] = json::parse(answer.body).at("choices")[0].at("message").dump();
    });
  }
  for (std::thread& client : clients) client.join();
  for (const std::string& text : texts) EXPECT_EQ(text, texts[0]);
}

TEST(Server, PageIsThereUnlessItIsLeftOut) {
  const RunningServer server;
  const HttpAnswer page = server.get("/");
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.headers.at("content-type"), "text/html; charset=utf-8");
  EXPECT_TRUE(page.headers.contains("Content-Security-Policy"));
  EXPECT_TRUE(page.body.starts_with("<!")) << page.body.substr(0, 40);
  const HttpAnswer packed = server.get("/", "accept-encoding: gzip, br\r\n");
  EXPECT_EQ(packed.headers.at("content-encoding"), "gzip");
  EXPECT_LT(packed.body.size(), page.body.size());
  EXPECT_EQ(server.get("/", "if-none-match: " + page.headers.at("etag") + "\r\n").status, 304);
  ServerOptions options;
  options.page = false;
  EXPECT_EQ(RunningServer({}, options).get("/").status, 404);
}

TEST(Server, LogHasALineForEachRequestAndNoSecret) {
  ServerOptions options;
  options.keys = {"secret"};
  RunningServer server({}, options);
  server.get("/health?key=secret", "authorization: Bearer secret\r\n");
  server.post("/tokenize", {{"content", "x"}}, "x-api-key: wrong\r\n");
  while (server.log().size() < 2) std::this_thread::yield();
  const std::vector<std::string> lines = server.log();
  EXPECT_NE(lines[0].find("127.0.0.1 GET /health 200 15 B"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("POST /tokenize 401"), std::string::npos) << lines[1];
  for (const std::string& line : lines) EXPECT_EQ(line.find("secret"), std::string::npos);
}

}  // namespace
}  // namespace zem::server
