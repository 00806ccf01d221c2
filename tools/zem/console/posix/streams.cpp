// SPDX-License-Identifier: Apache-2.0
#include "console/streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace zemtool {

StandardStreams::StandardStreams() {
  std::setlocale(LC_CTYPE, "");
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    // The lowest free number is this one.
    if (open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0) return;
  }
}

StandardStreams::~StandardStreams() = default;

bool isTerminal(int stream) { return isatty(stream) == 1; }

bool obeysEscapes(int stream) {
  const char* term = std::getenv("TERM");
  return isTerminal(stream) && term != nullptr && std::strcmp(term, "dumb") != 0;
}

bool writeText(int stream, std::string_view text) {
  std::FILE* file = stream == STDOUT_FILENO ? stdout : stderr;
  return std::fwrite(text.data(), 1, text.size(), file) == text.size();
}

bool flushOutput() { return std::fflush(stdout) == 0; }

const char* const kEndKeys = "Ctrl-D";

Input readLine(std::string& line) {
  line.clear();
  return std::getline(std::cin, line) ? Input::Line : Input::End;
}

bool readInput(std::string& text) {
  std::array<char, 65536> chunk;
  size_t got = 0;
  while ((got = std::fread(chunk.data(), 1, chunk.size(), stdin)) > 0) {
    text.append(chunk.data(), got);
  }
  return std::ferror(stdin) == 0;
}

}  // namespace zemtool
