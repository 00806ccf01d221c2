// SPDX-License-Identifier: Apache-2.0
// Requests that are made to confuse or to exhaust a server.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <thread>

#include "server/running_server.h"
#include "server/server.h"

namespace zem::server {
namespace {

using nlohmann::json;
using zemtest::ClosedEarly;
using zemtest::HttpAnswer;
using zemtest::HttpClient;
using zemtest::RunningServer;

constexpr const char* kChunked =
    "POST /tokenize HTTP/1.1\r\nhost: localhost\r\ntransfer-encoding: chunked\r\n\r\n";

// A proxy that knows the encoding would take what follows for the body: a request in it must not
// be answered.
TEST(HostileRequests, UnknownTransferEncodingsAreRefused) {
  const RunningServer server;
  for (const std::string encoding : {"gzip", "identity", "chunked, identity", "xchunked"}) {
    HttpClient client(server.port());
    client.send("POST /tokenize HTTP/1.1\r\nhost: localhost\r\ntransfer-encoding: " + encoding +
                "\r\n\r\n" + HttpClient::get("/health"));
    const HttpAnswer answer = client.read();
    EXPECT_EQ(answer.status, 400) << encoding;
    EXPECT_EQ(answer.headers.at("connection"), "close") << encoding;
    EXPECT_THROW(client.read(), ClosedEarly) << encoding << ": the body was answered";
  }
}

TEST(HostileRequests, AnEndlessChunkHeaderIsRefused) {
  const RunningServer server;
  HttpClient client(server.port());
  client.send(kChunked);
  client.send("1;" + std::string(size_t{1} << 20, 'x'));
  EXPECT_EQ(client.read().status, 431);
}

TEST(HostileRequests, AnEndlessTrailerIsRefused) {
  const RunningServer server;
  HttpClient client(server.port());
  client.send(kChunked);
  client.send("0\r\nx: " + std::string(size_t{1} << 20, 'x'));
  EXPECT_EQ(client.read().status, 431);
}

// The room for a body in pieces is reserved until its length is known.
TEST(HostileRequests, ShortBodiesInPiecesLeaveRoomForOthers) {
  ServerOptions options;
  options.transport.bodyBytes = 1000;
  options.transport.allBodyBytes = 2500;
  const RunningServer server({.sequences = 1}, options);
  json question = {{"prompt", "Once"}, {"max_tokens", 100000}};
  for (const uint32_t id : server.engine().vocabulary().endTokens()) {
    question["logit_bias"][std::to_string(id)] = false;
  }
  const std::string body = question.dump();
  std::array<char, 16> size{};
  std::snprintf(size.data(), size.size(), "%zx\r\n", body.size());
  HttpClient first(server.port());
  HttpClient second(server.port());
  for (const HttpClient* client : {&first, &second}) {
    client->send(
        "POST /v1/completions HTTP/1.1\r\nhost: localhost\r\n"
        "transfer-encoding: chunked\r\n\r\n" +
        (size.data() + body) + "\r\n0\r\n\r\n");
  }
  while (server.engine().load().running + server.engine().load().waiting < 2) {
    std::this_thread::yield();
  }
  const std::string text = R"({"content":"ab"})";
  HttpClient third(server.port());
  EXPECT_EQ(third.ask(kChunked + ("10\r\n" + text) + "\r\n0\r\n\r\n").status, 200);
}

}  // namespace
}  // namespace zem::server
