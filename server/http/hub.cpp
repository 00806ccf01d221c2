// SPDX-License-Identifier: Apache-2.0
#include "server/http/hub.h"

#include <algorithm>
#include <boost/asio/steady_timer.hpp>

#include "server/http/connection.h"

namespace zem::server {

void Hub::drain() {
  if (draining.exchange(true)) return;
  stopAccepting();
  const auto timer = std::make_shared<boost::asio::steady_timer>(io, options.drain);
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

}  // namespace zem::server
