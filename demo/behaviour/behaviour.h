// SPDX-License-Identifier: Apache-2.0
/// \file
/// How often a model's replies are what they should be: questions with conditions, and counts.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "engine/chat.h"
#include "engine/engine.h"
#include "kiv/status.h"

namespace zem::behaviour {

/// What a reply has to be. Whatever else is asked, it has to end by itself.
struct Wanted {
  bool thinks = false;           ///< it has a think block with text; else it has none
  std::string content;           ///< stands in its content
  std::vector<std::string> any;  ///< at least one of them stands in its content; empty: no matter
  std::string ends;              ///< with which its content ends
  std::string function;          ///< the one function that it calls, and nothing else; empty: none
  std::string arguments;         ///< of that call, JSON text of an object
};

/// A question, and what its reply has to be.
struct Case {
  std::string kind;  ///< cases of one kind are counted together
  ChatRequest request;
  Wanted wanted;
};

/// A reply, taken apart.
struct Reply {
  std::string reasoning;
  std::string content;
  std::vector<std::string> functions;  ///< of its calls
  std::vector<std::string> arguments;  ///< of its calls, JSON texts
  bool whole = true;                   ///< every call is well-formed
  EndReason reason = EndReason::Stop;
};

/// How many cases of a kind have passed.
struct Rate {
  std::string kind;
  size_t passed = 0;
  size_t asked = 0;
  std::vector<std::string> failures;  ///< a line for each case that has not: what, and the reply
};

/// Reads cases: a line of JSON each, with `kind`, `request` as readChatRequest() takes it, and
/// `wants` with `thinks`, `content`, `any`, `ends` and `call` ({"name", "arguments"}), each of
/// which but `thinks` may be missing. Fails with InvalidFormat, "line N: ...".
kiv::Status readCases(std::string_view text, std::vector<Case>& out);

/// What is wrong with a reply; empty if nothing is.
std::string complaintAbout(const Reply& reply, const Wanted& wanted);

/// Asks all of them, at temperature 0, several at once, and counts. The kinds come in the order of
/// the cases. Fails when the engine refuses a request: give it room for all cases to wait.
kiv::Status measure(Engine& engine, const std::vector<Case>& cases, std::vector<Rate>& out);

}  // namespace zem::behaviour
