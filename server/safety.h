// SPDX-License-Identifier: Apache-2.0
// Who may ask: hosts, origins, keys. Pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zem::server {

// Whether a page of this origin comes from this machine: http or https on localhost, a name below
// it, 127.0.0.1 or [::1], with any port. Compared exactly.
bool isLocalOrigin(std::string_view origin);

// Whether `origin` may ask: it is local, among `allowed` ("*" allows all), or the page is of this
// server itself, which the client calls `host`.
bool mayAsk(std::string_view origin, std::string_view host,
            const std::vector<std::string>& allowed);

// Whether a header "host" names this machine: localhost, 127.0.0.1 or [::1], or one of `names`,
// with any port. Other names are refused: a foreign page could use a name of its own that points
// at this machine.
bool namesThisMachine(std::string_view host, const std::vector<std::string>& names);

// The key of the headers "authorization: Bearer KEY" and "x-api-key: KEY"; empty without one.
std::string_view keyOf(std::string_view authorization, std::string_view apiKey);

// Whether `given` is one of `keys`. The time that it takes does not tell how much of a key is
// right.
bool isKnownKey(std::string_view given, const std::vector<std::string>& keys);

}  // namespace zem::server
