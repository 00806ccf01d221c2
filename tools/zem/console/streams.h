// SPDX-License-Identifier: Apache-2.0
// The process's standard streams 0, 1 and 2. Text is UTF-8, and bytes pass unchanged, on
// every system.
#pragma once

#include <string>
#include <string_view>

namespace zemtool {

// Prepares the streams. A program makes one before anything else and keeps it to its end.
//
// A program may be started with a stream closed. The system would give the stream's number
// to the next file that is opened, and messages would end up in that file. This object takes
// such a number, and using the stream stays an error. The destructor gives a console its
// settings back.
class StandardStreams {
 public:
  StandardStreams();
  // Empty except on Windows. NOLINTNEXTLINE(performance-trivially-destructible)
  ~StandardStreams();
  StandardStreams(const StandardStreams&) = delete;
  StandardStreams& operator=(const StandardStreams&) = delete;
};

bool isTerminal(int stream);
// Whether the stream is a terminal that obeys escape sequences.
bool obeysEscapes(int stream);

// Appends whole characters to C's stdout (stream 1) or stderr (2); the caller flushes. False
// on failure, with errno set as flushOutput() sets it.
bool writeText(int stream, std::string_view text);

// Flushes C's stdout. False on failure, with errno set: EPIPE when the reader has gone.
bool flushOutput();

// The keys that end standard input on a terminal.
extern const char* const kEndKeys;

enum class Input { Line, Interrupted, End };

// Reads one line of standard input, without its line feed. `line` is empty after any other
// event. Only a console of Windows gives Interrupted; other systems send a signal.
Input readLine(std::string& line);

// Appends all of standard input to `text`. False when reading failed, with errno set.
bool readInput(std::string& text);

}  // namespace zemtool
