// SPDX-License-Identifier: Apache-2.0
#include "server/server.h"

#include <algorithm>
#include <utility>

#include "server/service.h"

namespace zem::server {
namespace {

class HttpServer : public Server {
 public:
  HttpServer(Engine& engine, const ServerOptions& options) : service_(engine, options) {}

  kiv::Status listen(const TransportOptions& options) {
    kiv::Status status = Transport::open(options, service_, transport_);
    if (status.ok()) service_.setTransport(*transport_);
    return status;
  }

  const Transport& transport() const { return *transport_; }
  std::string address() const override { return transport_->address(); }
  uint16_t port() const override { return transport_->port(); }
  const std::string& name() const override { return service_.name(); }
  void run(bool signals) override { transport_->run(signals); }
  void drain() override { transport_->drain(); }
  void stop() override { transport_->stop(); }

 private:
  Service service_;
  std::unique_ptr<Transport> transport_;
};

}  // namespace

kiv::Status Server::open(Engine& engine, const ServerOptions& options,
                         std::unique_ptr<Server>& out) {
  if (std::find(options.keys.begin(), options.keys.end(), "") != options.keys.end()) {
    return kiv::invalidFormat("a key is empty, needs at least one character");
  }
  auto server = std::make_unique<HttpServer>(engine, options);
  kiv::Status status = server->listen(options.transport);
  if (!status.ok()) return status;
  if (!server->transport().isLoopback() && options.keys.empty() && !options.anyAddress) {
    return kiv::invalidFormat(server->address() +
                              " can be reached from other machines, and there is no key: set one, "
                              "listen on 127.0.0.1, or say that anybody may ask");
  }
  out = std::move(server);
  return {};
}

}  // namespace zem::server
