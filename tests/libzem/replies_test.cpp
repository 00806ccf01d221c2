// SPDX-License-Identifier: Apache-2.0
// What the library does when it is used as it should be.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "libzem/library_testing.h"

namespace zemtest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

using RepliesTest = LibraryTest;

constexpr const char* kTwenty =
    R"({"max_tokens": 20, "seed": 3, "logit_bias": {"0": -100, "2": -100}})";

TEST_F(RepliesTest, DescriptionIsThatOfTheModel) {
  zem_description model{};
  model.struct_size = sizeof model;
  ASSERT_EQ(zem_engine_describe(open(), &model), ZEM_OK);
  EXPECT_EQ(model.layers, 8U);
  EXPECT_EQ(model.width, 40U);
  EXPECT_EQ(model.context, 4096U);
  EXPECT_GT(model.vocabulary, 90U);
  EXPECT_GT(model.parameters, 1000U);
  EXPECT_GT(model.weight_bytes, model.parameters);
  EXPECT_STREQ(model.tokenizer, "plain");
  EXPECT_STREQ(model.chat_format, "qwen3.5");
  EXPECT_THAT(model.name, StartsWith("zem-test-"));
}

TEST_F(RepliesTest, OptionsReachTheEngine) {
  zem_engine_options with = options();
  with.context = 100;
  with.chat_format = "qwen3.6";
  zem_description model{};
  model.struct_size = sizeof model;
  ASSERT_EQ(zem_engine_describe(open(with), &model), ZEM_OK);
  EXPECT_EQ(model.context, 100U);
  EXPECT_STREQ(model.chat_format, "qwen3.6");
}

TEST_F(RepliesTest, TextBecomesIdsAndIdsText) {
  const zem_engine engine = open();
  size_t length = 0;
  EXPECT_EQ(zem_engine_tokenize(engine, "Hello", ZEM_TERMINATED, 0, nullptr, 0, &length),
            ZEM_ERROR_SPACE);
  std::vector<uint32_t> ids(length);
  ASSERT_EQ(zem_engine_tokenize(engine, "Hello", 5, 0, ids.data(), ids.size(), &length), ZEM_OK);
  char text[16] = {};
  ASSERT_EQ(zem_engine_detokenize(engine, ids.data(), ids.size(), 0, text, sizeof text, &length),
            ZEM_OK);
  EXPECT_EQ(std::string(text, length), "Hello");
  const uint32_t special = 1;
  ASSERT_EQ(zem_engine_detokenize(engine, &special, 1, 0, text, sizeof text, &length), ZEM_OK);
  EXPECT_EQ(length, 0U);
  ASSERT_EQ(
      zem_engine_detokenize(engine, &special, 1, ZEM_SPECIAL_TOKENS, text, sizeof text, &length),
      ZEM_OK);
  EXPECT_EQ(std::string(text, length), "<|im_start|>");
}

TEST_F(RepliesTest, ABufferThatIsTooSmallStaysAsItWas) {
  const zem_engine engine = open();
  uint32_t ids[2] = {77, 78};
  size_t length = 0;
  EXPECT_EQ(zem_engine_tokenize(engine, "Hello there", ZEM_TERMINATED, 0, ids, 2, &length),
            ZEM_ERROR_SPACE);
  EXPECT_GT(length, 2U);
  EXPECT_EQ(ids[0], 77U);
  EXPECT_EQ(ids[1], 78U);
}

TEST_F(RepliesTest, QuotedTextIsJson) {
  char out[64];
  size_t length = 0;
  ASSERT_EQ(zem_quote_json("a \"b\"\n\xFF", ZEM_TERMINATED, out, sizeof out, &length), ZEM_OK);
  EXPECT_EQ(std::string(out, length), "\"a \\\"b\\\"\\n\xEF\xBF\xBD\"");
  ASSERT_EQ(zem_quote_json(nullptr, 0, out, sizeof out, &length), ZEM_OK);
  EXPECT_EQ(std::string(out, length), "\"\"");
}

TEST_F(RepliesTest, TheSameRequestGivesTheSameReply) {
  const zem_engine engine = open();
  const Reply first = read(complete(engine, "Once", kTwenty));
  const Reply second = read(complete(engine, "Once", kTwenty));
  EXPECT_FALSE(first.content.empty());
  EXPECT_EQ(first.content, second.content);
  EXPECT_EQ(first.end.end_reason, static_cast<uint32_t>(ZEM_END_LENGTH));
  EXPECT_EQ(first.end.usage.generated_tokens, 20U);
  EXPECT_GT(first.end.usage.prompt_tokens, 0U);
  EXPECT_EQ(first.end.stop_text, -1);
  EXPECT_EQ(first.error, "");
}

