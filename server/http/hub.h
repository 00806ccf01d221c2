// SPDX-License-Identifier: Apache-2.0
// What the connections of a server share, and its end.
#pragma once

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <set>

#include "server/http/transport.h"

namespace zem::server {

class Connection;

// Of the thread of input and output, but for what is atomic.
struct Hub : std::enable_shared_from_this<Hub> {
  Hub(const TransportOptions& wanted, Handler& answers)
      : options(wanted), handler(answers), guard(io.get_executor()), workers(wanted.workers) {}

  void drain();
  void stop();
  void settle();  // ends the loop when nothing is left to wait for

  TransportOptions options;
  Handler& handler;
  boost::asio::io_context io{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard;
  boost::asio::thread_pool workers;
  std::function<void()> stopAccepting;
  std::set<std::shared_ptr<Connection>> open;
  std::atomic<size_t> connections{0};
  std::atomic<bool> draining{false};
  bool stopping = false;
  size_t exchanges = 0;  // that are referred to
  size_t bodyBytes = 0;  // of all requests
};

}  // namespace zem::server
