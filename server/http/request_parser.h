// SPDX-License-Identifier: Apache-2.0
// One request of HTTP/1.1, out of bytes as they come in. Knows no sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "server/http/message.h"

namespace zem::server {

class RequestParser {
 public:
  struct Limits {
    uint32_t headerBytes;
    size_t bodyBytes;
  };
  // Why the bytes are no request that is taken: a status of HTTP, and a text for people.
  struct Refusal {
    int status;
    std::string message;
  };

  explicit RequestParser(const Limits& limits);
  ~RequestParser();
  RequestParser(const RequestParser&) = delete;
  RequestParser& operator=(const RequestParser&) = delete;

  // Takes what belongs to the request from the front of `bytes`: the header, and the body once it
  // is wanted. Not to be called again after a refusal.
  std::optional<Refusal> take(std::string& bytes);
  // Call it behind the header. Before, nothing of the body is taken.
  void wantBody();

  bool hasHeader() const;
  bool isWhole() const;  // a request without a body is whole behind its header

  // Method, path, query and headers: of a header that is not whole, what there is.
  void readHead(HttpRequest& out) const;
  std::optional<uint64_t> contentLength() const;
  bool keepsAlive() const;
  bool isOldVersion() const;      // before HTTP/1.1: the client knows no pieces
  bool waitsForContinue() const;  // the client sends the body once it is told to
  std::string takeBody();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zem::server
