// SPDX-License-Identifier: Apache-2.0
#include "convert/json_file.h"

#include <filesystem>
#include <unordered_set>
#include <vector>

#include "compat/files.h"
#include "console/terminal.h"
#include "kiv/container/mapped_file.h"

namespace zemtool {
namespace {

constexpr int kMaxDepth = 64;  // the library's own recursive parts stay far from the stack's end

// Throws at the second use of a key in an object, and at too many levels.
class StructureCheck {
 public:
  explicit StructureCheck(const std::string& where) : where_(where) {}

  bool operator()(int depth, json::parse_event_t event, const json& value) {
    if (depth > kMaxDepth) throw Failure(where_ + ": nested deeper than 64 levels");
    if (event == json::parse_event_t::object_start) keys_.emplace_back();
    if (event == json::parse_event_t::object_end) keys_.pop_back();
    if (event == json::parse_event_t::key) {
      const auto& key = value.get_ref<const std::string&>();
      if (!keys_.back().insert(key).second) {
        throw Failure(where_ + ": \"" + key.substr(0, 80) + "\" occurs twice");
      }
    }
    return true;
  }

 private:
  const std::string& where_;
  std::vector<std::unordered_set<std::string>> keys_;  // of the objects that are open
};

// The library's messages begin with "[json.exception.parse_error.101] parse error ".
std::string reasonOf(const json::exception& error) {
  const std::string text = error.what();
  const size_t bracket = text.find("] ");
  return bracket == std::string::npos ? text : text.substr(bracket + 2);
}

}  // namespace

json parseJson(std::string_view text, const std::string& where) {
  StructureCheck check(where);
  json value;
  try {
    value = json::parse(text.begin(), text.end(), std::ref(check));
  } catch (const json::exception& error) {
    throw Failure(where + ": " + reasonOf(error));
  }
  if (!value.is_object()) throw Failure(where + ": not a JSON object");
  return value;
}

bool readFileIfAny(const std::string& path, uint64_t maxBytes, std::string& text) {
  std::error_code error;
  if (!std::filesystem::exists(compat::pathOf(path), error) && !error) return false;
  kiv::MappedFile file;
  if (const kiv::Status status = file.open(path); !status.ok()) throw Failure(status.message());
  if (file.size() > maxBytes) {
    throw Failure(path + ": has " + std::to_string(file.size()) + " bytes, at most " +
                  std::to_string(maxBytes) + " are expected");
  }
  text.assign(reinterpret_cast<const char*>(file.data()), file.size());
  return true;
}

const json* member(const json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(key);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

}  // namespace zemtool
