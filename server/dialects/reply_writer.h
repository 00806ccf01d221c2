// SPDX-License-Identifier: Apache-2.0
// How a dialect writes replies: as a stream while they come, or whole.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/request.h"
#include "engine/text/reply_parser.h"
#include "server/api_error.h"
#include "server/dialects/content_tokens.h"
#include "server/dialects/json_text.h"

namespace zem::server {

// What an answer says of itself.
struct ReplyFacts {
  std::string id;       // of the answer
  std::string model;    // the name that clients know
  int64_t created = 0;  // seconds since 1970
  size_t promptTokens = 0;
};

// What one token brought.
struct ReplyStep {
  size_t choice = 0;
  std::span<const text::ReplyEvent> events;
  std::span<const ContentToken> tokens;  // of the content; with log-probabilities alone
};

struct ReplyEnd {
  size_t choice = 0;
  End end;
  bool called = false;  // a tool
  size_t reasoningTokens = 0;
};

struct PromptProgress {
  size_t choice = 0;
  size_t total = 0;      // tokens
  size_t reused = 0;     // of them
  size_t processed = 0;  // of them, reused ones among them
  double seconds = 0.0;  // since the prompt was begun
};

// A reply when it is over.
struct WholeReply {
  struct Call {
    std::string name;
    std::string arguments;
    bool complete = true;
  };
  std::string reasoning;
  std::string content;
  std::vector<Call> calls;
  std::vector<ContentToken> tokens;  // of the content; with log-probabilities alone
  ReplyEnd end;

  void add(const ReplyStep& step);
};

// Writes one answer, of one choice or several. Either begin(), any number of prompt() and step(),
// one end() a choice, finish(); or whole(). error() may end a stream at any place. Pure: what
// comes out is to be sent. One thread at a time.
class ReplyWriter {
 public:
  ReplyWriter() = default;
  ReplyWriter(const ReplyWriter&) = delete;
  ReplyWriter& operator=(const ReplyWriter&) = delete;
  virtual ~ReplyWriter() = default;

  virtual std::string streamType() const { return "text/event-stream"; }  // content-type
  virtual std::string ping() const { return ": ping\n\n"; }
  virtual std::string begin() { return {}; }
  virtual std::string prompt(const PromptProgress& /*progress*/) { return {}; }
  virtual std::string step(const ReplyStep& step) = 0;
  virtual std::string end(const ReplyEnd& end) = 0;
  virtual std::string finish() { return {}; }
  virtual std::string error(const ApiError& error) = 0;
  virtual std::string whole(std::span<const WholeReply> replies) = 0;  // JSON
};

// Of several choices. Each `sharing` of them in a row have one prompt, which counts once; 0: all.
Usage sumOf(std::span<const ReplyEnd> ends, size_t sharing = 0);

// Times and counts of a reply as {"cache_n", "prompt_n", "prompt_ms", ...}.
Json timingsJson(const Usage& usage);

}  // namespace zem::server
