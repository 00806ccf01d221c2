// SPDX-License-Identifier: Apache-2.0
// Requests of connections as the handler sees them: any thread may answer.
#pragma once

#include <cstdint>
#include <memory>

#include "server/http/connection.h"
#include "server/http/hub.h"
#include "server/http/transport.h"

namespace zem::server {

// The exchange of a connection's request `serial`.
std::shared_ptr<Exchange> makeExchange(const std::shared_ptr<Hub>& hub,
                                       std::shared_ptr<Connection> connection, uint64_t serial);

}  // namespace zem::server
