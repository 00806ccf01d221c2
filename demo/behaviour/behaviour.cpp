// SPDX-License-Identifier: Apache-2.0
#include "demo/behaviour/behaviour.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <utility>

#include "engine/chat_request_json.h"
#include "engine/text/json.h"

namespace zem::behaviour {
namespace {

using kiv::Status;
using text::Json;
using text::ReplyEvent;

constexpr uint64_t kMostTokens = 400;  // more than any reply of a model that ends its replies

std::string textOf(const Json& object, std::string_view key) {
  const Json* value = text::memberOf(object, key);
  return value != nullptr && value->is_string() ? value->get<std::string>() : std::string();
}

Status readWanted(const Json& wants, Wanted& out) {
  const Json* thinks = text::memberOf(wants, "thinks");
  if (thinks == nullptr || !thinks->is_boolean()) {
    return kiv::invalidFormat("\"wants\" has no \"thinks\", needs true or false");
  }
  out.thinks = thinks->get<bool>();
  out.content = textOf(wants, "content");
  out.ends = textOf(wants, "ends");
  if (const Json* any = text::memberOf(wants, "any"); any != nullptr && any->is_array()) {
    for (const Json& one : *any) {
      if (one.is_string()) out.any.push_back(one.get<std::string>());
    }
  }
  if (const Json* call = text::memberOf(wants, "call")) {
    out.function = textOf(*call, "name");
    const Json* arguments = text::memberOf(*call, "arguments");
    if (out.function.empty() || arguments == nullptr) {
      return kiv::invalidFormat("\"call\" needs \"name\" and \"arguments\"");
    }
    out.arguments = arguments->dump();
  }
  return {};
}

Status readCase(std::string_view line, Case& out) {
  Json root;
  Status status = text::parseJson(line, "case", root);
  if (!status.ok()) return status;
  out.kind = textOf(root, "kind");
  const Json* request = text::memberOf(root, "request");
  const Json* wants = text::memberOf(root, "wants");
  if (out.kind.empty() || request == nullptr || wants == nullptr) {
    return kiv::invalidFormat("needs \"kind\", \"request\" and \"wants\"");
  }
  status = readChatRequest(request->dump(), out.request);
  return status.ok() ? readWanted(*wants, out.wanted) : status;
}

// Keeps a reply for wait().
class ReplyKeeper : public ChatListener {
 public:
  using ChatListener::ChatListener;

  Reply wait() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return hasEnded_; });
    return reply_;
  }

 protected:
  void onReply(const Token&, const std::vector<ReplyEvent>& events) override { keep(events); }
  void onReplyEnd(const End& end, const std::vector<ReplyEvent>& events) override {
    keep(events);
    const std::lock_guard lock(mutex_);
    reply_.reason = end.reason;
    hasEnded_ = true;
    ended_.notify_all();
  }

 private:
  void keep(const std::vector<ReplyEvent>& events) {
    const std::lock_guard lock(mutex_);
    for (const ReplyEvent& event : events) keep(event);
  }
  void keep(const ReplyEvent& event) {
    switch (event.kind) {
      case ReplyEvent::Kind::Reasoning:
        reply_.reasoning += event.text;
        break;
      case ReplyEvent::Kind::Content:
        reply_.content += event.text;
        break;
      case ReplyEvent::Kind::CallBegin:
        reply_.functions.push_back(event.text);
        reply_.arguments.emplace_back();
        break;
      case ReplyEvent::Kind::CallArguments:
        reply_.arguments.back() += event.text;
        break;
      case ReplyEvent::Kind::CallEnd:
        reply_.whole = reply_.whole && event.complete;
        break;
    }
  }

  std::mutex mutex_;
  std::condition_variable ended_;
  Reply reply_;
  bool hasEnded_ = false;
};

bool sameJson(const std::string& a, const std::string& b) {
  Json first;
  Json second;
  return text::parseJson(a, "a", first).ok() && text::parseJson(b, "b", second).ok() &&
         first == second;
}

