// SPDX-License-Identifier: Apache-2.0
#include "session/hint.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <string_view>

namespace qwen35rt {
namespace {

// atol with a 32-bit long, saturating, on every platform.
int32_t parseDecimal(const std::string& text) {
  const long value = std::strtol(text.c_str(), nullptr, 10);
  return static_cast<int32_t>(std::clamp<long>(value, std::numeric_limits<int32_t>::min(),
                                               std::numeric_limits<int32_t>::max()));
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

void applyKvHint(std::string_view name, CreateHintOpts& opts) {
  static constexpr std::string_view kNames[] = {"f16", "q8_0", "q4_0"};
  const auto* const found = std::find(std::begin(kNames), std::end(kNames), name);
  if (found == std::end(kNames)) return;
  opts.kv = static_cast<int>(found - std::begin(kNames));
  opts.kvSet = true;
}

void applyHintField(std::string_view field, CreateHintOpts& opts) {
  if (takePrefix(field, "ctx=")) {
    const int32_t ctx = parseDecimal(std::string(field));
    if (ctx >= 1) opts.ctx = static_cast<size_t>(ctx);
  } else if (takePrefix(field, "kv=")) {
    applyKvHint(field, opts);
  } else if (takePrefix(field, "plan=")) {
    opts.plan = field;
  }
}

}  // namespace

CreateHintOpts parseHint(const char* hint) {
  CreateHintOpts opts;
  std::string_view rest = hint == nullptr ? std::string_view() : std::string_view(hint);
  for (size_t end = rest.find(';'); end != std::string_view::npos; end = rest.find(';')) {
    rest.remove_prefix(end + 1);
    applyHintField(rest.substr(0, rest.find(';')), opts);
  }
  return opts;
}

}  // namespace qwen35rt
