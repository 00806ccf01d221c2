// SPDX-License-Identifier: Apache-2.0
#include "libzem/listeners.h"

#include <utility>

namespace zem::boundary {
namespace {

void tellPrompt(OpenRequest& request, size_t done, size_t total) {
  if (request.tellsPrompt()) request.tell(promptEvent(done, total));
}

void tellToken(OpenRequest& request, const Vocabulary& vocabulary, const Token& token) {
  request.addToken(token.id);
  if (request.tellsTokens()) request.tell(tokenEvent(token, vocabulary.spellingOf(token.id)));
}

void tellContent(OpenRequest& request, const std::string& text) {
  if (!text.empty()) request.tell(contentEvent(text));
}

void tellPieces(OpenRequest& request, const std::vector<text::ReplyEvent>& pieces) {
  for (const text::ReplyEvent& piece : pieces) request.tell(pieceEvent(piece));
}

}  // namespace

CompletionListener::CompletionListener(std::shared_ptr<OpenRequest> request,
                                       const Vocabulary& vocabulary)
    : request_(std::move(request)), vocabulary_(vocabulary) {}

CompletionListener::~CompletionListener() { request_->finish(lostEvent()); }

void CompletionListener::onPrompt(size_t done, size_t total) { tellPrompt(*request_, done, total); }

void CompletionListener::onToken(const Token& token) {
  tellToken(*request_, vocabulary_, token);
  tellContent(*request_, token.text);
}

void CompletionListener::onEnd(const End& end) {
  tellContent(*request_, end.text);
  request_->finish(endEvent(end, 0));
}

ChatEvents::ChatEvents(const PreparedChat& chat, std::shared_ptr<OpenRequest> request,
                       const Vocabulary& vocabulary)
    : ChatListener(chat), request_(std::move(request)), vocabulary_(vocabulary) {}

ChatEvents::~ChatEvents() { request_->finish(lostEvent()); }

void ChatEvents::onPrompt(size_t done, size_t total) { tellPrompt(*request_, done, total); }

void ChatEvents::onReply(const Token& token, const std::vector<text::ReplyEvent>& events) {
  tellToken(*request_, vocabulary_, token);
  tellPieces(*request_, events);
}

void ChatEvents::onReplyEnd(const End& end, const std::vector<text::ReplyEvent>& events) {
  tellPieces(*request_, events);
  request_->finish(endEvent(end, reasoningTokens()));
}

}  // namespace zem::boundary
