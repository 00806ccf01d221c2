// SPDX-License-Identifier: Apache-2.0
#include "talk/saved_session.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "compat/files.h"
#include "console/terminal.h"
#include "talk/follow_reply.h"

namespace zemtool {
namespace {

void orFail(const kiv::Status& status) {
  if (!status.ok()) throw Failure(status.message());
}

}  // namespace

SavedSession::SavedSession(zem::Engine& engine, std::string path)
    : engine_(engine), path_(std::move(path)) {
  std::error_code error;
  if (!std::filesystem::exists(compat::pathOf(path_), error)) return;
  const kiv::Status status = engine_.restore(path_, conversation_);
  if (status.ok()) return;
  throw Failure("cannot go on with the session " + status.message() +
                "; remove the file, or name another one, to begin anew");
}

void SavedSession::goOn(zem::Request& request, bool chat) {
  if (isNew()) return;
  std::vector<uint32_t> tokens = conversation_;
  if (chat) {
    std::vector<uint32_t> ending;
    orFail(engine_.vocabulary().encode("<|im_end|>\n", zem::text::AddedTokens::Recognised, ending));
    tokens.insert(tokens.end(), ending.begin(), ending.end());
  }
  for (size_t& position : request.keepAt) position += tokens.size();
  tokens.insert(tokens.end(), request.prompt.begin(), request.prompt.end());
  request.prompt = std::move(tokens);
}

void SavedSession::write(std::vector<uint32_t> prompt, const std::vector<uint32_t>& reply) {
  prompt.insert(prompt.end(), reply.begin(), reply.end());
  if (!reply.empty() && isEndToken(reply.back())) prompt.pop_back();
  keep(prompt);
  size_t saved = 0;
  const kiv::Status status = engine_.save(prompt, path_, saved);
  if (!status.ok()) throw Failure("the session was not written: " + status.message());
}

bool SavedSession::isEndToken(uint32_t id) const {
  const std::vector<uint32_t>& ends = engine_.vocabulary().endTokens();
  return std::find(ends.begin(), ends.end(), id) != ends.end();
}

// The last token of a reply is not evaluated until one follows, and short states are not kept
// unless that is asked for.
void SavedSession::keep(const std::vector<uint32_t>& conversation) {
  if (conversation.size() >= engine_.context()) return;
  zem::Request request;
  request.prompt = conversation;
  request.keepAt = {conversation.size()};
  request.sampling.temperature = 0;
  request.stops.maxTokens = 1;
  interruptFlag = 0;
  ReplyWatcher silent;
  followReply(engine_, std::move(request), silent);
}

}  // namespace zemtool
