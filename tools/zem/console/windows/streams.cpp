// SPDX-License-Identifier: Apache-2.0
#include "console/streams.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <iostream>

#include "compat/handles_windows.h"
#include "compat/text_windows.h"

namespace zemtool {
namespace {

constexpr wchar_t kEndMark = 0x1A;      // Ctrl-Z
constexpr size_t kConsoleChars = 8192;  // more at once fails on old systems

// A console's settings as they were found.
UINT foundCodePage = 0;
std::array<DWORD, 3> foundModes;
std::array<bool, 3> changedModes;

bool consoleMode(int stream, DWORD& mode) {
  return _isatty(stream) != 0 && GetConsoleMode(compat::handleOf(stream), &mode) != 0;
}

void allowEscapes(int stream) {
  DWORD mode = 0;
  if (!consoleMode(stream, mode)) return;
  const auto index = static_cast<size_t>(stream);
  foundModes[index] = mode;
  changedModes[index] =
      SetConsoleMode(compat::handleOf(stream), mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

void putBack() {
  for (const int stream : {1, 2}) {
    const auto index = static_cast<size_t>(stream);
    if (changedModes[index]) SetConsoleMode(compat::handleOf(stream), foundModes[index]);
  }
  if (foundCodePage != 0) SetConsoleOutputCP(foundCodePage);
}

// Called when the process is about to end without returning from main.
BOOL WINAPI putBackAtTheEnd(DWORD /*event*/) {
  putBack();
  return FALSE;  // the next handler is called, and ends the process
}

// Writes UTF-16. A console decodes the bytes of each call apart, and the C library may write
// one byte a call.
bool writeToConsole(HANDLE console, std::string_view utf8) {
  const std::wstring text = compat::toWide(utf8);
  for (size_t done = 0; done < text.size();) {
    size_t piece = std::min(kConsoleChars, text.size() - done);
    const wchar_t last = text[done + piece - 1];
    if (done + piece < text.size() && last >= 0xD800 && last < 0xDC00) --piece;  // half a pair
    DWORD written = 0;
    if (WriteConsoleW(console, &text[done], static_cast<DWORD>(piece), &written, nullptr) == 0 ||
        written == 0) {
      errno = EIO;
      return false;
    }
    done += written;
  }
  return true;
}

// Call it after a failure of the C library, which sets EINVAL when the reader of a pipe has
// gone. Sets EPIPE instead. Always false.
bool failedToWrite() {
  const auto code = _doserrno;
  if (code == ERROR_NO_DATA || code == ERROR_BROKEN_PIPE || code == ERROR_PIPE_NOT_CONNECTED) {
    errno = EPIPE;
  }
  return false;
}

Input readConsoleLine(HANDLE console, std::string& line) {
  std::wstring text;
  std::array<wchar_t, 1024> piece;
  while (text.empty() || text.back() != L'\n') {
    DWORD got = 0;
    SetLastError(ERROR_SUCCESS);
    if (ReadConsoleW(console, piece.data(), piece.size(), &got, nullptr) == 0) return Input::End;
    if (got == 0) {
      return GetLastError() == ERROR_OPERATION_ABORTED ? Input::Interrupted : Input::End;
    }
    text.append(piece.data(), got);
  }
  if (text.front() == kEndMark) return Input::End;
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r')) text.pop_back();
  line = compat::toUtf8(text);
  return Input::Line;
}

}  // namespace

StandardStreams::StandardStreams() {
  for (const int stream : {0, 1, 2}) {
    if (compat::handleOf(stream) != INVALID_HANDLE_VALUE) _setmode(stream, _O_BINARY);
  }
  DWORD unused = 0;
  if (consoleMode(1, unused) || consoleMode(2, unused)) {
    foundCodePage = GetConsoleOutputCP();
    SetConsoleOutputCP(CP_UTF8);
  }
  allowEscapes(1);
  allowEscapes(2);
  SetConsoleCtrlHandler(putBackAtTheEnd, TRUE);
}

StandardStreams::~StandardStreams() {
  std::fflush(nullptr);
  SetConsoleCtrlHandler(putBackAtTheEnd, FALSE);
  putBack();
}

bool isTerminal(int stream) {
  DWORD mode = 0;
  return consoleMode(stream, mode);
}

bool obeysEscapes(int stream) {
  DWORD mode = 0;
  return consoleMode(stream, mode) && (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

bool flushOutput() { return std::fflush(stdout) == 0 || failedToWrite(); }

bool writeText(int stream, std::string_view text) {
  std::FILE* file = stream == 1 ? stdout : stderr;
  if (isTerminal(stream)) {
    return std::fflush(file) == 0 && writeToConsole(compat::handleOf(stream), text);
  }
  return std::fwrite(text.data(), 1, text.size(), file) == text.size() || failedToWrite();
}

const char* const kEndKeys = "Ctrl-Z with Enter";

Input readLine(std::string& line) {
  line.clear();
  if (isTerminal(0)) return readConsoleLine(compat::handleOf(0), line);
  return std::getline(std::cin, line) ? Input::Line : Input::End;
}

bool readInput(std::string& text) {
  if (isTerminal(0)) {
    std::string line;
    while (readConsoleLine(compat::handleOf(0), line) == Input::Line) text += line + "\n";
    return true;
  }
  std::array<char, 65536> chunk;
  size_t got = 0;
  while ((got = std::fread(chunk.data(), 1, chunk.size(), stdin)) > 0) {
    text.append(chunk.data(), got);
  }
  return std::ferror(stdin) == 0;
}

}  // namespace zemtool
