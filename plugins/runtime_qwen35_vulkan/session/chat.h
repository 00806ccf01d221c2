// SPDX-License-Identifier: Apache-2.0
// Chat turns in the ChatML framing of Qwen models, whole or streamed.
#pragma once

#include "session/session.h"

namespace qwen35rt {

int qwen35V2ChatTurn(ZEMRuntimeHandle* handle, const char* userText, char* out,
                     size_t outSize) noexcept;
int qwen35V2ChatTurnStream(ZEMRuntimeHandle* handle, const char* userText, ZEMChatTokenFn cb,
                           void* user, volatile int* cancel) noexcept;

}  // namespace qwen35rt
