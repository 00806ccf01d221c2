// SPDX-License-Identifier: Apache-2.0
#include "server/http/connection.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <exception>

#include "server/http/random_id.h"

namespace zem::server {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;

// Clients that send a body which is too large take so long to read that it is.
constexpr std::chrono::milliseconds kLinger{10'000};
constexpr size_t kMostLingered = size_t{256} << 20;

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

// As HTTP writes it: "Sun, 06 Nov 1994 08:49:37 GMT".
std::string httpDate() {
  static constexpr std::array<const char*, 7> kDays = {"Sun", "Mon", "Tue", "Wed",
                                                       "Thu", "Fri", "Sat"};
  static constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::time_t now = std::time(nullptr);
  const std::tm* utc = std::gmtime(&now);  // one thread calls
  if (utc == nullptr) return {};
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%s, %02d %s %04d %02d:%02d:%02d GMT",
                kDays[static_cast<size_t>(utc->tm_wday)], utc->tm_mday,
                kMonths[static_cast<size_t>(utc->tm_mon)], utc->tm_year + 1900, utc->tm_hour,
                utc->tm_min, utc->tm_sec);
  return text.data();
}

std::string chunkOf(std::string_view bytes) {
  std::array<char, 24> size{};
  std::snprintf(size.data(), size.size(), "%zx\r\n", bytes.size());
  return std::string(size.data()) + std::string(bytes) + "\r\n";
}

// Where a header would end early, a client could write headers of its own.
std::string oneLine(std::string text) {
  std::erase_if(text, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
  return text;
}

}  // namespace

void Hub::drain() {
  if (draining.exchange(true)) return;
  stopAccepting();
  const auto timer = std::make_shared<asio::steady_timer>(io, options.drain);
  // The last request usually comes to its end before: the loop does not wait for the timer then.
  timer->async_wait([this, timer](const boost::system::error_code&) { stop(); });
  settle();
}

void Hub::stop() {
  draining = true;
  stopping = true;
  stopAccepting();
  while (!open.empty()) {
    const std::shared_ptr<Connection> connection = *open.begin();
    connection->close();
  }
  settle();
}

void Hub::settle() {
  if (!draining || exchanges != 0) return;
  const bool idle = std::none_of(open.begin(), open.end(),
                                 [](const auto& connection) { return connection->answering(); });
  if (!stopping && idle) return stop();
  if (stopping && open.empty()) io.stop();
}

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
  parser_.emplace();
  parser_->header_limit(hub_.options.headerBytes);
  parser_->body_limit(hub_.options.bodyBytes);
  parser_->eager(false);  // stops behind the header
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
  Error error;
  const size_t used = parser_->put(asio::buffer(std::as_const(pending_)), error);
  pending_.erase(0, used);
  if (error && error != http::error::need_more) {
    fail(error);
    return false;
  }
  if (state_ == State::Header && parser_->is_header_done()) {
    onHead();
  } else if (state_ == State::Body && parser_->is_done()) {
    onRequest();
  }
  return used > 0;
}

// What the parser has of the header, which may be all of it.
void Connection::readHead() {
  const auto& message = parser_->get();
  const std::string target(message.target());
  const size_t query = target.find('?');
  head_.id = randomId("req_");
  head_.method = std::string(message.method_string());
  head_.path = target.substr(0, query);
  head_.query = query == std::string::npos ? std::string() : target.substr(query + 1);
  head_.headers.clear();
  for (const auto& field : message) {
    head_.headers.emplace_back(lowerCase(field.name_string()), std::string(field.value()));
  }
  keepAlive_ = message.keep_alive();
  oldVersion_ = message.version() < 11;
}

void Connection::onHead() {
  readHead();
  if (refused_) return refuse(503, "too many connections, try again later");
  if (std::optional<HttpReply> refusal = hub_.handler.checkHead(head_)) {
    beginAnswer();
    if (!parser_->is_done()) keepAlive_ = false;
    return reply(serial_, std::move(*refusal));
  }
  if (parser_->is_done()) return onRequest();
  if (!takeBodyRoom()) return refuse(503, "the requests that run have no room for another body");
  state_ = State::Body;
  parser_->eager(true);
  arm(deadline_, hub_.options.body, &Connection::onDeadline);
  if (lowerCase(head_.header("expect")) == "100-continue") send("HTTP/1.1 100 Continue\r\n\r\n");
}

bool Connection::takeBodyRoom() {
  const auto length = parser_->content_length();
  const size_t room = length ? static_cast<size_t>(*length) : hub_.options.bodyBytes;
  if (hub_.bodyBytes + room > hub_.options.allBodyBytes) return false;
  bodyRoom_ = room;
  hub_.bodyBytes += room;
  return true;
}

