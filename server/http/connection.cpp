// SPDX-License-Identifier: Apache-2.0
#include "server/http/connection.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <exception>
#include <utility>

#include "server/http/answer_text.h"
#include "server/http/connection_exchange.h"
#include "server/http/random_id.h"

namespace zem::server {
namespace {

namespace asio = boost::asio;

// Clients that send a body which is too large take so long to read that it is.
constexpr std::chrono::milliseconds kLinger{10'000};
constexpr size_t kMostLingered = size_t{256} << 20;

}  // namespace

Connection::Connection(Hub& hub, Socket socket, bool refused)
    : hub_(hub),
      socket_(std::move(socket)),
      deadline_(hub.io),
      stall_(hub.io),
      ping_(hub.io),
      late_(hub.io),
      refused_(refused) {}

void Connection::start() {
  Error ignored;
  socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
  // The system would let it grow to some MiB for a client that reads slowly.
  if (hub_.options.sendBuffer > 0) {
    socket_.set_option(Socket::send_buffer_size(hub_.options.sendBuffer), ignored);
  }
  const auto peer = socket_.remote_endpoint(ignored);
  if (!ignored) head_.peer = peer.address().to_string();
  hub_.open.insert(shared_from_this());
  ++hub_.connections;
  expectRequest();
  read();
}

void Connection::close() {
  if (state_ == State::Closed) return;
  if (state_ == State::Answering) finishAnswer(false);
  state_ = State::Closed;
  Error ignored;
  socket_.close(ignored);
  for (Timer* timer : {&deadline_, &stall_, &ping_, &late_}) disarm(*timer);
  hub_.bodyBytes -= std::exchange(bodyRoom_, 0);
  --hub_.connections;
  hub_.open.erase(shared_from_this());
  hub_.settle();
}

// Without the answer's rest, and without waiting for the client.
void Connection::cutOff() { close(); }

// ---- What comes in ----

void Connection::read() {
  if (reading_ || state_ == State::Closed) return;
  // What comes before its turn waits in the system.
  if (state_ == State::Answering && pending_.size() > hub_.options.headerBytes) return;
  reading_ = true;
  socket_.async_read_some(asio::buffer(incoming_),
                          [self = shared_from_this()](const Error& error, size_t bytes) {
                            self->reading_ = false;
                            self->onRead(error, bytes);
                          });
}

void Connection::onRead(Error error, size_t bytes) {
  if (state_ == State::Closed) return;
  if (error) return close();
  if (state_ == State::Lingering) {
    lingered_ += bytes;
    if (lingered_ > kMostLingered) return close();
  } else {
    pending_.append(incoming_.data(), bytes);
    parse();
  }
  read();
}

void Connection::expectRequest() {
  state_ = State::Idle;
  parser_.emplace(RequestParser::Limits{hub_.options.headerBytes, hub_.options.bodyBytes});
  arm(deadline_, hub_.options.idle, &Connection::onDeadline);
}

void Connection::parse() {
  while (!pending_.empty() && parseSome()) {
  }
}

// False: nothing more to be done with what is here.
bool Connection::parseSome() {
  if (state_ == State::Idle) {
    state_ = State::Header;
    arm(deadline_, hub_.options.header, &Connection::onDeadline);
  }
  if (state_ != State::Header && state_ != State::Body) return false;
  const size_t before = pending_.size();
  if (const auto refusal = parser_->take(pending_)) {
    readHead();
    refuse(refusal->status, refusal->message);
    return false;
  }
  const bool tookSome = pending_.size() < before;
  if (state_ == State::Header && parser_->hasHeader()) {
    onHead();
  } else if (state_ == State::Body && parser_->isWhole()) {
    onRequest();
  }
  return tookSome;
}

// What the parser has of the header, which may be all of it.
void Connection::readHead() {
  head_.id = randomId("req_");
  parser_->readHead(head_);
  keepAlive_ = parser_->keepsAlive();
  oldVersion_ = parser_->isOldVersion();
}

void Connection::onHead() {
  readHead();
  if (refused_) return refuse(503, "too many connections, try again later");
  if (std::optional<HttpReply> refusal = hub_.handler.checkHead(head_)) {
    beginAnswer();
    if (!parser_->isWhole()) keepAlive_ = false;
    return reply(serial_, std::move(*refusal));
  }
  if (parser_->isWhole()) return onRequest();
  if (!takeBodyRoom()) return refuse(503, "the requests that run have no room for another body");
  state_ = State::Body;
  parser_->wantBody();
  arm(deadline_, hub_.options.body, &Connection::onDeadline);
  if (parser_->waitsForContinue()) send("HTTP/1.1 100 Continue\r\n\r\n");
}

bool Connection::takeBodyRoom() {
  const auto length = parser_->contentLength();
  const size_t room = length ? static_cast<size_t>(*length) : hub_.options.bodyBytes;
  if (hub_.bodyBytes + room > hub_.options.allBodyBytes) return false;
  bodyRoom_ = room;
  hub_.bodyBytes += room;
  return true;
}

// Room that was taken for a body of unknown length, and that it does not need.
void Connection::keepBodyRoom(size_t size) {
  const size_t kept = std::min(bodyRoom_, std::max<size_t>(size, 1));
  hub_.bodyBytes -= std::exchange(bodyRoom_, kept) - kept;
}

void Connection::onRequest() {
  beginAnswer();
  hand(makeExchange(hub_.shared_from_this(), shared_from_this(), serial_));
}

void Connection::hand(const std::shared_ptr<Exchange>& exchange) {
  HttpRequest request = head_;
  request.body = parser_->takeBody();
  keepBodyRoom(request.body.size());
  auto work = [&handler = hub_.handler, request = std::move(request), exchange]() mutable {
    const HttpRequest head{request.method, request.path, request.query, {}, {}, {}, request.id};
    try {
      handler.handle(std::move(request), exchange);
    } catch (const std::exception& error) {
      exchange->reply(handler.problem(head, 500, error.what()));
    }
  };
  if (bodyRoom_ == 0) return work();
  asio::post(hub_.workers, std::move(work));
}

// Answers, and ends the connection: what else comes is no request.
void Connection::refuse(int status, const std::string& message) {
  beginAnswer();
  keepAlive_ = false;
  reply(serial_, hub_.handler.problem(head_, status, message));
}

void Connection::onDeadline() {
  switch (state_) {
    case State::Header:
      readHead();
      return refuse(408, "the header of the request did not come in time");
    case State::Body:
      return refuse(408, "the body of the request did not come in time");
    default:
      return close();
  }
}

// ---- The answer ----

void Connection::beginAnswer() {
  state_ = State::Answering;
  disarm(deadline_);
  ++serial_;
  begun_ = streams_ = ended_ = false;
  status_ = 0;
  bodyBytes_ = 0;
  since_ = Clock::now();
}

bool Connection::isOpen(uint64_t serial) const {
  return state_ == State::Answering && serial == serial_ && !ended_;
}

void Connection::reply(uint64_t serial, HttpReply reply) {
  if (!isOpen(serial) || begun_) return;
  sendHead(reply, reply.body.size());
  if (head_.method != "HEAD") {
    bodyBytes_ = reply.body.size();
    send(reply.body);
  }
  answerEnded();
}

void Connection::beginStream(uint64_t serial, HttpReply head, std::string ping) {
  if (!isOpen(serial) || begun_) return;
  streams_ = true;
  pingText_ = std::move(ping);
  if (oldVersion_) keepAlive_ = false;
  sendHead(head, std::nullopt);
  arm(ping_, hub_.options.ping, &Connection::onPing);
}

void Connection::write(uint64_t serial, std::string_view bytes) {
  if (!isOpen(serial) || !streams_ || bytes.empty()) return;
  bodyBytes_ += bytes.size();
  send(oldVersion_ ? std::string(bytes) : pieceOf(bytes));
  if (out_.size() + sending_.size() - sent_ > hub_.options.unreadBytes) return cutOff();
  arm(ping_, hub_.options.ping, &Connection::onPing);
}

void Connection::endStream(uint64_t serial) {
  if (!isOpen(serial) || !streams_) return;
  if (!oldVersion_) send(kLastPiece);
  answerEnded();
}

void Connection::whenGone(uint64_t serial, std::function<void()> gone) {
  if (isOpen(serial)) {
    gone_ = std::move(gone);
  } else {
    gone();
  }
}

void Connection::after(uint64_t serial, std::chrono::milliseconds time,
                       std::function<void()> late) {
  if (!isOpen(serial)) return;
  lateWork_ = std::move(late);
  arm(late_, time, &Connection::onLate);
}

void Connection::abandon(uint64_t serial) {
  if (!isOpen(serial)) return;
  if (begun_) return cutOff();
  reply(serial, hub_.handler.problem(head_, 500, "the request was dropped"));
}

void Connection::sendHead(const HttpReply& reply, std::optional<size_t> length) {
  begun_ = true;
  status_ = reply.status;
  if (hub_.draining) keepAlive_ = false;
  HttpReply head{reply.status, reply.contentType, reply.headers, {}};
  hub_.handler.finishHead(head_, head);
  send(answerHead(head, head_.id, {length, !length && !oldVersion_, keepAlive_}));
}

void Connection::send(std::string_view bytes) {
  out_ += bytes;
  if (sending_.empty()) sendNext();
}

void Connection::sendNext() {
  if (sending_.empty()) {
    if (out_.empty()) return;
    sending_.swap(out_);
    sent_ = 0;
  }
  arm(stall_, hub_.options.stall, &Connection::onStall);
  socket_.async_write_some(asio::buffer(sending_.data() + sent_, sending_.size() - sent_),
                           [self = shared_from_this()](const Error& error, size_t bytes) {
                             self->onSent(error, bytes);
                           });
}

void Connection::onSent(Error error, size_t bytes) {
  if (state_ == State::Closed) return;
  if (error) return close();
  sent_ += bytes;
  if (sent_ == sending_.size()) {
    sending_.clear();
    sent_ = 0;
    disarm(stall_);
  }
  sendNext();
  if (sending_.empty() && state_ == State::Answering && ended_) answerEnded();
}

// The answer has been given; its last bytes may have to be sent yet.
void Connection::answerEnded() {
  ended_ = true;
  disarm(ping_);
  disarm(late_);
  if (!sending_.empty()) return;
  finishAnswer(true);
  if (!keepAlive_) return linger();
  expectRequest();
  hub_.settle();
  if (state_ == State::Closed) return;
  parse();
  read();
}

void Connection::finishAnswer(bool whole) {
  hub_.bodyBytes -= std::exchange(bodyRoom_, 0);
  state_ = State::Idle;
  disarm(ping_);
  disarm(late_);
  const std::function<void()> gone = std::exchange(gone_, nullptr);
  lateWork_ = nullptr;
  if (!whole && gone) gone();
  const std::chrono::duration<double> seconds = Clock::now() - since_;
  hub_.handler.log({&head_, status_, bodyBytes_, whole, seconds.count()});
}

// A system that closes with unread bytes resets the connection, and the client may lose the
// answer. So the rest of what it sends is read for a while.
void Connection::linger() {
  state_ = State::Lingering;
  Error ignored;
  socket_.shutdown(Socket::shutdown_send, ignored);
  arm(deadline_, kLinger, &Connection::onDeadline);
  hub_.settle();
  read();
}

void Connection::onPing() {
  if (state_ != State::Answering || !streams_ || ended_ || pingText_.empty()) return;
  write(serial_, std::string(pingText_));
}

void Connection::onLate() {
  if (const std::function<void()> late = std::exchange(lateWork_, nullptr)) late();
}

void Connection::arm(Timer& timer, std::chrono::milliseconds time, void (Connection::*late)()) {
  timer.expires_after(time);
  timer.async_wait([self = shared_from_this(), &timer, late](const Error& error) {
    // One that has been set anew meanwhile is not over.
    if (error || self->state_ == State::Closed || timer.expiry() > Clock::now()) return;
    (self.get()->*late)();
  });
}

void Connection::disarm(Timer& timer) { timer.expires_at(Clock::time_point::max()); }

}  // namespace zem::server
