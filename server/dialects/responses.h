// SPDX-License-Identifier: Apache-2.0
// POST /v1/responses. Nothing is stored: each request brings its whole conversation.
#pragma once

#include <memory>

#include "engine/chat.h"
#include "server/dialects/reply_writer.h"

namespace zem::server {

struct ResponsesCall {
  ChatRequest chat;
  bool stream = false;
  Json echo;  // members of the request that stand in the answer again
};

// Throws ApiError for what is wrong, by name.
ResponsesCall readResponses(const Json& body);

std::unique_ptr<ReplyWriter> makeResponsesWriter(const ReplyFacts& facts, Json echo);

}  // namespace zem::server
