// SPDX-License-Identifier: Apache-2.0
// The functions of replies.
#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "engine/chat.h"
#include "engine/chat_request_json.h"
#include "engine/text/chat_renderer.h"
#include "libzem/arguments.h"
#include "libzem/listeners.h"
#include "libzem/open_engine.h"
#include "libzem/records.h"

namespace zem::boundary {
namespace {

// What both kinds of request need before they are read.
Outcome readDelivery(const zem_delivery* given, const zem_request* request, zem_delivery& out) {
  out = zem_delivery{};
  if (given != nullptr) {
    if (Outcome outcome = readRecord(given, out); !outcome.ok()) return outcome;
  }
  if (Outcome outcome =
          readFlags("zem_delivery.flags", out.flags, ZEM_TELL_PROMPT | ZEM_TELL_TOKENS);
      !outcome.ok()) {
    return outcome;
  }
  if (request == nullptr && out.callback == nullptr) return isNull("request");
  return {};
}

Outcome ofSubmission(const kiv::Status& status) {
  if (status.code() == kiv::StatusCode::Unsupported) {
    return failure(ZEM_ERROR_QUEUE, status.message());
  }
  return ofRequest(status);
}

// Submits `prepared`, for which makeListener(request) makes the listener. The handle is there
// before the first event.
template <typename MakeListener>
Outcome submit(const EngineUse& use, Request prepared, zem_delivery delivery, zem_request* out,
               const MakeListener& makeListener) {
  if (prepared.logProbabilities) delivery.flags |= ZEM_TELL_TOKENS;
  const std::shared_ptr<Ledger> ledger = use.open().ledger;
  const auto request = std::make_shared<OpenRequest>(delivery, prepared.prompt, ledger);
  // Kept here too: a listener that the engine refuses goes after its request was withdrawn.
  const std::shared_ptr<Listener> listener = makeListener(request);
  zem_request before = out != nullptr ? *out : nullptr;
  zem_request handle = out != nullptr ? requests().insert(request) : nullptr;
  const auto undo = [&] {
    request->withdraw();
    if (out == nullptr) return;
    requests().remove(handle);
    *out = before;
  };
  try {
    ledger->enter(request);
    if (out != nullptr) *out = handle;
    RequestHandle running;
    const kiv::Status status = use.engine().submit(std::move(prepared), listener, running);
    if (!status.ok()) {
      undo();
      return ofSubmission(status);
    }
    request->setHandle(running);
  } catch (...) {
    undo();
    throw;
  }
  return {};
}

Outcome readPrompt(const Vocabulary& vocabulary, const zem_completion& completion,
                   std::vector<uint32_t>& ids) {
  Outcome outcome = readFlags("zem_completion.flags", completion.flags, ZEM_SPECIAL_TOKENS);
  if (!outcome.ok()) return outcome;
  if ((completion.prompt == nullptr) == (completion.ids == nullptr)) {
    return failure(ZEM_ERROR_ARGUMENT,
                   "zem_completion: needs either prompt or ids, found " +
                       std::string(completion.prompt == nullptr ? "neither" : "both"));
  }
  if (completion.ids != nullptr) {
    ids.assign(completion.ids, completion.ids + completion.id_count);
    return {};
  }
  std::string_view text;
  outcome = readText("zem_completion.prompt", completion.prompt, completion.prompt_size, text);
  if (!outcome.ok()) return outcome;
  const auto added = completion.flags == ZEM_SPECIAL_TOKENS ? text::AddedTokens::Recognised
                                                            : text::AddedTokens::AsText;
  return ofRequest(vocabulary.encode(text, added, ids));
}

Outcome prepareCompletion(const Engine& engine, const zem_completion* given, Request& out) {
  zem_completion completion{};
  if (Outcome outcome = readRecord(given, completion); !outcome.ok()) return outcome;
  ReplySettings settings;
  if (completion.settings != nullptr) {
    const kiv::Status status = readReplySettings(completion.settings, settings);
    if (!status.ok()) return ofRequest(status);
  }
  out.sampling = settings.sampling.over(engine.defaultSampling(/*thinking=*/false));
  out.stops.endTokens = engine.vocabulary().endTokens();
  out.stops.stopTexts = std::move(settings.stopTexts);
  out.stops.maxTokens = settings.maxTokens;
  out.logProbabilities = settings.logProbabilities;
  return readPrompt(engine.vocabulary(), completion, out.prompt);
}

Outcome complete(const EngineUse& use, const zem_completion* completion, const zem_delivery* given,
                 zem_request* out) {
  zem_delivery delivery;
  Outcome outcome = readDelivery(given, out, delivery);
  Request request;
  if (outcome.ok()) outcome = prepareCompletion(use.engine(), completion, request);
  if (!outcome.ok()) return outcome;
  return submit(use, std::move(request), delivery, out, [&](const auto& open) {
    return std::make_shared<CompletionListener>(open, use.engine().vocabulary());
  });
}

Outcome readChat(const Engine& engine, const char* json, size_t size, ChatRequest& out) {
  std::string_view text;
  if (json == nullptr) return isNull("json");
  if (Outcome outcome = readText("json", json, size, text); !outcome.ok()) return outcome;
  if (engine.chatFormat() == nullptr) {
    return failure(ZEM_ERROR_UNSUPPORTED,
                   "the model's chat template is not known, so chats are not possible; "
                   "zem_engine_options.chat_format can name one of " +
                       text::chatFormatNames());
  }
  return ofRequest(readChatRequest(text, out));
}

Outcome chat(const EngineUse& use, const char* json, size_t size, const zem_delivery* given,
             zem_request* out) {
  zem_delivery delivery;
  Outcome outcome = readDelivery(given, out, delivery);
  ChatRequest request;
  if (outcome.ok()) outcome = readChat(use.engine(), json, size, request);
  PreparedChat prepared;
  if (outcome.ok()) outcome = ofRequest(prepareChat(use.engine(), request, prepared));
  if (!outcome.ok()) return outcome;
  return submit(use, prepared.request, delivery, out, [&](const auto& open) {
    return std::make_shared<ChatEvents>(prepared, open, use.engine().vocabulary());
  });
}

// Both buffers are written, or neither.
struct RenderOutput {
  char* text;
  size_t textCapacity;
  size_t* textLength;
  uint32_t* ids;
  size_t idCapacity;
  size_t* idLength;
};

Outcome writeRendered(const std::string& text, const std::vector<uint32_t>& ids,
                      const RenderOutput& out) {
  Outcome outcome;
  Outcome second;
  if (out.textLength != nullptr) {
    outcome = measureItems(text, out.text, out.textCapacity, out.textLength);
  }
  if (out.idLength != nullptr) second = measureItems(ids, out.ids, out.idCapacity, out.idLength);
  if (outcome.ok()) outcome = std::move(second);
  if (!outcome.ok()) return outcome;
  if (out.textLength != nullptr) std::copy(text.begin(), text.end(), out.text);
  if (out.idLength != nullptr) std::copy(ids.begin(), ids.end(), out.ids);
  return {};
}

Outcome render(const Engine& engine, const char* json, size_t size, const RenderOutput& out) {
  ChatRequest request;
  if (Outcome outcome = readChat(engine, json, size, request); !outcome.ok()) return outcome;
  if (request.toolChoice == ToolChoice::None) request.tools.clear();  // the model does not see them
  text::RenderedChat rendered;
  Outcome outcome = ofRequest(text::renderChat(*engine.chatFormat(), request.messages,
                                               request.tools, request.format, rendered));
  PreparedChat prepared;
  if (outcome.ok()) outcome = ofRequest(prepareChat(engine, request, prepared));
  if (!outcome.ok()) return outcome;
  return writeRendered(rendered.text(), prepared.request.prompt, out);
}

Outcome nextEvent(OpenRequest& request, uint32_t milliseconds, zem_event* out) {
  if (Outcome outcome = outsideCallbacks(); !outcome.ok()) return outcome;
  if (Outcome outcome = checkRecordSize(out); !outcome.ok()) return outcome;
  if (request.hasCallback()) {
    return failure(ZEM_ERROR_ARGUMENT, "the request has a callback, which gets its events");
  }
  zem_event event{};
  switch (request.queue().next(milliseconds, event)) {
    case EventQueue::Taken::Event:
      writeRecord(event, out);
      return {};
    case EventQueue::Taken::Timeout:
      return {ZEM_TIMEOUT, {}};
    case EventQueue::Taken::Finished:
      return {ZEM_FINISHED, {}};
    case EventQueue::Taken::Busy:
      return failure(ZEM_ERROR_BUSY, "another thread waits for an event of this request");
    default:
      return failure(ZEM_ERROR_HANDLE, "the request was closed while this call waited");
  }
}

Outcome closeRequest(zem_request handle) {
  if (Outcome outcome = outsideCallbacks(); !outcome.ok()) return outcome;
  const std::shared_ptr<OpenRequest> request = requests().remove(handle);
  if (request == nullptr) return noRequest();
  request->close();
  return {};
}

}  // namespace
}  // namespace zem::boundary

