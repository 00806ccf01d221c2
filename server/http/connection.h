// SPDX-License-Identifier: Apache-2.0
// One connection: requests come in one after the other, each with its answer. All members run on
// the thread of input and output.
//
// A read is pending nearly always, also while an answer is computed: it tells that the client has
// left.
#pragma once

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "server/http/hub.h"
#include "server/http/request_parser.h"
#include "server/http/transport.h"

namespace zem::server {

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Socket = boost::asio::ip::tcp::socket;
  using Error = boost::system::error_code;

  // With `refused`, the first request is told 503.
  Connection(Hub& hub, Socket socket, bool refused);

  void start();
  void close();  // at once
  bool answering() const { return state_ == State::Answering; }

  // Of the answer to request `serial`; nothing once that is over.
  void reply(uint64_t serial, HttpReply reply);
  void beginStream(uint64_t serial, HttpReply head, std::string ping);
  void write(uint64_t serial, std::string_view bytes);
  void endStream(uint64_t serial);
  void whenGone(uint64_t serial, std::function<void()> gone);
  void after(uint64_t serial, std::chrono::milliseconds time, std::function<void()> late);
  void abandon(uint64_t serial);

 private:
  using Timer = boost::asio::steady_timer;
  using Clock = std::chrono::steady_clock;
  enum class State : uint8_t { Idle, Header, Body, Answering, Lingering, Closed };

  void read();
  void onRead(Error error, size_t bytes);
  void expectRequest();
  void parse();
  bool parseSome();
  void readHead();
  void onHead();
  bool takeBodyRoom();
  void keepBodyRoom(size_t size);
  void onRequest();
  void hand(const std::shared_ptr<Exchange>& exchange);
  void refuse(int status, const std::string& message);
  void beginAnswer();

  bool isOpen(uint64_t serial) const;
  void sendHead(const HttpReply& reply, std::optional<size_t> length);
  void send(std::string_view bytes);
  void sendNext();
  void onSent(Error error, size_t bytes);
  void answerEnded();
  void finishAnswer(bool whole);
  void linger();
  void tellGone();

  void arm(Timer& timer, std::chrono::milliseconds time, void (Connection::*late)());
  static void disarm(Timer& timer);
  void onDeadline();
  void onStall() { cutOff(); }
  void onPing();
  void onLate();
  void cutOff();

  Hub& hub_;
  Socket socket_;
  Timer deadline_;  // of what comes in
  Timer stall_;     // of what goes out
  Timer ping_;
  Timer late_;
  bool refused_;
  State state_ = State::Idle;

  std::array<char, 32 << 10> incoming_;
  bool reading_ = false;
  std::string pending_;  // what came and was not parsed
  std::optional<RequestParser> parser_;
  size_t lingered_ = 0;

  uint64_t serial_ = 0;
  HttpRequest head_;
  size_t bodyRoom_ = 0;
  bool keepAlive_ = true;
  bool oldVersion_ = false;

  bool begun_ = false;  // the answer
  bool streams_ = false;
  bool ended_ = false;
  int status_ = 0;
  size_t bodyBytes_ = 0;  // of the answer
  Clock::time_point since_;
  std::string pingText_;
  std::function<void()> gone_;
  std::function<void()> lateWork_;

  std::string out_;      // to be sent next
  std::string sending_;  // being sent
  size_t sent_ = 0;      // of it
};

}  // namespace zem::server
