// SPDX-License-Identifier: Apache-2.0
/// \file
/// A server for one model: the interfaces that HTTP clients know, and a page for chats.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "kiv/status.h"
#include "server/access_log.h"
#include "server/http/transport.h"

namespace zem::server {

/// How a server is set up.
struct ServerOptions {
  TransportOptions transport;        ///< where it listens, and its limits
  std::string name;                  ///< of the model, for clients; empty: that of its file
  std::vector<std::string> keys;     ///< of clients; empty: none is needed
  std::vector<std::string> origins;  ///< pages that may ask, beside this machine's; "*": all
  std::vector<std::string> hosts;    ///< names of this machine, beside localhost
  bool anyAddress = false;           ///< listens without a key on addresses that others reach
  std::chrono::milliseconds timeout{600'000};   ///< for a reply; 0: none
  bool metrics = false;                         ///< answers /metrics
  bool page = true;                             ///< answers / with the page
  LogForm logForm = LogForm::Plain;             ///< of lines
  std::function<void(const std::string&)> log;  ///< takes a line for each request; may be empty
};

/// Every member but run() may be called from any thread.
class Server {
 public:
  /// Listens. `engine` outlives the server. Fails with IOError where it cannot listen, and with
  /// InvalidFormat for an address that others reach without a key, and for an empty key.
  static kiv::Status open(Engine& engine, const ServerOptions& options,
                          std::unique_ptr<Server>& out);
  Server() = default;
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  virtual ~Server() = default;

  virtual std::string address() const = 0;      ///< "127.0.0.1:8080"
  virtual uint16_t port() const = 0;            ///< the one in use, also where 0 was asked for
  virtual const std::string& name() const = 0;  ///< of the model

  /// See Transport::run(), drain() and stop().
  virtual void run(bool signals) = 0;
  virtual void drain() = 0;  ///< \copydoc run
  virtual void stop() = 0;   ///< \copydoc run
};

}  // namespace zem::server