using namespace zem::boundary;  // NOLINT(google-build-using-namespace)

extern "C" {

zem_code zem_engine_complete(zem_engine engine, const zem_completion* completion,
                             const zem_delivery* delivery, zem_request* request) noexcept {
  return withEngine(__func__, engine, [&](const EngineUse& use) {
    return complete(use, completion, delivery, request);
  });
}

zem_code zem_engine_chat(zem_engine engine, const char* json, size_t size,
                         const zem_delivery* delivery, zem_request* request) noexcept {
  return withEngine(__func__, engine,
                    [&](const EngineUse& use) { return chat(use, json, size, delivery, request); });
}

zem_code zem_engine_render(zem_engine engine, const char* json, size_t size, char* text,
                           size_t text_capacity, size_t* text_length, uint32_t* ids,
                           size_t id_capacity, size_t* id_length) noexcept {
  return withEngine(__func__, engine, [&](const EngineUse& use) {
    return render(use.engine(), json, size,
                  {text, text_capacity, text_length, ids, id_capacity, id_length});
  });
}

zem_code zem_request_next(zem_request request, uint32_t milliseconds, zem_event* event) noexcept {
  return withRequest(__func__, request,
                     [&](OpenRequest& open) { return nextEvent(open, milliseconds, event); });
}

zem_code zem_request_cancel(zem_request request) noexcept {
  return withRequest(__func__, request, [](OpenRequest& open) {
    open.cancel();
    return Outcome();
  });
}

zem_code zem_request_tokens(zem_request request, uint32_t* ids, size_t capacity,
                            size_t* length) noexcept {
  return withRequest(__func__, request, [&](OpenRequest& open) {
    return writeItems(open.tokens(), ids, capacity, length);
  });
}

zem_code zem_request_close(zem_request request) noexcept {
  return guarded(__func__, [&] { return closeRequest(request); });
}

}  // extern "C"
