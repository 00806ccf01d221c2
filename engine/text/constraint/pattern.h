// SPDX-License-Identifier: Apache-2.0
/// \file
/// Regular expressions of schemas as automata over the bytes of UTF-8.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/status.h"

namespace zem::text {

/// A deterministic automaton. From each state but kDead some text leads to an accepting
/// state.
class PatternAutomaton {
 public:
  static constexpr uint16_t kDead = 0;   ///< no text leads out of it
  static constexpr uint16_t kStart = 1;  ///< before any text

  /// The automaton of the texts that `pattern` matches, of at least `least` and at most
  /// `most` characters. The pattern is one of ECMA-262 in Unicode mode, and matches
  /// anywhere in the text unless `^` and `$` bind it, at its very ends. Known: characters,
  /// `.`, classes, `\d \w \s` and their opposites, `\uXXXX`, groups, `|`, `* + ? {m,n}`.
  ///
  /// Characters are those of JSON strings without `\u`: control characters other than
  /// backspace, tab, newline, form feed and return never match. Fails with what is not
  /// supported, for automata of more than `mostStates` states, and where no text matches.
  static kiv::Status compile(std::string_view pattern, size_t least, size_t most, size_t mostStates,
                             PatternAutomaton& out);

  /// The state behind `byte`.
  uint16_t next(uint16_t state, uint8_t byte) const { return rows_[state][byte]; }
  /// Whether the text may end here.
  bool accepts(uint16_t state) const { return accepting_[state]; }
  /// States, kDead among them.
  size_t size() const { return rows_.size(); }

 private:
  friend class PatternBuilder;
  std::vector<std::array<uint16_t, 256>> rows_;
  std::vector<bool> accepting_;
};

}  // namespace zem::text
