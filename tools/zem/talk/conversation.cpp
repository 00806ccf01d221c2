// SPDX-License-Identifier: Apache-2.0
#include "talk/conversation.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "console/terminal.h"
#include "talk/reply_record.h"

namespace zemtool {

using zem::text::ContentPart;
using zem::text::Json;
using zem::text::Message;
using zem::text::Role;

namespace {

Message textMessage(Role role, const std::string& text) {
  return {role, {{ContentPart::Kind::Text, text}}, {}, {}};
}

bool isFromUser(const Message& message) { return message.role == Role::User; }
bool isAnswered(const Message& message) {
  return message.role == Role::User || message.role == Role::Tool;
}

}  // namespace

void Conversation::ask(const std::string& text) {
  messages_.push_back(textMessage(Role::User, text));
}

void Conversation::answer(const std::string& text) {
  messages_.push_back(textMessage(Role::Tool, text));
}

void Conversation::add(Message reply) { messages_.push_back(std::move(reply)); }

bool Conversation::takeReplyBack() {
  const auto last = std::find_if(messages_.rbegin(), messages_.rend(), isAnswered);
  if (last == messages_.rend()) return false;
  messages_.erase(last.base(), messages_.end());
  return true;
}

std::optional<std::string> Conversation::takeQuestionBack() {
  const auto last = std::find_if(messages_.rbegin(), messages_.rend(), isFromUser);
  if (last == messages_.rend()) return std::nullopt;
  std::string question = contentOf(*last);
  messages_.erase(last.base() - 1, messages_.end());
  return question;
}

std::optional<std::string> Conversation::lastQuestion() const {
  const auto last = std::find_if(messages_.rbegin(), messages_.rend(), isFromUser);
  if (last == messages_.rend()) return std::nullopt;
  return contentOf(*last);
}

const Message* Conversation::lastReply() const {
  if (messages_.empty() || messages_.back().role != Role::Assistant) return nullptr;
  return &messages_.back();
}

std::vector<Message> Conversation::messages() const {
  std::vector<Message> all;
  if (!system_.empty()) all.push_back(textMessage(Role::System, system_));
  all.insert(all.end(), messages_.begin(), messages_.end());
  return all;
}

Json Conversation::json() const {
  Json list = Json::array();
  for (const Message& message : messages()) list.push_back(jsonOf(message));
  return {{"messages", list}};
}

void Conversation::take(const Json& json, const std::string& where) {
  const Json* list = json.is_object() ? zem::text::memberOf(json, "messages") : &json;
  if (list == nullptr) throw Failure(where + ": has no \"messages\"; needed a conversation");
  std::vector<Message> read;
  const kiv::Status status = zem::text::readMessages(*list, read);
  if (!status.ok()) throw Failure(where + ": " + status.message());
  system_.clear();
  if (!read.empty() && read.front().role == Role::System) {
    system_ = contentOf(read.front());
    read.erase(read.begin());
  }
  messages_ = std::move(read);
}

}  // namespace zemtool
