// SPDX-License-Identifier: Apache-2.0
// What commands write and how they fail: standard output, messages, Ctrl-C.
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

// Ends the program with status 2: the command line is wrong.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Ends a command with status 1 and without a message: the reader of stdout has gone.
class ClosedPipe : public std::exception {};

// Runs a command, prints the Failure that it throws, and returns its exit status.
int guarded(const std::function<void()>& command);

// Throws Failure when `text`, which came from `where`, holds a NUL byte.
void requireText(const std::string& text, const std::string& where);

bool stdinIsTerminal();
bool stdoutIsTerminal();
bool stderrIsTerminal();

// Writes to stdout, which is flushed by flushOut() or at the program's end. Both throw
// Failure or ClosedPipe.
void writeOut(std::string_view text);
void flushOut();
// Writes a text whose bytes matter: as it is to a file or a pipe. On a terminal control
// characters are spelled out, and a line feed ends it.
void writeExact(std::string_view text);
// Writes the value and a line feed to stdout. Bytes that are not UTF-8 are replaced.
void writeJson(const nlohmann::ordered_json& value);

// Writes the line "zem: MESSAGE" to stderr, with control characters spelled out.
void complain(std::string_view message);
// Writes lines without a prefix to stderr, dim on a terminal.
void remark(std::string_view text);
// Likewise, but without a line feed at the end.
void remarkPart(std::string_view text);

// While one lives, Ctrl-C sets interruptFlag and does nothing else. One at a time.
class InterruptGuard {
 public:
  InterruptGuard();

 private:
  InterruptHandler handler_;
};

// Non-zero after an interrupt. Code that waits for the next one sets it to 0.
extern volatile int interruptFlag;

}  // namespace zemtool
