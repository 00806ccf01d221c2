// SPDX-License-Identifier: Apache-2.0
// What a user says in a conversation, turn by turn, on a terminal or through a pipe.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace zemtool {

enum class TurnForm : uint8_t {
  Line,   // each line is a turn
  Lines,  // a backslash at its end continues a line; """ stands before and behind a block of lines
};

// Takes a turn; false ends the conversation. On a terminal the next turn starts as `draft`, to be
// edited.
using TakeTurn = std::function<bool(const std::string& turn, std::string& draft)>;

// Whether a person can edit a draft.
bool conversesOnTerminal();

// Reads turns and gives each to `take`, until that returns false or the input ends. On a terminal
// Ctrl-C ends the line that is typed, and the conversation when it comes twice; a Failure of
// `take` is printed. Through a pipe it ends the conversation. An interrupt sets interruptFlag while
// `take` runs on a terminal.
void holdConversation(TurnForm form, const TakeTurn& take);

// For a help text, of both forms: how lines become a turn.
extern const char* const kLinesHelp;

}  // namespace zemtool
