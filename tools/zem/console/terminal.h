// The process's three streams: what they are, how to write to them, and what
// Ctrl-C does.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "console/interrupts.h"

namespace zemtool {

// Ends a command with status 1 and the line "zem: MESSAGE" on stderr.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Ends the program with status 2, as an option that does not parse would.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The reader of stdout has gone: nothing is left to say to anybody.
class ClosedPipe : public std::exception {};

// Runs a command and returns its exit status; a Failure has then been printed.
int guarded(const std::function<void()>& command);

bool stdinIsTerminal();
bool stdoutIsTerminal();
bool stderrIsTerminal();

// To stdout, unbuffered by us until flushOut() or the end; throws Failure or ClosedPipe.
void writeOut(std::string_view text);
void flushOut();
// A value to stdout, with a line feed; text that is no UTF-8 is replaced.
void writeJson(const nlohmann::ordered_json& value);

// The line "zem: MESSAGE" to stderr, controls escaped.
void complain(std::string_view message);
// A remark to stderr: lines without a prefix, dim on a terminal.
void remark(std::string_view text);

// While one lives, Ctrl-C sets interruptFlag and does nothing else. One at a time.
class InterruptGuard {
 public:
  InterruptGuard();

 private:
  compat::InterruptHandler handler_;
};

// Non-zero after an interrupt; whoever waits for the next one sets it to 0.
extern volatile int interruptFlag;

}  // namespace zemtool
