// SPDX-License-Identifier: Apache-2.0
#include "server/safety.h"

#include <algorithm>
#include <optional>

namespace zem::server {
namespace {

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return result;
}

bool isPort(std::string_view text) {
  return !text.empty() && text.size() <= 5 &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Without the port; nothing where something else follows the name.
std::optional<std::string> nameOfHost(std::string_view host) {
  const size_t bracket = host.starts_with('[') ? host.find(']') : 0;
  if (bracket == std::string_view::npos) return std::nullopt;
  const size_t colon = host.find(':', bracket);
  if (colon == std::string_view::npos) return lower(host);
  if (!isPort(host.substr(colon + 1))) return std::nullopt;
  return lower(host.substr(0, colon));
}

bool isLocalName(std::string_view name) {
  return name == "localhost" || name.ends_with(".localhost") || name == "127.0.0.1" ||
         name == "[::1]";
}

// Behind "http://" or "https://"; nothing for others.
std::optional<std::string_view> hostOfOrigin(std::string_view origin) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (origin.starts_with(scheme)) return origin.substr(scheme.size());
  }
  return std::nullopt;
}

bool isSameText(std::string_view given, std::string_view key) {
  unsigned different = given.size() == key.size() ? 0U : 1U;
  for (size_t i = 0; i < given.size(); ++i) {
    const char other = key.empty() ? '\0' : key[i % key.size()];
    different |= static_cast<unsigned>(static_cast<unsigned char>(given[i] ^ other));
  }
  return different == 0 && !key.empty();
}

}  // namespace

bool isLocalOrigin(std::string_view origin) {
  const auto host = hostOfOrigin(origin);
  const auto name = host ? nameOfHost(*host) : std::nullopt;
  return name && isLocalName(*name);
}

bool mayAsk(std::string_view origin, std::string_view host,
            const std::vector<std::string>& allowed) {
  if (isLocalOrigin(origin)) return true;
  const auto own = hostOfOrigin(origin);
  if (own && !host.empty() && lower(*own) == lower(host)) return true;
  return std::any_of(allowed.begin(), allowed.end(), [&](const std::string& one) {
    return one == "*" || lower(one) == lower(origin);
  });
}

bool namesThisMachine(std::string_view host, const std::vector<std::string>& names) {
  const auto name = nameOfHost(host);
  if (!name) return false;
  return isLocalName(*name) || std::any_of(names.begin(), names.end(), [&](const std::string& one) {
           return lower(one) == *name;
         });
}

std::string_view keyOf(std::string_view authorization, std::string_view apiKey) {
  constexpr std::string_view kScheme = "bearer ";
  if (lower(authorization.substr(0, kScheme.size())) == kScheme) {
    std::string_view key = authorization.substr(kScheme.size());
    while (key.starts_with(' ')) key.remove_prefix(1);
    return key;
  }
  return apiKey;
}

bool isKnownKey(std::string_view given, const std::vector<std::string>& keys) {
  bool known = false;
  for (const std::string& key : keys) known = isSameText(given, key) || known;
  return known;
}

}  // namespace zem::server