std::string complaintAboutCalls(const Reply& reply, const Wanted& wanted) {
  if (wanted.function.empty()) return reply.functions.empty() ? "" : "calls a function";
  if (reply.functions.size() != 1) {
    return "has " + std::to_string(reply.functions.size()) + " calls, needs one";
  }
  if (!reply.whole) return "its call is malformed";
  if (reply.functions[0] != wanted.function) return "calls another function";
  if (!sameJson(reply.arguments[0], wanted.arguments)) return "calls with other arguments";
  return "";
}

std::string lineOf(const Case& one, const Reply& reply, const std::string& complaint) {
  std::string line = complaint + ": ";
  const auto& content = one.request.messages.back().content;
  line += content.empty() ? std::string() : content.front().text;
  line += " -> [" + reply.reasoning + "] " + reply.content;
  for (size_t i = 0; i < reply.functions.size(); ++i) {
    line += " " + reply.functions[i] + reply.arguments[i];
  }
  return line;
}

Rate& rateOf(const std::string& kind, std::vector<Rate>& rates) {
  const auto found =
      std::find_if(rates.begin(), rates.end(), [&](const Rate& r) { return r.kind == kind; });
  if (found != rates.end()) return *found;
  rates.push_back({kind, 0, 0, {}});
  return rates.back();
}

}  // namespace

Status readCases(std::string_view text, std::vector<Case>& out) {
  out.clear();
  size_t number = 0;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    ++number;
    if (line.empty()) continue;
    const Status status = readCase(line, out.emplace_back());
    if (!status.ok()) {
      return {status.code(), "line " + std::to_string(number) + ": " + status.message()};
    }
  }
  return {};
}

std::string complaintAbout(const Reply& reply, const Wanted& wanted) {
  if (reply.reason != EndReason::Stop) {
    return "ended with " + std::string(nameOf(reply.reason));
  }
  const bool thinks = !reply.reasoning.empty();
  if (thinks != wanted.thinks) return thinks ? "thinks" : "does not think";
  const std::string calls = complaintAboutCalls(reply, wanted);
  if (!calls.empty()) return calls;
  if (wanted.function.empty() && reply.content.empty()) return "says nothing";
  const auto says = [&](const std::string& what) {
    return reply.content.find(what) != std::string::npos;
  };
  if (!says(wanted.content)) return "lacks \"" + wanted.content + "\"";
  if (!wanted.any.empty() && std::none_of(wanted.any.begin(), wanted.any.end(), says)) {
    return "lacks \"" + wanted.any.front() + "\" and its like";
  }
  if (!reply.content.ends_with(wanted.ends)) return "does not end with \"" + wanted.ends + "\"";
  return "";
}

Status measure(Engine& engine, const std::vector<Case>& cases, std::vector<Rate>& out) {
  out.clear();
  std::vector<std::shared_ptr<ReplyKeeper>> replies;
  Status status;
  for (const Case& one : cases) {
    ChatRequest request = one.request;
    request.sampling.temperature = 0.0F;
    request.sampling.presencePenalty = 0.0F;
    request.maxTokens = kMostTokens;
    PreparedChat prepared;
    status = prepareChat(engine, request, prepared);
    if (!status.ok()) break;
    auto keeper = std::make_shared<ReplyKeeper>(prepared);
    RequestHandle handle;
    status = engine.submit(std::move(prepared.request), keeper, handle);
    if (!status.ok()) break;
    replies.push_back(std::move(keeper));
  }
  for (size_t i = 0; i < replies.size(); ++i) {
    const Reply reply = replies[i]->wait();
    const std::string complaint = complaintAbout(reply, cases[i].wanted);
    Rate& rate = rateOf(cases[i].kind, out);
    ++rate.asked;
    if (complaint.empty()) {
      ++rate.passed;
    } else {
      rate.failures.push_back(lineOf(cases[i], reply, complaint));
    }
  }
  return status;
}

}  // namespace zem::behaviour
