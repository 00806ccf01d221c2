// SPDX-License-Identifier: Apache-2.0
/// \file
/// JSON of chat requests: read within limits, key order kept. Who looks into a value
/// includes <nlohmann/json.hpp>, which takes a second to compile.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "kiv/status.h"

namespace zem::text {

/// Objects keep the order of their keys: a prompt shows tools as the client wrote them.
using Json = nlohmann::ordered_json;

/// The deepest nesting that parseJson() reads. Functions that take a Json recurse as
/// deep as it is nested, so give them values within this.
inline constexpr int kMaxJsonDepth = 128;

/// Reads `text` in time linear in its length; the result takes up to about 40 bytes a
/// byte of text. Of a key that occurs twice, the last value counts, in the place of the
/// first. Fails, "WHERE: what is wrong", for text that is not JSON, nesting deeper than
/// kMaxJsonDepth, and integers that 64 bits cannot hold. `out` is null then. Any thread.
kiv::Status parseJson(std::string_view text, std::string_view where, Json& out);

/// "a number", "an object": the type of `value` for a message.
std::string_view kindOf(const Json& value);

/// A member of an object, or null. A member that is null, and any member of what is not
/// an object, counts as absent.
const Json* memberOf(const Json& object, std::string_view key);

/// What the reference "#/a/b" (RFC 6901, in a document) names inside `root`, which "#"
/// names itself. Null where there is nothing, and for references to other documents.
const Json* referenced(const Json& root, std::string_view reference);

}  // namespace zem::text
