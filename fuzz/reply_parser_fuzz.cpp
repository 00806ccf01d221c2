// SPDX-License-Identifier: Apache-2.0
// Any text as a reply. Two bytes choose how it begins and how it is cut; the events are
// the same however that is, and every call has valid JSON.
#include "engine/text/reply_parser.h"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/json.h"
#include "fuzz.h"

namespace {

using zem::text::ArgumentKinds;
using zem::text::Json;
using zem::text::ReplyEvent;
using zem::text::ReplyOptions;
using zem::text::ReplyParser;
using zemfuzz::require;

const ArgumentKinds& kinds() {
  static const ArgumentKinds all(std::vector<Json>{Json::parse(R"({"name": "f", "parameters": {
      "properties": {"s": {"type": "string"}, "z": {"type": ["string", "null"]}, "n": {}}}})")});
  return all;
}

std::vector<ReplyEvent> read(std::string_view reply, const ReplyOptions& options, size_t step) {
  ReplyParser parser(options, kinds());
  std::vector<ReplyEvent> events;
  for (size_t at = 0; at < reply.size(); at += step) {
    parser.feed(reply.substr(at, step), events);
    require(parser.held() <= 256 + options.longestHeldArgument, "too much is held back");
  }
  parser.finish(events);
  require(parser.held() == 0, "something is held back at the end");
  return events;
}

void checkCalls(const std::vector<ReplyEvent>& events, bool isText) {
  using Kind = ReplyEvent::Kind;
  size_t calls = 0;
  bool open = false;
  std::string arguments;
  for (const ReplyEvent& event : events) {
    require(event.text.empty() == (event.kind == Kind::CallEnd), "an event without a text");
    if (event.kind == Kind::CallBegin) {
      require(!open && event.call == calls, "a call inside another");
      open = true;
      arguments.clear();
    } else if (event.kind == Kind::CallArguments) {
      require(open && event.call == calls, "arguments outside a call");
      arguments += event.text;
    } else if (event.kind == Kind::CallEnd) {
      require(open && event.call == calls, "an end outside a call");
      require(!isText || Json::accept(arguments), "arguments that are not JSON");
      open = false;
      ++calls;
    } else {
      require(!open, "text inside a call");
    }
  }
  require(!open, "a call without an end");
}

// Bytes that are not UTF-8 pass through, into JSON too.
bool isUtf8(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' || c == '\\' || (c >= 0 && c < 0x20) ? ' ' : c;
  return Json::accept(quoted + "\"");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zemfuzz::Input input(data, size);
  const uint8_t flags = input.byte();
  const size_t step = input.byte() + size_t{1};
  const std::string reply = input.rest();
  ReplyOptions options;
  options.thinking = (flags & 1) != 0;
  options.calls = (flags & 2) == 0;
  if ((flags & 4) != 0) options.longestHeldArgument = 16;
  const std::vector<ReplyEvent> whole = read(reply, options, reply.size() + 1);
  checkCalls(whole, isUtf8(reply));
  require(read(reply, options, 1) == whole, "bytes one by one give other events");
  require(read(reply, options, step) == whole, "deltas give other events");
  return 0;
}
