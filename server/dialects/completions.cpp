// SPDX-License-Identifier: Apache-2.0
#include "server/dialects/completions.h"

#include <algorithm>
#include <limits>

namespace zem::server {
namespace {

constexpr size_t kMostCompletionLogProbabilities = 20;
constexpr double kLeastCompletionLogProbability = -9999.0;
constexpr const char* kPromptNeeded =
    "a text, a list of ids, a list of texts and ids, or a list of such prompts";

bool isId(const Json& value) { return value.is_number_integer() || value.is_number_unsigned(); }

uint32_t readId(const Json& value, const std::string& field) {
  const bool fits =
      value.is_number_unsigned() && value.get<uint64_t>() <= std::numeric_limits<uint32_t>::max();
  if (!fits) failField(field, &value, "an id of a token");
  return value.get<uint32_t>();
}

// A list of texts and ids is one prompt.
RawPrompt readMixed(const Json& list, const std::string& field) {
  RawPrompt prompt;
  for (size_t i = 0; i < list.size(); ++i) {
    const std::string place = field + "[" + std::to_string(i) + "]";
    if (list[i].is_string()) {
      prompt.pieces.push_back({list[i].get<std::string>(), {}});
      continue;
    }
    if (!isId(list[i])) failField(place, &list[i], "a text or an id of a token");
    if (prompt.pieces.empty()) prompt.pieces.emplace_back();
    prompt.pieces.back().ids.push_back(readId(list[i], place));
  }
  return prompt;
}

std::vector<RawPrompt> readPrompts(const Fields& fields) {
  const Json* value = fields.find("prompt");
  if (value == nullptr) fields.fail("prompt", kPromptNeeded);
  if (value->is_string()) return {{{{value->get<std::string>(), {}}}}};
  if (!value->is_array() || value->empty()) fields.fail("prompt", kPromptNeeded);
  const auto is = [&](auto test) { return std::any_of(value->begin(), value->end(), test); };
  const bool hasIds = is([](const Json& part) { return isId(part); });
  const bool hasLists = is([](const Json& part) { return part.is_array(); });
  if (hasIds && !hasLists) return {readMixed(*value, "prompt")};
  if (value->size() > kMostPrompts) {
    failField("prompt", value, "at most " + std::to_string(kMostPrompts) + " prompts");
  }
  std::vector<RawPrompt> prompts;
  for (size_t i = 0; i < value->size(); ++i) {
    const Json& part = (*value)[i];
    const std::string field = "prompt[" + std::to_string(i) + "]";
    if (part.is_array()) {
      prompts.push_back(readMixed(part, field));
    } else if (part.is_string()) {
      prompts.push_back({{{part.get<std::string>(), {}}}});
    } else {
      failField(field, &part, "a text or a list");
    }
  }
  return prompts;
}

class CompletionWriter : public ReplyWriter {
 public:
  CompletionWriter(const ReplyFacts& facts, const CompletionCall& call,
                   std::vector<std::string> echoes)
      : facts_(facts),
        form_(call.form),
        perPrompt_(call.form.choices / call.prompts.size()),
        echoes_(std::move(echoes)),
        offsets_(call.form.choices) {}

  std::string begin() override {
    std::string text;
    for (size_t i = 0; i < form_.choices && !echoes_.empty(); ++i) {
      text += part(i, echo(i), {}, nullptr);
    }
    return text;
  }

  std::string step(const ReplyStep& step) override {
    std::string said;
    for (const text::ReplyEvent& event : step.events) said += event.text;
    if (said.empty() && step.tokens.empty()) return {};
    return part(step.choice, said, step.tokens, nullptr);
  }

  std::string end(const ReplyEnd& end) override {
    ends_.push_back(end);
    return part(end.choice, "", {}, finishReason(end));
  }

  std::string finish() override {
    std::string text;
    if (form_.streamsUsage) text = eventText({}, withUsage(frame(Json::array())));
    return text + "data: [DONE]\n\n";
  }

  std::string error(const ApiError& error) override {
    return "data: " + errorBody(Dialect::OpenAi, error) + "\n\n";
  }

  std::string whole(std::span<const WholeReply> replies) override {
    Json choices = Json::array();
    for (const WholeReply& reply : replies) {
      ends_.push_back(reply.end);
      const size_t index = reply.end.choice;
      choices.push_back(
          choice(index, echo(index) + reply.content, reply.tokens, finishReason(reply.end)));
    }
    return jsonText(withUsage(frame(std::move(choices))));
  }

 private:
  std::string echo(size_t index) const {
    return echoes_.empty() ? std::string() : echoes_[index / perPrompt_];
  }

