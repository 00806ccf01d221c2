// SPDX-License-Identifier: Apache-2.0
#include "engine/text/chat_format.h"

#include <array>

#include "engine/text/chat/sha256.h"

namespace zem::text {
namespace {

constexpr std::array<ChatFormat, 4> kFormats = {{
    {.name = "qwen3.5",
     .thinksUnlessTold = true,
     .history = ThinkHistory::LastTurn,
     .splitsContent = true,
     .omitsEmptySystem = false,
     .jsonArguments = false,
     .knowsEffort = false},
    {.name = "qwen3.5-small",
     .thinksUnlessTold = false,
     .history = ThinkHistory::LastTurn,
     .splitsContent = true,
     .omitsEmptySystem = false,
     .jsonArguments = false,
     .knowsEffort = false},
    {.name = "qwen3.6",
     .thinksUnlessTold = true,
     .history = ThinkHistory::AllWhenAsked,
     .splitsContent = true,
     .omitsEmptySystem = false,
     .jsonArguments = false,
     .knowsEffort = false},
    {.name = "qwen3.8",
     .thinksUnlessTold = true,
     .history = ThinkHistory::AllUnlessRefused,
     .splitsContent = false,
     .omitsEmptySystem = true,
     .jsonArguments = true,
     .knowsEffort = true},
}};

struct KnownTemplate {
  std::string_view sha256;
  std::string_view format;
};

constexpr std::array<KnownTemplate, 1> kTemplates = {{
    {"a4aee8afcf2e0711942cf848899be66016f8d14a889ff9ede07bca099c28f715", "qwen3.5"},
}};

}  // namespace

const ChatFormat* chatFormatByName(std::string_view name) {
  for (const ChatFormat& format : kFormats) {
    if (format.name == name) return &format;
  }
  return nullptr;
}

const ChatFormat* chatFormatOfTemplate(std::string_view text) {
  const std::string digest = sha256Hex(text);
  for (const KnownTemplate& known : kTemplates) {
    if (known.sha256 == digest) return chatFormatByName(known.format);
  }
  return nullptr;
}

std::string describeUnknownTemplate(std::string_view text) {
  return "none of the known revisions (SHA-256 " + sha256Hex(text) + ")";
}

std::string chatFormatNames() {
  std::string names;
  for (const ChatFormat& format : kFormats) {
    if (!names.empty()) names += ", ";
    names += format.name;
  }
  return names;
}

}  // namespace zem::text
