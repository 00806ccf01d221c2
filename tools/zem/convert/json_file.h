// SPDX-License-Identifier: Apache-2.0
// JSON files of a checkpoint. They are input that nothing vouches for.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace zemtool {

using nlohmann::json;

// Parses `text`, an object. Throws Failure, "WHERE: what is wrong", for text that is not JSON,
// is nested deeper than 64, or names a key twice in one object. The result takes up to about
// 32 bytes for each byte of text, so bound the text's length first.
json parseJson(std::string_view text, const std::string& where);

// Reads the file into `text`. False when there is no file of that name. Throws Failure when it
// cannot be read or is larger than `maxBytes`.
bool readFileIfAny(const std::string& path, uint64_t maxBytes, std::string& text);

// A member of an object, or null; null counts as absent.
const json* member(const json& object, const char* key);

}  // namespace zemtool
