// The process's standard streams, 0, 1 and 2: text is UTF-8 and bytes pass
// unchanged, on a console of Windows too.
#pragma once

#include <string>
#include <string_view>

namespace compat {

// Make one first thing in a program and keep it to the end. A stream that the
// caller closed stays an error to use, but its number is taken: no file gets it
// and is written messages into. A console is put back as it was found.
class StandardStreams {
 public:
  StandardStreams();
  // Does something on Windows alone. NOLINTNEXTLINE(performance-trivially-destructible)
  ~StandardStreams();
  StandardStreams(const StandardStreams&) = delete;
  StandardStreams& operator=(const StandardStreams&) = delete;
};

bool isTerminal(int stream);
// Whether it is a terminal that obeys escape sequences.
bool obeysEscapes(int stream);

// Writes to stream 1 or 2 behind what C's stdout and stderr hold; flushing those is
// the caller's. `text` holds whole characters. False on failure, with errno set as by
// flushOutput().
bool writeText(int stream, std::string_view text);

// Writes what C's stdout holds. False on failure, with errno set: EPIPE when nobody
// reads any more.
bool flushOutput();

// The keys that end standard input on a terminal.
extern const char* const kEndKeys;

enum class Input { Line, Interrupted, End };

// One line of standard input, without its line feed; empty after any other event.
// Interrupted is what a console of Windows tells; elsewhere signals do.
Input readLine(std::string& line);

// Appends all of standard input; false when reading failed, with errno set.
bool readInput(std::string& text);

}  // namespace compat
