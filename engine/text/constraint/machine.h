// SPDX-License-Identifier: Apache-2.0
/// \file
/// The place of a reply in a grammar, a stack of rules that are begun, and the bytes that may
/// follow.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "engine/text/constraint/grammar.h"

namespace zem::text::grammar {

/// How far one rule has come. What the numbers mean is the rule's own.
struct Frame {
  RuleId rule = kNoRule;  ///< kNoRule: the whole document
  uint16_t depth = 0;     ///< arrays and objects that are open, this one among them
  uint8_t phase = 0;
  uint8_t blanks = 0;  ///< in a row
  uint8_t utf8 = 0;    ///< of a character that is not whole
  uint8_t flags = 0;
  uint32_t a = 0;
  uint32_t b = 0;
  uint32_t c = 0;
  std::array<uint64_t, 2> bits{};

  bool operator==(const Frame&) const = default;
};

/// The frames below the top, shared by the ways that went on from them.
struct Link {
  Frame frame;
  std::shared_ptr<const Link> below;
};

/// One way to read the text so far.
struct Way {
  Frame top;
  std::shared_ptr<const Link> below;  ///< null below the whole document
};

/// All ways, none twice.
using Ways = std::vector<Way>;

/// Before the first byte.
Ways beginning();

/// The ways from `from` on behind `byte`; none where it is not allowed. `to` is another
/// list, which keeps its memory. At most 256 ways go on, the first ones.
void step(const Grammar& grammar, const Ways& from, uint8_t byte, Ways& to);

/// Whether both go on in the same way, whatever comes.
bool same(const Ways& a, const Ways& b);

/// Whether the document may end here.
bool canEnd(const Grammar& grammar, const Ways& ways);

/// Whether nothing but blanks can follow.
bool isOver(const Ways& ways);

}  // namespace zem::text::grammar
