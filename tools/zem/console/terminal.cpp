// SPDX-License-Identifier: Apache-2.0
#include "console/terminal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "console/streams.h"
#include "console/text.h"

namespace zemtool {
namespace {

constexpr int kStdin = 0;
constexpr int kStdout = 1;
constexpr int kStderr = 2;

int outputError = 0;  // errno of the first write to stdout that failed

void checkOutput(bool written) {
  if (!written && outputError == 0) outputError = errno;
  if (outputError == EPIPE) throw ClosedPipe();
  if (outputError != 0) {
    throw Failure(std::string("cannot write to standard output: ") + std::strerror(outputError));
  }
}

void flushQuietly() {
  if (!flushOutput() && outputError == 0) outputError = errno;
}

bool stderrIsStyled() {
  const char* noColor = std::getenv("NO_COLOR");
  return (noColor == nullptr || *noColor == '\0') && obeysEscapes(kStderr);
}

std::string dimmed(std::string_view text) {
  const std::string shown = escapeControls(text, "\n");
  return stderrIsStyled() ? "\033[2m" + shown + "\033[0m" : shown;
}

// In one piece, so that lines of several threads do not mix and no character is
// torn apart on its way to a console.
void writeError(const std::string& text) { writeText(kStderr, text); }

}  // namespace

volatile int interruptFlag = 0;

int guarded(const std::function<void()>& command) {
  try {
    command();
    flushOut();
    return 0;
  } catch (const Failure& failure) {
    complain(failure.what());
  } catch (const ClosedPipe&) {
    // The status alone says it.
  } catch (const std::bad_alloc&) {
    complain("out of memory");
  }
  return 1;
}

void requireText(const std::string& text, const std::string& where) {
  const size_t at = text.find('\0');
  if (at == std::string::npos) return;
  throw Failure("the prompt from " + where + " holds a NUL byte at offset " + std::to_string(at) +
                "; a prompt is text");
}

bool stdinIsTerminal() { return isTerminal(kStdin); }
bool stdoutIsTerminal() { return isTerminal(kStdout); }
bool stderrIsTerminal() { return isTerminal(kStderr); }

void writeOut(std::string_view text) { checkOutput(writeText(kStdout, text)); }

void flushOut() { checkOutput(flushOutput()); }

void writeExact(std::string_view text) {
  if (!stdoutIsTerminal()) {
    writeOut(text);
    return;
  }
  writeOut(escapeControls(text, "\n\t"));
  if (!text.ends_with('\n')) writeOut("\n");
}

void writeJson(const nlohmann::ordered_json& value) {
  // A terminal would obey some of the characters beyond ASCII.
  writeOut(
      value.dump(2, ' ', stdoutIsTerminal(), nlohmann::ordered_json::error_handler_t::replace) +
      "\n");
}

void complain(std::string_view message) {
  flushQuietly();
  writeError("zem: " + escapeControls(message) + "\n");
}

void remark(std::string_view text) {
  flushOut();
  writeError(dimmed(text) + "\n");
}

void remarkPart(std::string_view text) {
  flushOut();
  writeError(dimmed(text));
}

InterruptGuard::InterruptGuard() : handler_([] { interruptFlag = 1; }) {}

}  // namespace zemtool
