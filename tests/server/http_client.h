// SPDX-License-Identifier: Apache-2.0
// A blocking client of HTTP/1.1, which shares no code with the server. It says byte by byte what
// it is told, and reads answers strictly.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zemtest {

struct HttpAnswer {
  int status = 0;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;                            // pieces joined
};

// A connection that closed where an answer should have come.
class ClosedEarly : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class HttpClient {
 public:
  // With `receiveBuffer`, the system keeps no more unread bytes.
  explicit HttpClient(uint16_t port, int receiveBuffer = 0) {
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0) {
      ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      close();
      throw ClosedEarly("no connection");
    }
  }
  ~HttpClient() { close(); }
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  void close() {
    if (socket_ >= 0) ::close(socket_);
    socket_ = -1;
  }

  // False when the server has closed meanwhile; that shows too when the answer is read.
  bool send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
  }

  static std::string get(const std::string& path, const std::string& headers = {}) {
    return "GET " + path + " HTTP/1.1\r\nhost: localhost\r\n" + headers + "\r\n";
  }
  static std::string post(const std::string& path, const std::string& body,
                          const std::string& headers = {}) {
    return "POST " + path +
           " HTTP/1.1\r\nhost: localhost\r\ncontent-length: " + std::to_string(body.size()) +
           "\r\n" + headers + "\r\n" + body;
  }

  HttpAnswer ask(const std::string& request) {
    send(request);
    return read(request.starts_with("HEAD"));
  }

  // The next answer, with its whole body.
  HttpAnswer read(bool withoutBody = false) {
    HttpAnswer answer = readHead();
    if (withoutBody || answer.status == 204 || answer.status == 304) return answer;
    if (answer.headers.contains("transfer-encoding")) {
      for (std::string piece = readChunk(); !piece.empty(); piece = readChunk()) {
        answer.body += piece;
      }
    } else if (answer.headers.contains("content-length")) {
      answer.body = take(std::stoul(answer.headers["content-length"]));
    } else {
      while (fill()) {
      }
      answer.body = std::move(buffer_);
    }
    return answer;
  }

  HttpAnswer readHead() {
    std::string line = readLine();
    if (!line.starts_with("HTTP/1.1 ")) throw std::runtime_error("no status line: " + line);
    HttpAnswer answer;
    answer.status = std::stoi(line.substr(9, 3));
    for (line = readLine(); !line.empty(); line = readLine()) {
      const size_t colon = line.find(": ");
      if (colon == std::string::npos) throw std::runtime_error("no header: " + line);
      answer.headers[line.substr(0, colon)] = line.substr(colon + 2);
    }
    return answer;
  }

  // A piece of a body in pieces; empty at its end.
  std::string readChunk() {
    const size_t size = std::stoul(readLine(), nullptr, 16);
    std::string piece = take(size);
    if (take(2) != "\r\n") throw std::runtime_error("no line end behind a piece");
    return piece;
  }

  // Whether the server closes now, or has closed, within some seconds.
  bool isClosed() {
    try {
      while (fill()) {
      }
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

 private:
  std::string readLine() {
    for (;;) {
      const size_t end = buffer_.find("\r\n");
      if (end != std::string::npos) {
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 2);
        return line;
      }
      if (!fill()) throw ClosedEarly("the connection closed");
    }
  }

  std::string take(size_t count) {
    while (buffer_.size() < count) {
      if (!fill()) throw ClosedEarly("the connection closed in a body");
    }
    std::string bytes = buffer_.substr(0, count);
    buffer_.erase(0, count);
    return bytes;
  }

  // False at the end of what the server sends.
  bool fill() {
    pollfd waiting{socket_, POLLIN, 0};
    if (::poll(&waiting, 1, 60'000) == 0) throw std::runtime_error("no answer for a minute");
    std::array<char, 16384> bytes;
    const ssize_t got = ::recv(socket_, bytes.data(), bytes.size(), 0);
    if (got <= 0) return false;
    buffer_.append(bytes.data(), static_cast<size_t>(got));
    return true;
  }

  int socket_ = -1;
  std::string buffer_;
};

// The data of each event of a stream; fails a test where the framing is wrong.
inline std::vector<std::string> eventsOf(std::string_view stream) {
  std::vector<std::string> events;
  while (!stream.empty()) {
    const size_t end = stream.find("\n\n");
    if (end == std::string_view::npos) {
      ADD_FAILURE() << "an event without its end: " << stream;
      return events;
    }
    const std::string_view event = stream.substr(0, end);
    const size_t data = event.find("data: ");
    if (data != std::string_view::npos) events.emplace_back(event.substr(data + 6));
    EXPECT_TRUE(data != std::string_view::npos || event.starts_with(":")) << event;
    stream.remove_prefix(end + 2);
  }
  return events;
}

}  // namespace zemtest