TEST_F(RepliesTest, IdsAndTheirTextGiveTheSameReply) {
  const zem_engine engine = open();
  uint32_t ids[32];
  zem_completion what = completion(nullptr, kTwenty);
  ASSERT_EQ(zem_engine_tokenize(engine, "Once", 4, 0, ids, 32, &what.id_count), ZEM_OK);
  what.ids = ids;
  zem_request request = nullptr;
  ASSERT_EQ(zem_engine_complete(engine, &what, nullptr, &request), ZEM_OK) << zem_last_error();
  EXPECT_EQ(read(request).content, read(complete(engine, "Once", kTwenty)).content);
}

struct Heard {
  std::mutex mutex;
  std::condition_variable changed;
  Reply reply;
  bool ended = false;
  std::thread::id thread;

  static void hear(const zem_event* event, void* user) {
    auto& heard = *static_cast<Heard*>(user);
    const std::lock_guard lock(heard.mutex);
    heard.reply.add(*event);
    heard.thread = std::this_thread::get_id();
    heard.ended = event->kind == ZEM_EVENT_END;
    heard.changed.notify_all();
  }
  void waitForEnd() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return ended; });
  }
};

TEST_F(RepliesTest, ACallbackHearsWhatPollingGives) {
  const zem_engine engine = open();
  const std::string want = read(complete(engine, "Once", kTwenty)).content;
  Heard heard;
  zem_delivery how = delivery();
  how.callback = Heard::hear;
  how.user = &heard;
  const zem_completion what = completion("Once", kTwenty);
  // Without a handle the request goes with its last event.
  ASSERT_EQ(zem_engine_complete(engine, &what, &how, nullptr), ZEM_OK) << zem_last_error();
  heard.waitForEnd();
  EXPECT_EQ(heard.reply.content, want);
  EXPECT_NE(heard.thread, std::this_thread::get_id());
  EXPECT_EQ(zem_engine_close(engine), ZEM_OK) << "who heard the end may close";
}

TEST_F(RepliesTest, TokensAndThePromptAreToldWhenAskedFor) {
  const zem_engine engine = open();
  const zem_request request = complete(
      engine, "Once upon",
      R"({"max_tokens": 5, "seed": 3, "logprobs": true, "top_logprobs": 3, "logit_bias": {"0": -100, "2": -100}})",
      ZEM_TELL_PROMPT);
  size_t prompts = 0;
  size_t tokens = 0;
  zem_event event = noEvent();
  while (zem_request_next(request, ZEM_FOREVER, &event) == ZEM_OK) {
    if (event.kind == ZEM_EVENT_PROMPT) {
      ++prompts;
      EXPECT_LE(event.done, event.total);
    }
    if (event.kind != ZEM_EVENT_TOKEN) continue;
    ++tokens;
    EXPECT_EQ(event.likely_count, 3U);
    EXPECT_LE(event.log_probability, event.likeliest[0].log_probability);
    EXPECT_FALSE(std::isnan(event.log_probability));
  }
  EXPECT_EQ(tokens, 5U);
  EXPECT_GE(prompts, 1U);
  EXPECT_EQ(zem_request_close(request), ZEM_OK);
}

TEST_F(RepliesTest, AStopTextEndsTheReplyAndIsToldByItsPlace) {
  const zem_engine engine = open();
  const std::string all = read(complete(engine, "Once", kTwenty)).content;
  ASSERT_GT(all.size(), 4U);
  const std::string stop = all.substr(3, 1);
  char quoted[16];
  size_t length = 0;
  ASSERT_EQ(zem_quote_json(stop.data(), stop.size(), quoted, sizeof quoted, &length), ZEM_OK);
  const std::string settings =
      R"({"max_tokens": 20, "seed": 3, "logit_bias": {"0": -100, "2": -100},
    "stop": ["never there", )" +
      std::string(quoted, length) + "]}";
  const Reply reply = read(complete(engine, "Once", settings.c_str()));
  EXPECT_EQ(reply.end.end_reason, static_cast<uint32_t>(ZEM_END_STOP_TEXT));
  EXPECT_EQ(reply.end.stop_text, 1);
  EXPECT_EQ(reply.content, all.substr(0, all.find(stop)));
}

