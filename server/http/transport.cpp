// SPDX-License-Identifier: Apache-2.0
#include "server/http/transport.h"

#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <exception>

#include "server/http/connection.h"

namespace zem::server {
namespace {

using boost::asio::ip::tcp;
using Error = boost::system::error_code;

constexpr std::chrono::milliseconds kAcceptPause{100};
// Connections beyond the limit that are told so; others are closed at once.
constexpr size_t kRefusedConnections = 32;

class TcpTransport : public Transport {
 public:
  TcpTransport(const TransportOptions& options, Handler& handler)
      : hub_(std::make_shared<Hub>(options, handler)),
        acceptor_(hub_->io),
        pause_(hub_->io),
        signals_(hub_->io) {
    hub_->stopAccepting = [this] {
      Error ignored;
      acceptor_.close(ignored);
      pause_.cancel();
    };
  }

  Error listen() {
    const TransportOptions& options = hub_->options;
    Error error;
    tcp::resolver resolver(hub_->io);
    const auto found =
        resolver.resolve(options.host, std::to_string(options.port), tcp::resolver::passive, error);
    if (error) return error;
    const tcp::endpoint endpoint = found.begin()->endpoint();
    acceptor_.open(endpoint.protocol(), error);
    if (!error) acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error) acceptor_.bind(endpoint, error);
    if (!error) acceptor_.listen(boost::asio::socket_base::max_listen_connections, error);
    if (!error) endpoint_ = acceptor_.local_endpoint(error);
    return error;
  }

  std::string address() const override {
    const std::string host = endpoint_.address().to_string();
    return (endpoint_.address().is_v6() ? "[" + host + "]" : host) + ":" +
           std::to_string(endpoint_.port());
  }
  uint16_t port() const override { return endpoint_.port(); }
  bool isLoopback() const override { return endpoint_.address().is_loopback(); }

  void run(bool signals) override {
    if (signals) waitForSignals();
    accept();
    while (!hub_->io.stopped()) {
      try {
        hub_->io.run();
      } catch (const std::exception&) {
        // Of one connection's work, memory in all likelihood. The others go on.
      }
    }
    hub_->workers.join();
  }

  void drain() override {
    boost::asio::post(hub_->io, [hub = hub_.get()] { hub->drain(); });
  }
  void stop() override {
    boost::asio::post(hub_->io, [hub = hub_.get()] { hub->stop(); });
  }
  bool draining() const override { return hub_->draining; }
  size_t connections() const override { return hub_->connections; }

 private:
  void waitForSignals() {
    Error ignored;
    signals_.add(SIGINT, ignored);
    signals_.add(SIGTERM, ignored);
    signals_.async_wait([this](const Error& error, int) {
      if (error) return;
      signals_.async_wait([this](const Error& second, int) {
        if (!second) hub_->stop();
      });
      hub_->drain();
    });
  }

  void accept() {
    acceptor_.async_accept([this](const Error& error, tcp::socket socket) {
      if (!acceptor_.is_open()) return;
      if (error) return acceptLater();
      welcome(std::move(socket));
      accept();
    });
  }

  // The process has no more files, in all likelihood.
  void acceptLater() {
    pause_.expires_after(kAcceptPause);
    pause_.async_wait([this](const Error& error) {
      if (!error && acceptor_.is_open()) accept();
    });
  }

  void welcome(tcp::socket socket) {
    const size_t most = hub_->options.connections;
    if (hub_->connections >= most + kRefusedConnections) return;
    const bool refused = hub_->connections >= most;
    std::make_shared<Connection>(*hub_, std::move(socket), refused)->start();
  }

  std::shared_ptr<Hub> hub_;
  tcp::acceptor acceptor_;
  boost::asio::steady_timer pause_;
  boost::asio::signal_set signals_;
  tcp::endpoint endpoint_;
};

}  // namespace

kiv::Status Transport::open(const TransportOptions& options, Handler& handler,
                            std::unique_ptr<Transport>& out) {
  try {
    auto transport = std::make_unique<TcpTransport>(options, handler);
    if (const Error error = transport->listen()) {
      return kiv::ioError("cannot listen on " + options.host + " port " +
                          std::to_string(options.port) + ": " + error.message());
    }
    out = std::move(transport);
  } catch (const std::exception& error) {
    return kiv::ioError(std::string("cannot listen: ") + error.what());
  }
  return {};
}

}  // namespace zem::server
