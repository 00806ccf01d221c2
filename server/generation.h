// SPDX-License-Identifier: Apache-2.0
// An answer from the engine: its requests, its time limit, and the way out to the client.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "engine/chat.h"
#include "engine/engine.h"
#include "server/dialects/reply_writer.h"
#include "server/http/transport.h"
#include "server/metrics.h"

namespace zem::server {

// What is to be computed for an answer, and how it goes out.
struct GenerationPlan {
  std::vector<PreparedChat> choices;  // one request each
  bool raw = false;                   // no chat: the reply is not taken apart
  bool stream = false;
  Dialect dialect = Dialect::OpenAi;
  std::chrono::milliseconds timeout{0};  // 0: none
  std::unique_ptr<ReplyWriter> writer;
};

// Computes and answers. Engine and metrics outlive the exchange; metrics are used on its thread
// alone. When the client leaves, the requests are cancelled. Any thread.
void startGeneration(Engine& engine, Metrics& metrics, std::shared_ptr<Exchange> exchange,
                     GenerationPlan plan);

}  // namespace zem::server