TEST_F(RepliesTest, ThinkingSeparatesReasoningFromContent) {
  const zem_engine engine = open();
  const std::string base =
      R"({"messages": [{"role": "user", "content": "Hi"}], "max_tokens": 10, "seed": 1,
          "logit_bias": {"0": -100, "2": -100}, "enable_thinking": )";
  const Reply thinks = read(chat(engine, base + "true}"));
  EXPECT_NE(thinks.reasoning, "");
  EXPECT_EQ(thinks.content, "");
  EXPECT_GT(thinks.end.usage.reasoning_tokens, 0U);
  const Reply answers = read(chat(engine, base + "false}"));
  EXPECT_EQ(answers.reasoning, "");
  EXPECT_NE(answers.content, "");
  EXPECT_EQ(answers.end.usage.reasoning_tokens, 0U);
}

TEST_F(RepliesTest, ARequiredCallComesAsACall) {
  const Reply reply = read(chat(open(), R"({
    "messages": [{"role": "user", "content": "Paint it"}], "enable_thinking": false,
    "tools": [{"type": "function", "function": {"name": "paint", "parameters": {
      "type": "object", "properties": {"colour": {"enum": ["red"]}}, "required": ["colour"]}}}],
    "tool_choice": "required", "parallel_tool_calls": false, "max_tokens": 300, "seed": 1})"));
  EXPECT_EQ(reply.calls, R"(paint({"colour": "red"}))") << reply.content;
  EXPECT_EQ(reply.content, "");
}

TEST_F(RepliesTest, ASchemaFormsTheContent) {
  const Reply reply = read(chat(open(), R"({
    "messages": [{"role": "user", "content": "Hi"}], "enable_thinking": false, "seed": 1,
    "response_format": {"type": "json_schema", "json_schema": {"schema": {"const": "yes"}}},
    "max_tokens": 300})"));
  EXPECT_THAT(reply.content, HasSubstr("\"yes\""));
}

TEST_F(RepliesTest, ThePromptOfAChatCanBeSeen) {
  const zem_engine engine = open();
  const std::string json =
      R"({"messages": [{"role": "user", "content": "Hi"}], "enable_thinking": false})";
  char text[256];
  size_t size = 0;
  uint32_t ids[256];
  size_t count = 0;
  ASSERT_EQ(zem_engine_render(engine, json.data(), json.size(), text, sizeof text, &size, ids, 256,
                              &count),
            ZEM_OK)
      << zem_last_error();
  EXPECT_EQ(std::string(text, size),
            "<|im_start|>user\nHi<|im_end|>\n<|im_start|>assistant\n<think>\n\n</think>\n\n");
  const zem_request request =
      chat(engine, json.substr(0, json.size() - 1) + R"(, "max_tokens": 1})");
  read(request);
  EXPECT_GT(count, 10U);
  EXPECT_EQ(ids[0], 1U) << "<|im_start|>";
}

TEST_F(RepliesTest, OfTextAndIdsOfAPromptBothAreWrittenOrNeither) {
  const zem_engine engine = open();
  const std::string json = R"({"messages": [{"role": "user", "content": "Hi"}]})";
  const auto render = [&](char* text, size_t room, size_t* size, uint32_t* ids, size_t idRoom,
                          size_t* count) {
    return zem_engine_render(engine, json.data(), json.size(), text, room, size, ids, idRoom,
                             count);
  };
  size_t size = 0;
  size_t count = 0;
  EXPECT_EQ(render(nullptr, 0, &size, nullptr, 0, &count), ZEM_ERROR_SPACE);
  ASSERT_GT(size, 0U);
  ASSERT_GT(count, 0U);
  std::string text(size, '-');
  std::vector<uint32_t> ids(count, 7);
  EXPECT_EQ(render(text.data(), size, &size, ids.data(), count - 1, &count), ZEM_ERROR_SPACE);
  EXPECT_EQ(render(text.data(), size - 1, &size, ids.data(), count, &count), ZEM_ERROR_SPACE);
  EXPECT_EQ(text, std::string(size, '-'));
  EXPECT_EQ(ids, std::vector<uint32_t>(count, 7));
  EXPECT_EQ(render(text.data(), size, &size, ids.data(), count, &count), ZEM_OK);
  EXPECT_NE(text, std::string(size, '-'));
  EXPECT_NE(ids, std::vector<uint32_t>(count, 7));
  EXPECT_EQ(render(nullptr, 0, nullptr, nullptr, 0, nullptr), ZEM_OK) << "both left out";
}

