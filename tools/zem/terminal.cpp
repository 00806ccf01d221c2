#include "terminal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "text.h"

namespace zemtool {
namespace {

struct sigaction previousAction;

int outputError = 0;  // errno of the first write to stdout that failed

void checkOutput(bool written) {
  if (!written && outputError == 0) outputError = errno;
  if (outputError == EPIPE) throw ClosedPipe();
  if (outputError != 0) {
    throw Failure(std::string("cannot write to standard output: ") + std::strerror(outputError));
  }
}

void flushQuietly() {
  if (std::fflush(stdout) != 0 && outputError == 0) outputError = errno;
}

bool stderrIsStyled() {
  const char* noColor = std::getenv("NO_COLOR");
  const char* term = std::getenv("TERM");
  return stderrIsTerminal() && (noColor == nullptr || *noColor == '\0') && term != nullptr &&
         std::strcmp(term, "dumb") != 0;
}

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
    // Said by the status alone.
  } catch (const std::bad_alloc&) {
    complain("out of memory");
  }
  return 1;
}

void holdStandardStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    // The lowest free number is this one.
    if (open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0) return;
  }
}

bool stdinIsTerminal() { return isatty(STDIN_FILENO) == 1; }
bool stdoutIsTerminal() { return isatty(STDOUT_FILENO) == 1; }
bool stderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void writeOut(std::string_view text) {
  checkOutput(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void flushOut() { checkOutput(std::fflush(stdout) == 0); }

void writeJson(const nlohmann::ordered_json& value) {
  // A terminal would obey some of the characters beyond ASCII.
  writeOut(
      value.dump(2, ' ', stdoutIsTerminal(), nlohmann::ordered_json::error_handler_t::replace) +
      "\n");
}

void complain(std::string_view message) {
  flushQuietly();
  std::fprintf(stderr, "zem: %s\n", escapeControls(message).c_str());
}

void remark(std::string_view text) {
  flushOut();
  const bool styled = stderrIsStyled();
  std::fprintf(stderr, "%s%s%s\n", styled ? "\033[2m" : "", escapeControls(text, "\n").c_str(),
               styled ? "\033[0m" : "");
}

InterruptGuard::InterruptGuard() {
  struct sigaction action {};
  action.sa_handler = [](int) { interruptFlag = 1; };
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // a blocked read returns, so that the prompt can notice
  sigaction(SIGINT, &action, &previousAction);
}

InterruptGuard::~InterruptGuard() { sigaction(SIGINT, &previousAction, nullptr); }

}  // namespace zemtool
