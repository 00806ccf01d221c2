// SPDX-License-Identifier: Apache-2.0
#include "libzem/outcome.h"

#include <cstdio>
#include <exception>
#include <new>

namespace zem::boundary {
namespace {

// Plain bytes: there when memory is out, and never destroyed before a thread's last call.
thread_local char lastText[2048];
thread_local int callbacks = 0;

Outcome outcomeOf(const kiv::Status& status, zem_code badFormat) {
  switch (status.code()) {
    case kiv::StatusCode::Ok:
      return {};
    case kiv::StatusCode::IOError:
      return failure(ZEM_ERROR_FILE, status.message());
    case kiv::StatusCode::Unsupported:
      return failure(ZEM_ERROR_UNSUPPORTED, status.message());
    default:
      return failure(badFormat, status.message());
  }
}

// Bytes of the character that begins with `lead`.
size_t lengthOfCharacter(char lead) {
  const auto byte = static_cast<unsigned char>(lead);
  if (byte >= 0xF0U) return 4;
  if (byte >= 0xE0U) return 3;
  return byte >= 0xC0U ? 2 : 1;
}

// A text that was cut must not end inside a character.
void dropPartialCharacter(char* text, size_t length) {
  size_t lead = length;
  while (lead > 0 && (static_cast<unsigned char>(text[lead - 1]) & 0xC0U) == 0x80U) --lead;
  if (lead == 0) return;
  --lead;
  if (length - lead < lengthOfCharacter(text[lead])) text[lead] = '\0';
}

}  // namespace

Outcome ofFile(const kiv::Status& status) { return outcomeOf(status, ZEM_ERROR_FORMAT); }
Outcome ofRequest(const kiv::Status& status) { return outcomeOf(status, ZEM_ERROR_REQUEST); }

zem_code report(const char* call, zem_code code, const char* message) noexcept {
  if (code == ZEM_OK || code == ZEM_TIMEOUT || code == ZEM_FINISHED) return code;
  const int length = std::snprintf(lastText, sizeof lastText, "%s: %s", call, message);
  if (length >= static_cast<int>(sizeof lastText)) {
    dropPartialCharacter(lastText, sizeof lastText - 1);
  }
  return code;
}

zem_code report(const char* call, const Outcome& outcome) noexcept {
  return report(call, outcome.code, outcome.message.c_str());
}

zem_code reportException(const char* call) noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return report(call, ZEM_ERROR_MEMORY, "out of memory");
  } catch (const std::exception& error) {
    return report(call, ZEM_ERROR_INTERNAL, error.what());
  } catch (...) {
    return report(call, ZEM_ERROR_INTERNAL, "an unknown exception");
  }
}

const char* lastError() noexcept { return lastText; }

InsideCallback::InsideCallback() { ++callbacks; }
InsideCallback::~InsideCallback() { --callbacks; }

Outcome outsideCallbacks() {
  if (callbacks == 0) return {};
  return failure(
      ZEM_ERROR_CALLBACK,
      "called inside a callback, and would wait for the callback's thread; call it from another "
      "thread");
}

}  // namespace zem::boundary