  Json frame(Json choices) const {
    return {{"id", facts_.id},
            {"object", "text_completion"},
            {"created", facts_.created},
            {"model", facts_.model},
            {"choices", std::move(choices)}};
  }

  Json withUsage(Json value) const {
    value["usage"] = usageJson(ends_, perPrompt_);
    value["timings"] = timingsJson(sumOf(ends_, perPrompt_));
    return value;
  }

  Json choice(size_t index, const std::string& text, std::span<const ContentToken> tokens,
              const Json& reason) {
    Json value = {{"index", index}, {"text", text}, {"logprobs", nullptr}};
    if (form_.logProbabilities) value["logprobs"] = logProbabilities(index, tokens);
    value["finish_reason"] = reason;
    return value;
  }

  std::string part(size_t index, const std::string& text, std::span<const ContentToken> tokens,
                   const Json& reason) {
    Json value = frame(Json::array({choice(index, text, tokens, reason)}));
    if (form_.streamsUsage) value["usage"] = nullptr;
    return eventText({}, value);
  }

  Json logProbabilities(size_t index, std::span<const ContentToken> tokens) {
    Json value = {{"tokens", Json::array()},
                  {"token_logprobs", Json::array()},
                  {"top_logprobs", Json::array()},
                  {"text_offset", Json::array()}};
    for (const ContentToken& token : tokens) {
      value["tokens"].push_back(token.bytes);
      value["token_logprobs"].push_back(
          std::max(token.logProbability, kLeastCompletionLogProbability));
      Json top = Json::object();
      for (const Alternative& other : token.likeliest) {
        top[other.bytes] = std::max(other.logProbability, kLeastCompletionLogProbability);
      }
      value["top_logprobs"].push_back(std::move(top));
      value["text_offset"].push_back(offsets_[index]);
      offsets_[index] += token.bytes.size();
    }
    return value;
  }

  ReplyFacts facts_;
  ReplyForm form_;
  size_t perPrompt_;
  std::vector<std::string> echoes_;
  std::vector<size_t> offsets_;  // bytes of each choice so far
  std::vector<ReplyEnd> ends_;
};

}  // namespace

CompletionCall readCompletion(const Json& body) {
  const Fields fields(body);
  fields.refuse({"suffix", "grammar", "response_format", "tools"});
  CompletionCall call;
  call.prompts = readPrompts(fields);
  const auto perPrompt = fields.count("n", 1, kMostChoices).value_or(1);
  if (const auto best = fields.count("best_of", 1, kMostChoices); best && *best != perPrompt) {
    throw ApiError(400, "best_of: is not supported; leave it out", "best_of",
                   "unsupported_parameter");
  }
  call.form.choices = call.prompts.size() * static_cast<size_t>(perPrompt);
  call.form.stream = fields.flag("stream").value_or(false);
  if (const Json* options = fields.object("stream_options")) {
    call.form.streamsUsage =
        Fields(*options, "stream_options").flag("include_usage").value_or(false);
  }
  call.form.echo = fields.flag("echo").value_or(false);
  if (const auto top = fields.count("logprobs", 0, kMostCompletionLogProbabilities)) {
    call.form.logProbabilities = true;
    call.logProbabilities = static_cast<size_t>(*top);
  }
  if (call.form.echo && call.form.logProbabilities) {
    throw ApiError(400, "logprobs: cannot be given for a prompt; leave echo out", "logprobs",
                   "unsupported_parameter");
  }
  call.sampling = readSampling(fields);
  call.stopTexts = readStops(fields, "stop");
  if (fields.find("max_tokens") != nullptr) call.maxTokens = readTokenLimit(fields, "max_tokens");
  return call;
}

kiv::Status encodePrompt(const Vocabulary& vocabulary, const RawPrompt& prompt,
                         std::vector<uint32_t>& ids) {
  ids.clear();
  for (const RawPrompt::Piece& piece : prompt.pieces) {
    std::vector<uint32_t> part;
    kiv::Status status = vocabulary.encode(piece.text, text::AddedTokens::Recognised, part);
    if (!status.ok()) return status;
    ids.insert(ids.end(), part.begin(), part.end());
    ids.insert(ids.end(), piece.ids.begin(), piece.ids.end());
  }
  return {};
}

std::string textOf(const Vocabulary& vocabulary, std::span<const uint32_t> ids) {
  std::string text;
  for (const uint32_t id : ids) text += vocabulary.bytesOf(id);
  return text;
}

std::unique_ptr<ReplyWriter> makeCompletionWriter(const ReplyFacts& facts,
                                                  const CompletionCall& call,
                                                  std::vector<std::string> echoes) {
  return std::make_unique<CompletionWriter>(facts, call, std::move(echoes));
}

}  // namespace zem::server
