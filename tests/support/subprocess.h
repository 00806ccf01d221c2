// SPDX-License-Identifier: Apache-2.0
// Runs a program as a user would, through pipes or on a pseudo-terminal.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zemtest {

using Environment = std::map<std::string, std::string>;  // an empty value unsets

struct ProcessResult {
  int status = -1;  // exit status, or 128 + the signal that ended it
  std::string out;
  std::string err;
};

namespace detail {

inline int exitStatus(int waited) {
  return WIFEXITED(waited) ? WEXITSTATUS(waited) : 128 + WTERMSIG(waited);
}

// In the child; does not return.
[[noreturn]] inline void execute(const std::vector<std::string>& arguments,
                                 const Environment& environment) {
  for (const auto& [name, value] : environment) {
    if (value.empty()) {
      unsetenv(name.c_str());
    } else {
      setenv(name.c_str(), value.c_str(), 1);
    }
  }
  signal(SIGPIPE, SIG_DFL);  // as a shell would start it
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  _exit(127);
}

// Appends what can be read; false at the end.
inline bool drain(int fd, std::string& text) {
  std::array<char, 4096> chunk;
  const ssize_t got = read(fd, chunk.data(), chunk.size());
  if (got > 0) text.append(chunk.data(), static_cast<size_t>(got));
  return got > 0;
}

}  // namespace detail

// Runs `arguments` with `input` on stdin and waits for its end.
inline ProcessResult runProcess(const std::vector<std::string>& arguments,
                                const std::string& input = {},
                                const Environment& environment = {}) {
  std::array<int, 2> in;
  std::array<int, 2> out;
  std::array<int, 2> err;
  if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0 ||
      pipe2(err.data(), O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2 failed";
    return {};
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    detail::execute(arguments, environment);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  // Inputs here are far smaller than a pipe's buffer. A child that reads none
  // of it may be gone already.
  signal(SIGPIPE, SIG_IGN);
  if (write(in[1], input.data(), input.size()) < 0) {
    EXPECT_EQ(errno, EPIPE);
  }
  close(in[1]);
  ProcessResult result;
  std::array<pollfd, 2> fds = {pollfd{out[0], POLLIN, 0}, pollfd{err[0], POLLIN, 0}};
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    poll(fds.data(), fds.size(), -1);
    if (fds[0].revents != 0 && !detail::drain(fds[0].fd, result.out)) fds[0].fd = -1;
    if (fds[1].revents != 0 && !detail::drain(fds[1].fd, result.err)) fds[1].fd = -1;
  }
  close(out[0]);
  close(err[0]);
  int waited = 0;
  waitpid(child, &waited, 0);
  result.status = detail::exitStatus(waited);
  return result;
}

// Whether this machine gives out pseudo-terminals; a bare container may not.
inline bool terminalsExist() {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  const bool exist =
      terminal >= 0 && ptsname(terminal) != nullptr && access(ptsname(terminal), F_OK) == 0;
  if (terminal >= 0) close(terminal);
  return exist;
}

// First line of a test that needs one.
#define ZEM_NEEDS_TERMINAL() \
  if (!zemtest::terminalsExist()) GTEST_SKIP() << "no pseudo-terminals here; is /dev/pts mounted?"

// A program on a terminal of its own. Ended with the object if need be.
class TerminalProcess {
 public:
  explicit TerminalProcess(const std::vector<std::string>& arguments,
                           const Environment& environment = {}) {
    winsize size{};
    size.ws_row = 40;
    size.ws_col = 200;
    int inner = -1;
    if (openpty(&terminal_, &inner, nullptr, nullptr, &size) != 0) return;
    tcgetattr(inner, &found_);  // the program may be quick to change it
    child_ = fork();
    if (child_ == 0) {
      ::close(terminal_);
      login_tty(inner);
      detail::execute(arguments, environment);
    }
    ::close(inner);
  }
  ~TerminalProcess() {
    if (child_ > 0) kill(child_, SIGKILL);
    wait();
    close(terminal_);
  }
  TerminalProcess(const TerminalProcess&) = delete;
  TerminalProcess& operator=(const TerminalProcess&) = delete;

  void type(std::string_view keys) {
    EXPECT_EQ(::write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  void send(int signalNumber) { kill(child_, signalNumber); }

  // Reads until `text` has been shown since the last such call; false after a minute.
  bool shows(std::string_view text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
      const size_t at = shown_.find(text, seen_);
      if (at != std::string::npos) {
        seen_ = at + text.size();
        return true;
      }
      pollfd fd{terminal_, POLLIN, 0};
      const bool late = std::chrono::steady_clock::now() > deadline;
      if (late || (poll(&fd, 1, 200) > 0 && !detail::drain(terminal_, shown_))) {
        ADD_FAILURE() << "waited for \"" << text << "\", the terminal shows:\n" << shown_;
        return false;
      }
    }
  }

  // Reads to the end and returns the exit status.
  int wait() {
    if (child_ <= 0) return status_;
    while (detail::drain(terminal_, shown_)) {
    }
    int waited = 0;
    waitpid(child_, &waited, 0);
    child_ = -1;
    return status_ = detail::exitStatus(waited);
  }

  // Everything so far, with the terminal's "\r\n" line ends.
  const std::string& shown() const { return shown_; }

  // Whether lines are edited by the kernel and echoed, as they were at first.
  bool isAsFound() const {
    termios now{};
    tcgetattr(terminal_, &now);
    return now.c_lflag == found_.c_lflag && now.c_iflag == found_.c_iflag &&
           now.c_oflag == found_.c_oflag;
  }

 private:
  pid_t child_ = -1;
  int terminal_ = -1;
  int status_ = -1;
  termios found_{};
  std::string shown_;
  size_t seen_ = 0;
};

}  // namespace zemtest
