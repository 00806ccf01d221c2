// SPDX-License-Identifier: Apache-2.0
// The functions that need no handle.
#include <nlohmann/json.hpp>

#include "engine/text/json.h"
#include "libzem/arguments.h"

using namespace zem::boundary;  // NOLINT(google-build-using-namespace)

extern "C" {

uint32_t zem_api_version() noexcept { return ZEM_API_VERSION; }
const char* zem_version() noexcept { return ZEM_LIBRARY_VERSION; }
const char* zem_last_error() noexcept { return lastError(); }

const char* zem_code_name(int32_t code) noexcept {
  static constexpr const char* kNames[] = {"ZEM_OK",
                                           "ZEM_ERROR_ARGUMENT",
                                           "ZEM_ERROR_HANDLE",
                                           "ZEM_ERROR_CALLBACK",
                                           "ZEM_ERROR_BUSY",
                                           "ZEM_ERROR_SPACE",
                                           "ZEM_ERROR_REQUEST",
                                           "ZEM_ERROR_QUEUE",
                                           "ZEM_ERROR_FILE",
                                           "ZEM_ERROR_FORMAT",
                                           "ZEM_ERROR_UNSUPPORTED",
                                           "ZEM_ERROR_MEMORY",
                                           "ZEM_ERROR_INTERNAL",
                                           "ZEM_TIMEOUT",
                                           "ZEM_FINISHED"};
  static_assert(std::size(kNames) == ZEM_FINISHED + 1);
  return code >= 0 && code <= ZEM_FINISHED ? kNames[code] : "unknown code";
}

zem_code zem_quote_json(const char* text, size_t size, char* out, size_t capacity,
                        size_t* length) noexcept {
  return guarded(__func__, [&] {
    std::string_view given;
    Outcome outcome = readText("text", text, size, given);
    if (!outcome.ok()) return outcome;
    using zem::text::Json;
    const std::string quoted =
        Json(std::string(given)).dump(-1, ' ', false, Json::error_handler_t::replace);
    return writeItems(quoted, out, capacity, length);
  });
}

}  // extern "C"
