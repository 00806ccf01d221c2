// SPDX-License-Identifier: Apache-2.0
#include "server/http/connection_exchange.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <utility>

namespace zem::server {
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
    boost::asio::post(hub->io, [hub = hub.get(), connection = std::move(connection_),
                                serial = serial_]() mutable {
      connection->abandon(serial);
      connection.reset();
      --hub->exchanges;
      hub->settle();
    });
  }

  void post(std::function<void()> work) override { boost::asio::post(hub_->io, std::move(work)); }
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
    boost::asio::dispatch(
        hub_->io, [connection = connection_, serial = serial_, call = std::move(call)]() mutable {
          call(*connection, serial);
        });
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