TEST_F(RepliesTest, ACancelledReplyEndsAsCancelled) {
  const zem_engine engine = open();
  const zem_request request = complete(engine, "Once", kEndless);
  zem_event event = noEvent();
  while (event.kind != ZEM_EVENT_CONTENT) {
    ASSERT_EQ(zem_request_next(request, ZEM_FOREVER, &event), ZEM_OK);
  }
  EXPECT_EQ(zem_request_cancel(request), ZEM_OK);
  EXPECT_EQ(zem_request_cancel(request), ZEM_OK);
  const Reply rest = read(request);
  EXPECT_EQ(rest.end.end_reason, static_cast<uint32_t>(ZEM_END_CANCELLED));
}

TEST_F(RepliesTest, ACallbackMayCancelItsRequest) {
  struct State {
    Heard heard;
    zem_request request = nullptr;
  } state;
  zem_delivery how = delivery();
  how.user = &state;
  how.callback = [](const zem_event* event, void* user) {
    auto& inside = *static_cast<State*>(user);
    EXPECT_EQ(zem_request_cancel(inside.request), ZEM_OK) << "the handle is there by now";
    Heard::hear(event, &inside.heard);
  };
  const zem_completion what = completion("Once", kEndless);
  ASSERT_EQ(zem_engine_complete(open(), &what, &how, &state.request), ZEM_OK);
  state.heard.waitForEnd();
  EXPECT_EQ(state.heard.reply.end.end_reason, static_cast<uint32_t>(ZEM_END_CANCELLED));
  EXPECT_EQ(zem_request_close(state.request), ZEM_OK);
}

TEST_F(RepliesTest, ACallbackMayAskForTheNextReply) {
  struct State {
    zem_engine engine = nullptr;
    Heard heard;
    zem_code asked = ZEM_ERROR_INTERNAL;
  } state;
  state.engine = open();
  zem_delivery how = delivery();
  how.user = &state;
  how.callback = [](const zem_event* event, void* user) {
    if (event->kind != ZEM_EVENT_END) return;
    auto& inside = *static_cast<State*>(user);
    const zem_completion next = completion("and then", kTwenty);
    zem_delivery listens = delivery();
    listens.user = &inside.heard;
    listens.callback = Heard::hear;
    inside.asked = zem_engine_complete(inside.engine, &next, &listens, nullptr);
  };
  const zem_completion what = completion("Once", kTwenty);
  ASSERT_EQ(zem_engine_complete(state.engine, &what, &how, nullptr), ZEM_OK);
  state.heard.waitForEnd();
  EXPECT_EQ(state.asked, ZEM_OK);
  EXPECT_FALSE(state.heard.reply.content.empty());
}

TEST_F(RepliesTest, NoCallbackRunsOnceARequestIsClosed) {
  struct State {
    std::atomic<bool> closed = false;
    std::atomic<int> events = 0;
    std::atomic<bool> late = false;
  } state;
  zem_delivery how = delivery();
  how.user = &state;
  how.callback = [](const zem_event*, void* user) {
    auto& inside = *static_cast<State*>(user);
    if (inside.closed) inside.late = true;
    ++inside.events;
  };
  const zem_engine engine = open();
  for (int i = 0; i < 10; ++i) {
    state.closed = false;
    state.events = 0;
    const zem_completion what = completion("Once", kEndless);
    zem_request request = nullptr;
    ASSERT_EQ(zem_engine_complete(engine, &what, &how, &request), ZEM_OK);
    while (state.events < i) std::this_thread::yield();
    ASSERT_EQ(zem_request_close(request), ZEM_OK);
    state.closed = true;
    ASSERT_EQ(zem_engine_cancel_all(engine), ZEM_OK);
  }
  EXPECT_FALSE(state.late);
}

