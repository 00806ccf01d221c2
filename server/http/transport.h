// SPDX-License-Identifier: Apache-2.0
// Connections of HTTP/1.1: what comes in within limits, what goes out, and who has left. One
// thread does all input and output, a few others the work of requests with a body.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kiv/status.h"
#include "server/http/message.h"

namespace zem::server {

struct TransportOptions {
  using Time = std::chrono::milliseconds;

  std::string host = "127.0.0.1";           // an address, or a name that has one
  uint16_t port = 8080;                     // 0: any free one
  size_t connections = 256;                 // at the same time; further ones are told 503
  uint32_t headerBytes = 16 << 10;          // of a request; 431 beyond
  size_t bodyBytes = size_t{32} << 20;      // of a request; 413 beyond
  size_t allBodyBytes = size_t{128} << 20;  // of all requests that run; 503 beyond
  size_t unreadBytes = size_t{1} << 20;  // of a stream that its client has not read; it ends beyond
  int sendBuffer = 256 << 10;            // of the system, for each connection; 0: the system's
  size_t workers = 2;                    // threads for requests with a body
  Time idle{75'000};                     // until a connection without a request is closed
  Time header{10'000};                   // for the header of a request; 408 beyond
  Time body{60'000};                     // for its body; 408 beyond
  Time stall{60'000};                    // in which a client has to read something
  Time ping{15'000};                     // of silence in a stream, until a ping goes out
  Time drain{30'000};                    // for requests that run when the server is to end
};

// One request and its answer. Any thread may call. When the last reference goes
// and there is no answer, the client gets 500. Calls after the client has gone do nothing.
class Exchange {
 public:
  Exchange() = default;
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  virtual ~Exchange() = default;

  // Runs `work` on the thread of input and output, in the order of the calls; soon, and always.
  virtual void post(std::function<void()> work) = 0;
  // The whole answer.
  virtual void reply(HttpReply reply) = 0;
  // The beginning of an answer in pieces. `ping` goes out during silence; empty: nothing does.
  virtual void beginStream(HttpReply head, std::string ping) = 0;
  virtual void write(std::string bytes) = 0;
  virtual void endStream() = 0;
  // `gone` runs once, on the thread of input and output, when the client leaves before the end of
  // the answer, reads too slowly, or the server ends.
  virtual void whenGone(std::function<void()> gone) = 0;
  // `late` runs once, on that thread, unless the answer has ended by then.
  virtual void after(std::chrono::milliseconds time, std::function<void()> late) = 0;
};

// What an exchange came to, for a log.
struct AccessRecord {
  const HttpRequest* request = nullptr;
  int status = 0;
  size_t bytes = 0;      // of the answer's body
  bool whole = false;    // it went out to its end
  double seconds = 0.0;  // from the whole header on
};

// Answers requests.
class Handler {
 public:
  Handler() = default;
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;
  virtual ~Handler() = default;

  // Looks at a request before its body is read. An answer refuses it.
  virtual std::optional<HttpReply> checkHead(const HttpRequest& head) = 0;
  // Answers, now or later. On a worker's thread for a request with a body, else on that of input
  // and output. What it throws is answered with 500.
  virtual void handle(HttpRequest request, std::shared_ptr<Exchange> exchange) = 0;
  // The answer for what the transport refuses. Of a header that could not be read, `head` has
  // what was.
  virtual HttpReply problem(const HttpRequest& head, int status, const std::string& message) = 0;
  // Adds headers that every answer to this request has.
  virtual void finishHead(const HttpRequest& head, HttpReply& reply) = 0;
  virtual void log(const AccessRecord& record) = 0;
};

class Transport {
 public:
  // Listens from now on. `handler` outlives the transport. Fails with IOError, and a message
  // that names address and port.
  static kiv::Status open(const TransportOptions& options, Handler& handler,
                          std::unique_ptr<Transport>& out);
  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  virtual std::string address() const = 0;  // "127.0.0.1:8080", "[::1]:8080"
  virtual uint16_t port() const = 0;
  virtual bool isLoopback() const = 0;  // only programs of this machine can connect

  // Serves on the calling thread until stop(), or drain() and the end of all requests. Once.
  // With `signals`, SIGINT and SIGTERM drain, and a second one stops.
  virtual void run(bool signals) = 0;
  // Any thread. No connection is accepted any more, and the server ends with the last request that
  // runs, or after TransportOptions::drain.
  virtual void drain() = 0;
  // Any thread. All clients are cut off.
  virtual void stop() = 0;
  virtual bool draining() const = 0;       // any thread
  virtual size_t connections() const = 0;  // any thread
};

}  // namespace zem::server
