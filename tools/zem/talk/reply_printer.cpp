// SPDX-License-Identifier: Apache-2.0
#include "talk/reply_printer.h"

#include <nlohmann/json.hpp>

#include "console/streams.h"
#include "console/terminal.h"
#include "console/text.h"

namespace zemtool {

using zem::text::ReplyEvent;

PromptProgress::PromptProgress() : terminal_(obeysEscapes(2)) {}

PromptProgress::~PromptProgress() { erase(); }

void PromptProgress::update(size_t done, size_t total) {
  if (!terminal_ || Clock::now() - start_ < std::chrono::seconds(1)) return;
  shown_ = true;
  writeText(2,
            "\rprompt: " + std::to_string(done) + " of " + std::to_string(total) + " tokens\033[K");
}

void PromptProgress::erase() {
  if (shown_) writeText(2, "\r\033[K");
  shown_ = false;
}

void ReplyPrinter::onToken(const zem::Token& /*token*/) {
  progress_.erase();
  ++tokens_;
}

void ReplyPrinter::onEvent(const ReplyEvent& event) {
  progress_.erase();
  record_.add(event);
  if (event.kind == ReplyEvent::Kind::Reasoning) {
    if (!thinking_) beginThinking();
    if (view_ == ThinkingView::Shown) remarkPart(event.text);
    return;
  }
  if (thinking_) endThinking();
  if (event.kind == ReplyEvent::Kind::Content) write(event.text);
  if (event.kind == ReplyEvent::Kind::CallEnd) {
    if (!atLineStart_) write("\n");
    zem::text::Json call = jsonOf(record_.message().calls.back());
    if (!event.complete) call["complete"] = false;
    write(lineOf(call));
  }
}

void ReplyPrinter::finish() {
  progress_.erase();
  if (thinking_) endThinking();
  if (!atLineStart_ || !wrote_) writeOut("\n");
  flushOut();
}

void ReplyPrinter::beginThinking() {
  thinking_ = true;
  if (view_ == ThinkingView::Folded) remark("(thinking)");
}

void ReplyPrinter::endThinking() {
  thinking_ = false;
  reasoningTokens_ = tokens_;
  if (view_ == ThinkingView::Shown) remark("\n");
  if (view_ == ThinkingView::Folded) {
    remark("(thought for " + std::to_string(reasoningTokens_) + " tokens; /think shows it)");
  }
}

void ReplyPrinter::write(const std::string& text) {
  if (text.empty()) return;
  writeOut(stdoutIsTerminal() ? escapeControls(text, "\n\t") : text);
  flushOut();
  wrote_ = true;
  atLineStart_ = text.back() == '\n';
}

}  // namespace zemtool