TEST_F(RepliesTest, CancelAllEndsEveryRequest) {
  const zem_engine engine = open();
  std::vector<zem_request> requests;
  for (int i = 0; i < 10; ++i) requests.push_back(complete(engine, "Once", kEndless));
  EXPECT_EQ(zem_engine_cancel_all(engine), ZEM_OK);
  EXPECT_EQ(zem_engine_close(engine), ZEM_OK) << zem_last_error();
  for (const zem_request request : requests) {
    EXPECT_EQ(read(request).end.end_reason, static_cast<uint32_t>(ZEM_END_CANCELLED))
        << "events can be read when the engine is closed";
  }
}

// Whoever has waited may give back what the callback uses.
TEST_F(RepliesTest, CancelAllWaitsForALastEventThatIsOnItsWay) {
  struct State {
    std::atomic<bool> ends = false;
    std::atomic<bool> ended = false;
  } state;
  zem_delivery how = delivery();
  how.user = &state;
  how.callback = [](const zem_event* event, void* user) {
    if (event->kind != ZEM_EVENT_END) return;
    auto& inside = *static_cast<State*>(user);
    inside.ends = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    inside.ended = true;
  };
  const zem_engine engine = open();
  const zem_completion what = completion("Once", kTwenty);
  ASSERT_EQ(zem_engine_complete(engine, &what, &how, nullptr), ZEM_OK);
  while (!state.ends) std::this_thread::yield();
  EXPECT_EQ(zem_engine_cancel_all(engine), ZEM_OK);
  EXPECT_TRUE(state.ended);
}

TEST_F(RepliesTest, AReplyThatIsNotReadEndsWhenItsQueueIsFull) {
  zem_delivery how = delivery(ZEM_TELL_TOKENS);
  how.queue_bytes = 2000;
  const zem_completion what = completion("Once", kEndless);
  zem_request request = nullptr;
  const zem_engine engine = open();
  ASSERT_EQ(zem_engine_complete(engine, &what, &how, &request), ZEM_OK);
  zem_statistics now{};
  now.struct_size = sizeof now;
  while (now.requests == 0) {
    ASSERT_EQ(zem_engine_statistics(engine, &now), ZEM_OK);
    std::this_thread::yield();
  }
  const Reply reply = read(request);
  EXPECT_EQ(reply.end.end_reason, static_cast<uint32_t>(ZEM_END_ERROR));
  EXPECT_THAT(reply.error, HasSubstr("full with 2000 bytes"));
}

TEST_F(RepliesTest, StatisticsCountWhatEnded) {
  const zem_engine engine = open();
  const Reply first = read(complete(engine, "Once upon a time", kTwenty));
  read(complete(engine, "Once upon a time", kTwenty));
  zem_statistics sums{};
  sums.struct_size = sizeof sums;
  ASSERT_EQ(zem_engine_statistics(engine, &sums), ZEM_OK);
  EXPECT_EQ(sums.requests, 2U);
  EXPECT_EQ(sums.generated_tokens, 40U);
  EXPECT_EQ(sums.prompt_tokens, 2 * first.end.usage.prompt_tokens);
  EXPECT_GT(sums.reused_tokens, 0U);
}

TEST_F(RepliesTest, ASavedConversationGoesOnInAnotherEngine) {
  const TempFile file;
  const zem_engine first = open();
  const zem_request request = complete(first, "Once upon a time", kTwenty);
  zem_event event = noEvent();
  while (zem_request_next(request, ZEM_FOREVER, &event) == ZEM_OK) {
  }
  std::vector<uint32_t> ids = tokensOf(request);
  EXPECT_EQ(zem_request_close(request), ZEM_OK);
  size_t saved = 0;
  ASSERT_EQ(zem_engine_save(first, ids.data(), ids.size(), file.path(), &saved), ZEM_OK)
      << zem_last_error();
  EXPECT_EQ(saved, ids.size() - 1);

  const zem_engine second = open();
  size_t length = 0;
  std::vector<uint32_t> restored(saved);
  ASSERT_EQ(zem_engine_restore(second, file.path(), restored.data(), saved, &length), ZEM_OK)
      << zem_last_error();
  EXPECT_EQ(restored, std::vector<uint32_t>(ids.begin(), ids.end() - 1));
  zem_completion what = completion(nullptr, kTwenty);
  what.ids = ids.data();
  what.id_count = ids.size();
  zem_request next = nullptr;
  ASSERT_EQ(zem_engine_complete(second, &what, nullptr, &next), ZEM_OK);
  EXPECT_EQ(read(next).end.usage.reused_tokens, saved);
}

}  // namespace
}  // namespace zemtest