void Connection::onRequest() {
  beginAnswer();
  hand(makeExchange(hub_.shared_from_this(), shared_from_this(), serial_));
}

void Connection::hand(const std::shared_ptr<Exchange>& exchange) {
  HttpRequest request = head_;
  request.body = std::move(parser_->get().body());
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

void Connection::fail(Error error) {
  readHead();
  if (error == http::error::header_limit) {
    return refuse(431, "the header of a request may have " +
                           std::to_string(hub_.options.headerBytes) + " bytes");
  }
  if (error == http::error::body_limit) {
    return refuse(
        413, "the body of a request may have " + std::to_string(hub_.options.bodyBytes) + " bytes");
  }
  refuse(400, "this is no request of HTTP/1.1: " + error.message());
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
  send(oldVersion_ ? std::string(bytes) : chunkOf(bytes));
  if (out_.size() + sending_.size() - sent_ > hub_.options.unreadBytes) return cutOff();
  arm(ping_, hub_.options.ping, &Connection::onPing);
}

void Connection::endStream(uint64_t serial) {
  if (!isOpen(serial) || !streams_) return;
  if (!oldVersion_) send("0\r\n\r\n");
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
  std::string text = "HTTP/1.1 " + std::to_string(head.status) + " " +
                     std::string(reasonOf(head.status)) + "\r\ndate: " + httpDate() + "\r\n";
  const auto add = [&](std::string_view name, const std::string& value) {
    text.append(name).append(": ").append(oneLine(value)).append("\r\n");
  };
  if (!head.contentType.empty()) add("content-type", head.contentType);
  for (const auto& [name, value] : head.headers) add(name, value);
  add("x-request-id", head_.id);
  if (!length && !oldVersion_) add("transfer-encoding", "chunked");
  const bool bodiless = head.status == 204 || head.status == 304;
  if (length && !bodiless) add("content-length", std::to_string(*length));
  add("connection", keepAlive_ ? "keep-alive" : "close");
  send(text + "\r\n");
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

// ---- Exchange ----

namespace {

class ConnectionExchange : public Exchange {
 public:
  ConnectionExchange(std::shared_ptr<Hub> hub, std::shared_ptr<Connection> connection,
                     uint64_t serial)
      : hub_(std::move(hub)), connection_(std::move(connection)), serial_(serial) {
    ++hub_->exchanges;
  }

  ~ConnectionExchange() override {
    // The hub has to outlive the call of post(), and the loop runs until this was counted.
    const std::shared_ptr<Hub> hub = std::move(hub_);
    asio::post(hub->io,
               [hub = hub.get(), connection = std::move(connection_), serial = serial_]() mutable {
                 connection->abandon(serial);
                 connection.reset();
                 --hub->exchanges;
                 hub->settle();
               });
  }

  void post(std::function<void()> work) override { asio::post(hub_->io, std::move(work)); }
  void reply(HttpReply reply) override {
    run([reply = std::move(reply)](Connection& connection, uint64_t serial) mutable {
      connection.reply(serial, std::move(reply));
    });
  }
  void beginStream(HttpReply head, std::string ping) override {
    run([head = std::move(head), ping = std::move(ping)](Connection& connection,
                                                         uint64_t serial) mutable {
      connection.beginStream(serial, std::move(head), std::move(ping));
    });
  }
  void write(std::string bytes) override {
    run([bytes = std::move(bytes)](Connection& connection, uint64_t serial) {
      connection.write(serial, bytes);
    });
  }
  void endStream() override {
    run([](Connection& connection, uint64_t serial) { connection.endStream(serial); });
  }
  void whenGone(std::function<void()> gone) override {
    run([gone = std::move(gone)](Connection& connection, uint64_t serial) mutable {
      connection.whenGone(serial, std::move(gone));
    });
  }
  void after(std::chrono::milliseconds time, std::function<void()> late) override {
    run([time, late = std::move(late)](Connection& connection, uint64_t serial) mutable {
      connection.after(serial, time, std::move(late));
    });
  }

 private:
  template <typename Call>
  void run(Call call) {
    asio::dispatch(hub_->io, [connection = connection_, serial = serial_,
                              call = std::move(call)]() mutable { call(*connection, serial); });
  }

  std::shared_ptr<Hub> hub_;
  std::shared_ptr<Connection> connection_;
  uint64_t serial_;
};

}  // namespace

std::shared_ptr<Exchange> makeExchange(const std::shared_ptr<Hub>& hub,
                                       std::shared_ptr<Connection> connection, uint64_t serial) {
  return std::make_shared<ConnectionExchange>(hub, std::move(connection), serial);
}

}  // namespace zem::server
