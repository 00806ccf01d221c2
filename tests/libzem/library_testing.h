// SPDX-License-Identifier: Apache-2.0
// The library on a small model, through its header alone.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "engine/model/shaped_model.h"
#include "support/temp_file.h"
#include "zem/engine.h"

namespace zemtest {

// What a request's events say together.
struct Reply {
  std::string reasoning;
  std::string content;
  std::string calls;  // "NAME(ARGUMENTS)" of each, "!" behind one that is not complete
  std::vector<zem_event> tokens;
  size_t events = 0;
  zem_event end{};  // without its text
  std::string error;

  void add(const zem_event& event) {
    ++events;
    const std::string text(event.text, event.text_size);
    if (event.kind == ZEM_EVENT_REASONING) reasoning += text;
    if (event.kind == ZEM_EVENT_CONTENT) content += text;
    if (event.kind == ZEM_EVENT_CALL_BEGIN) calls += text + "(";
    if (event.kind == ZEM_EVENT_CALL_ARGUMENTS) calls += text;
    if (event.kind == ZEM_EVENT_CALL_END) calls += event.complete != 0 ? ")" : ")!";
    if (event.kind == ZEM_EVENT_TOKEN) tokens.push_back(event);
    if (event.kind == ZEM_EVENT_END) {
      end = event;
      error = text;
    }
  }
};

// Settings of a reply that goes on until it is cancelled: the tokens that end one never come.
inline constexpr const char* kEndless = R"({"logit_bias": {"0": -100, "2": -100}, "seed": 3})";

class LibraryTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    model_ = new TempFile;
    writeShapedModel(*model_, smallArchitecture());
  }
  static void TearDownTestSuite() {
    delete model_;
    model_ = nullptr;
  }
  void TearDown() override {
    for (const zem_engine engine : open_) {
      zem_engine_cancel_all(engine);
      zem_engine_close(engine);
    }
  }

  static const char* modelPath() { return model_->path(); }

  static zem_engine_options options() {
    zem_engine_options options{};
    options.struct_size = sizeof options;
    options.threads = 1;
    options.chat_format = "qwen3.5";  // the model's own template is none of the known ones
    return options;
  }

  // Closed behind the test.
  zem_engine open(const zem_engine_options& with = options()) {
    zem_engine engine = nullptr;
    EXPECT_EQ(zem_engine_open(modelPath(), &with, &engine), ZEM_OK) << zem_last_error();
    if (engine != nullptr) open_.push_back(engine);
    return engine;
  }

  static zem_completion completion(const char* prompt, const char* settings) {
    zem_completion completion{};
    completion.struct_size = sizeof completion;
    completion.prompt = prompt;
    completion.prompt_size = ZEM_TERMINATED;
    completion.settings = settings;
    return completion;
  }
  static zem_delivery delivery(uint32_t flags = 0) {
    zem_delivery delivery{};
    delivery.struct_size = sizeof delivery;
    delivery.flags = flags;
    return delivery;
  }

  static zem_request complete(zem_engine engine, const char* prompt, const char* settings,
                              uint32_t flags = 0) {
    const zem_completion what = completion(prompt, settings);
    const zem_delivery how = delivery(flags);
    zem_request request = nullptr;
    EXPECT_EQ(zem_engine_complete(engine, &what, &how, &request), ZEM_OK) << zem_last_error();
    return request;
  }
  static zem_request chat(zem_engine engine, const std::string& json) {
    zem_request request = nullptr;
    EXPECT_EQ(zem_engine_chat(engine, json.data(), json.size(), nullptr, &request), ZEM_OK)
        << zem_last_error();
    return request;
  }

  static zem_event noEvent() {
    zem_event event{};
    event.struct_size = sizeof event;
    return event;
  }

  // All events up to the end; closes the request.
  static Reply read(zem_request request) {
    Reply reply;
    zem_event event = noEvent();
    zem_code code = ZEM_OK;
    while ((code = zem_request_next(request, ZEM_FOREVER, &event)) == ZEM_OK) reply.add(event);
    EXPECT_EQ(code, ZEM_FINISHED) << zem_last_error();
    EXPECT_EQ(zem_request_close(request), ZEM_OK);
    return reply;
  }

  static std::vector<uint32_t> tokensOf(zem_request request) {
    size_t length = 0;
    zem_request_tokens(request, nullptr, 0, &length);
    std::vector<uint32_t> ids(length + 10);  // more may have come
    EXPECT_EQ(zem_request_tokens(request, ids.data(), ids.size(), &length), ZEM_OK);
    ids.resize(length);
    return ids;
  }

 private:
  static inline TempFile* model_ = nullptr;
  std::vector<zem_engine> open_;
};

}  // namespace zemtest
