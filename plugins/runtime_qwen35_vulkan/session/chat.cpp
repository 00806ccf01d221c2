// SPDX-License-Identifier: Apache-2.0
#include "session/chat.h"

#include <string>
#include <vector>

#include "session/boundary.h"
#include "session/generate.h"

namespace qwen35rt {
namespace {

constexpr char kSystemOpen[] = "<|im_start|>system\n";
constexpr char kSystemClose[] = "<|im_end|>\n";
constexpr char kUserOpen[] = "<|im_start|>user\n";
constexpr char kUserCloseAssistantOpen[] = "<|im_end|>\n<|im_start|>assistant\n";
constexpr char kEndOfTurn[] = "<|im_end|>";

// A turn whose prompt has been fed.
struct Turn {
  std::vector<float> x;
  std::vector<float> logits;
  int32_t endOfTurn = -1;
};

// The framed text of a turn. The closing of the previous reply is not part of
// it: the end-of-turn token that ended that reply was never fed either.
std::string turnText(const Qwen35Session& s, const char* userText) {
  std::string text;
  if (!s.chatStarted && !s.sysText.empty()) {
    text.append(kSystemOpen).append(s.sysText).append(kSystemClose);
  }
  text.append(kUserOpen).append(userText == nullptr ? "" : userText);
  return text.append(kUserCloseAssistantOpen);
}

// Feeds the user's text; begins a conversation when none is in progress.
bool startTurn(Qwen35Session& s, const char* userText, Turn& turn) {
  if (!weightsUsable(s)) return false;
  if (!s.chatStarted) startConversation(s);
  if (s.brokenOff) {
    warn("the conversation broke off inside a token, out of memory; reset it");
    return false;
  }
  std::vector<int32_t> ids;
  if (!s.tok->encode(turnText(s, userText), ids, true).ok()) return false;
  turn.x.assign(s.model.nEmb, 0.0F);
  turn.logits.assign(s.model.nVocab, 0.0F);
  if (!prefill(s, ids, turn.x, turn.logits)) return false;
  s.chatStarted = true;
  turn.endOfTurn = s.tok->tokenToId(kEndOfTurn);
  return true;
}

// Another thread may be writing the flag. The atomic load orders nothing: hosts
// hand over no data with it.
bool isSet(const volatile int& flag) { return __atomic_load_n(&flag, __ATOMIC_RELAXED) != 0; }

}  // namespace

int qwen35V2ChatTurn(ZEMRuntimeHandle* handle, const char* userText, char* out,
                     size_t outSize) noexcept {
  if (handle == nullptr || out == nullptr || outSize == 0) return 2;
  Qwen35Session& s = *sessionOf(handle);
  if (!s.modelReady) return 2;
  *out = '\0';
  return guarded([&] {
    Turn turn;
    if (!startTurn(s, userText, turn)) return 1;
    bool ok = false;
    const std::string reply = generate(s, turn.x, turn.logits, turn.endOfTurn, ok);
    if (!ok) return 1;
    copyText(reply, out, outSize);
    return 0;
  });
}

int qwen35V2ChatTurnStream(ZEMRuntimeHandle* handle, const char* userText, ZEMChatTokenFn cb,
                           void* user, volatile int* cancel) noexcept {
  if (handle == nullptr) return 2;
  Qwen35Session& s = *sessionOf(handle);
  if (!s.modelReady) return 2;
  const auto cancelled = [cancel] { return cancel != nullptr && isSet(*cancel); };
  return guarded([&] {
    Turn turn;
    if (!startTurn(s, userText, turn)) return 1;
    if (cancelled()) return 0;
    const auto deliver = [&](const std::string& piece) {
      if (cb != nullptr) cb(piece.c_str(), static_cast<uint32_t>(piece.size()), user);
      return !cancelled();
    };
    return generatePieces(s, turn.x, turn.logits, turn.endOfTurn, deliver) ? 0 : 1;
  });
}

}  // namespace qwen35rt
