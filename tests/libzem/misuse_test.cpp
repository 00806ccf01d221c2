// SPDX-License-Identifier: Apache-2.0
// Whatever a host does wrong is an error with a code and a text.
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libzem/library_testing.h"

namespace zemtest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

using MisuseTest = LibraryTest;

// Both have to fit; the text says which function failed.
#define EXPECT_REFUSED(call, code, text)            \
  do {                                              \
    EXPECT_EQ(call, code);                          \
    EXPECT_THAT(zem_last_error(), HasSubstr(text)); \
  } while (false)

TEST_F(MisuseTest, NullPointersAreNamed) {
  const zem_engine engine = open();
  zem_engine out = nullptr;
  EXPECT_REFUSED(zem_engine_open(nullptr, nullptr, &out), ZEM_ERROR_ARGUMENT,
                 "zem_engine_open: path: found a null pointer");
  EXPECT_REFUSED(zem_engine_open(modelPath(), nullptr, nullptr), ZEM_ERROR_ARGUMENT, "engine");
  EXPECT_REFUSED(zem_engine_describe(engine, nullptr), ZEM_ERROR_ARGUMENT, "zem_description");
  EXPECT_REFUSED(zem_engine_statistics(engine, nullptr), ZEM_ERROR_ARGUMENT, "zem_statistics");
  size_t length = 0;
  uint32_t id = 0;
  EXPECT_REFUSED(zem_engine_tokenize(engine, nullptr, 1, 0, &id, 1, &length), ZEM_ERROR_ARGUMENT,
                 "text");
  EXPECT_REFUSED(zem_engine_tokenize(engine, "a", 1, 0, nullptr, 1, &length), ZEM_ERROR_ARGUMENT,
                 "buffer");
  EXPECT_REFUSED(zem_engine_tokenize(engine, "a", 1, 0, &id, 1, nullptr), ZEM_ERROR_ARGUMENT,
                 "length");
  EXPECT_REFUSED(zem_engine_detokenize(engine, nullptr, 1, 0, nullptr, 0, &length),
                 ZEM_ERROR_ARGUMENT, "ids");
  EXPECT_REFUSED(zem_engine_chat(engine, nullptr, 0, nullptr, nullptr), ZEM_ERROR_ARGUMENT,
                 "request");
  zem_request request = nullptr;
  EXPECT_REFUSED(zem_engine_chat(engine, nullptr, 0, nullptr, &request), ZEM_ERROR_ARGUMENT,
                 "json");
  EXPECT_REFUSED(zem_engine_complete(engine, nullptr, nullptr, &request), ZEM_ERROR_ARGUMENT,
                 "zem_completion");
  EXPECT_REFUSED(zem_engine_save(engine, &id, 1, nullptr, nullptr), ZEM_ERROR_ARGUMENT, "path");
  EXPECT_REFUSED(zem_engine_restore(engine, modelPath(), nullptr, 0, nullptr), ZEM_ERROR_ARGUMENT,
                 "length");
  EXPECT_EQ(request, nullptr);
}

TEST_F(MisuseTest, HandlesThatWereNeverGivenAreRefused) {
  const zem_engine engine = open();
  const zem_request request = complete(engine, "Once", kEndless);
  zem_event event = noEvent();
  for (const auto number : {uint64_t{0}, uint64_t{1}, uint64_t{257}, ~uint64_t{0},
                            reinterpret_cast<uint64_t>(engine) + 256}) {
    const auto wrong = reinterpret_cast<zem_engine>(number);
    EXPECT_REFUSED(zem_engine_close(wrong), ZEM_ERROR_HANDLE, "not that of an open engine");
    EXPECT_REFUSED(zem_engine_cancel_all(wrong), ZEM_ERROR_HANDLE, "zem_engine_cancel_all");
    const auto wrongRequest = reinterpret_cast<zem_request>(number);
    EXPECT_REFUSED(zem_request_next(wrongRequest, 0, &event), ZEM_ERROR_HANDLE,
                   "not that of an open request");
  }
  EXPECT_EQ(zem_engine_close(reinterpret_cast<zem_engine>(request)), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_request_close(reinterpret_cast<zem_request>(engine)), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_request_close(request), ZEM_OK);
}

TEST_F(MisuseTest, AClosedEngineIsRefusedEverywhere) {
  const zem_engine engine = open();
  ASSERT_EQ(zem_engine_close(engine), ZEM_OK);
  zem_description description{};
  description.struct_size = sizeof description;
  zem_statistics statistics{};
  statistics.struct_size = sizeof statistics;
  size_t length = 0;
  uint32_t id = 1;
  zem_request request = nullptr;
  const zem_completion what = completion("a", nullptr);
  const std::string json = R"({"messages": []})";
  EXPECT_EQ(zem_engine_close(engine), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_cancel_all(engine), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_describe(engine, &description), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_statistics(engine, &statistics), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_tokenize(engine, "a", 1, 0, &id, 1, &length), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_detokenize(engine, &id, 1, 0, nullptr, 0, &length), ZEM_ERROR_HANDLE);
  EXPECT_EQ(
      zem_engine_render(engine, json.data(), json.size(), nullptr, 0, &length, nullptr, 0, nullptr),
      ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_complete(engine, &what, nullptr, &request), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_chat(engine, json.data(), json.size(), nullptr, &request), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_save(engine, &id, 1, "file", nullptr), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_engine_restore(engine, "file", nullptr, 0, &length), ZEM_ERROR_HANDLE);
}

TEST_F(MisuseTest, AClosedRequestIsRefusedEverywhere) {
  const zem_engine engine = open();
  const zem_request request = complete(engine, "Once", kEndless);
  ASSERT_EQ(zem_request_close(request), ZEM_OK);
  zem_event event = noEvent();
  size_t length = 0;
  EXPECT_EQ(zem_request_close(request), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_request_next(request, 0, &event), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_request_cancel(request), ZEM_ERROR_HANDLE);
  EXPECT_EQ(zem_request_tokens(request, nullptr, 0, &length), ZEM_ERROR_HANDLE);
}

TEST_F(MisuseTest, AnEngineWithRequestsUnderWayStaysOpen) {
  const zem_engine engine = open();
  const zem_request request = complete(engine, "Once", kEndless);
  EXPECT_REFUSED(zem_engine_close(engine), ZEM_ERROR_BUSY, "1 requests are under way");
  EXPECT_EQ(zem_request_cancel(request), ZEM_OK);
  read(request);
  EXPECT_EQ(zem_engine_close(engine), ZEM_OK) << zem_last_error();
}

TEST_F(MisuseTest, ARequestThatWasClosedStillCountsUntilItHasEnded) {
  const zem_engine engine = open();
  for (int i = 0; i < 5; ++i) ASSERT_EQ(zem_request_close(complete(engine, "a", kEndless)), ZEM_OK);
  EXPECT_EQ(zem_engine_cancel_all(engine), ZEM_OK);
  EXPECT_EQ(zem_engine_close(engine), ZEM_OK) << zem_last_error();
}

TEST_F(MisuseTest, OptionsOutOfRangeAreNamed) {
  struct Case {
    void (*spoil)(zem_engine_options&);
    const char* text;
  };
  for (const Case& one : std::vector<Case>{
           {[](auto& o) { o.struct_size = 8; }, "zem_engine_options.struct_size: found 8"},
           {[](auto& o) { o.threads = 5000; }, "zem_engine_options.threads: found 5000"},
           {[](auto& o) { o.cache_numbers = 2; }, "zem_engine_options.cache_numbers: found 2"},
           {[](auto& o) { o.math = 7; }, "zem_engine_options.math: found 7"},
           {[](auto& o) { o.sequences = ZEM_NONE; }, "zem_engine_options.sequences"},
           {[](auto& o) { o.waiting = uint64_t{1} << 30; }, "zem_engine_options.waiting"},
           {[](auto& o) { o.batch_tokens = ZEM_NONE; }, "zem_engine_options.batch_tokens"},
           {[](auto& o) { o.chat_format = "none"; }, "chat_format: found \"none\", needed one of"},
       }) {
    zem_engine_options with = options();
    one.spoil(with);
    zem_engine engine = nullptr;
    EXPECT_REFUSED(zem_engine_open(modelPath(), &with, &engine), ZEM_ERROR_ARGUMENT, one.text);
    EXPECT_EQ(engine, nullptr);
  }
}

// A record as a program with a newer header has it: 16 bytes more.
template <typename Record>
struct Newer {
  Record known{};
  std::array<unsigned char, 16> more{};

  Newer() : Newer(Record{}) {}
  explicit Newer(const Record& record) : known(record) { known.struct_size = sizeof *this; }
};

TEST_F(MisuseTest, RecordsOfANewerHeaderAreTakenUnlessTheySayMore) {
  Newer<zem_engine_options> with(options());
  zem_engine engine = nullptr;
  with.more[15] = 1;
  EXPECT_REFUSED(zem_engine_open(modelPath(), &with.known, &engine), ZEM_ERROR_ARGUMENT,
                 "zem_engine_options: byte 87 is set, which this version of the library does not");
  with.more[15] = 0;
  ASSERT_EQ(zem_engine_open(modelPath(), &with.known, &engine), ZEM_OK) << zem_last_error();

  Newer<zem_completion> what(completion("Once", R"({"max_tokens": 2})"));
  Newer<zem_delivery> how(delivery());
  zem_request request = nullptr;
  what.more[0] = 1;
  EXPECT_REFUSED(zem_engine_complete(engine, &what.known, nullptr, &request), ZEM_ERROR_ARGUMENT,
                 "zem_completion: byte 48 is set");
  what.more[0] = 0;
  how.more[0] = 1;
  EXPECT_REFUSED(zem_engine_complete(engine, &what.known, &how.known, &request), ZEM_ERROR_ARGUMENT,
                 "zem_delivery: byte 32 is set");
  how.more[0] = 0;
  ASSERT_EQ(zem_engine_complete(engine, &what.known, &how.known, &request), ZEM_OK);

  Newer<zem_event> event;
  event.more.fill(0xAB);
  ASSERT_EQ(zem_request_next(request, ZEM_FOREVER, &event.known), ZEM_OK);
  EXPECT_EQ(event.known.struct_size, sizeof event);
  EXPECT_EQ(event.more, decltype(event.more){}) << "what the library does not know is zero";
  EXPECT_EQ(zem_request_close(request), ZEM_OK);
  EXPECT_EQ(zem_engine_cancel_all(engine), ZEM_OK);
  EXPECT_EQ(zem_engine_close(engine), ZEM_OK);
}

TEST_F(MisuseTest, OutputRecordsOfAnotherSizeAreRefused) {
  const zem_engine engine = open();
  const zem_request request = complete(engine, "Once", kEndless);
  zem_description description{};
  zem_statistics statistics{};
  zem_event event{};
  EXPECT_REFUSED(zem_engine_describe(engine, &description), ZEM_ERROR_ARGUMENT,
                 "zem_description.struct_size: found 0");
  EXPECT_REFUSED(zem_engine_statistics(engine, &statistics), ZEM_ERROR_ARGUMENT,
                 "zem_statistics.struct_size: found 0");
  event.struct_size = sizeof event - 1;
  EXPECT_REFUSED(zem_request_next(request, 0, &event), ZEM_ERROR_ARGUMENT,
                 "zem_event.struct_size: found 135");
  EXPECT_EQ(zem_request_close(request), ZEM_OK);
}

TEST_F(MisuseTest, FilesThatAreNoModelsAreTold) {
  zem_engine engine = nullptr;
  EXPECT_REFUSED(zem_engine_open("no such file", nullptr, &engine), ZEM_ERROR_FILE,
                 "zem_engine_open: no such file: No such file or directory");
  const TempFile other(std::vector<uint8_t>(300, 'x'));
  EXPECT_REFUSED(zem_engine_open(other.path(), nullptr, &engine), ZEM_ERROR_FORMAT,
                 "zem_engine_open: " + other.string() + ": ");
}

TEST_F(MisuseTest, FlagsAndIdsWithoutAMeaningAreRefused) {
  const zem_engine engine = open();
  size_t length = 0;
  EXPECT_REFUSED(zem_engine_tokenize(engine, "a", 1, 2, nullptr, 0, &length), ZEM_ERROR_ARGUMENT,
                 "flags: found 2");
  const uint32_t ids[] = {3, 999999};
  EXPECT_REFUSED(zem_engine_detokenize(engine, ids, 2, 0, nullptr, 0, &length), ZEM_ERROR_ARGUMENT,
                 "ids[1]: found 999999, needed below");
  const zem_completion what = completion("a", nullptr);
  const zem_delivery how = delivery(64);
  zem_request request = nullptr;
  EXPECT_REFUSED(zem_engine_complete(engine, &what, &how, &request), ZEM_ERROR_ARGUMENT,
                 "zem_delivery.flags: found 64");
}

TEST_F(MisuseTest, ACompletionNeedsATextOrIds) {
  const zem_engine engine = open();
  zem_request request = nullptr;
  zem_completion what = completion(nullptr, nullptr);
  EXPECT_REFUSED(zem_engine_complete(engine, &what, nullptr, &request), ZEM_ERROR_ARGUMENT,
                 "found neither");
  const uint32_t id = 1;
  what = completion("a", nullptr);
  what.ids = &id;
  what.id_count = 1;
  EXPECT_REFUSED(zem_engine_complete(engine, &what, nullptr, &request), ZEM_ERROR_ARGUMENT,
                 "found both");
  what = completion(nullptr, nullptr);
  what.ids = &id;
  what.id_count = 1;
  what.flags = 4;
  EXPECT_REFUSED(zem_engine_complete(engine, &what, nullptr, &request), ZEM_ERROR_ARGUMENT,
                 "zem_completion.flags: found 4");
}

TEST_F(MisuseTest, RequestsThatCannotBeComputedNameTheReason) {
  const zem_engine engine = open();
  zem_request request = nullptr;
  zem_completion what = completion("", nullptr);
  EXPECT_REFUSED(zem_engine_complete(engine, &what, nullptr, &request), ZEM_ERROR_REQUEST,
                 "the prompt is empty");
  what = completion("a", "{\"temprature\": 1}");
  EXPECT_REFUSED(zem_engine_complete(engine, &what, nullptr, &request), ZEM_ERROR_REQUEST,
                 "\"temprature\": is no member");
  what = completion("a", "{\"top_p\": 2}");
  EXPECT_REFUSED(zem_engine_complete(engine, &what, nullptr, &request), ZEM_ERROR_REQUEST,
                 "found 2");
  const std::string json = R"({"messages": "Hi"})";
  EXPECT_REFUSED(zem_engine_chat(engine, json.data(), json.size(), nullptr, &request),
                 ZEM_ERROR_REQUEST, "messages: found");
  const uint32_t ids[] = {3, 999999};
  what = completion(nullptr, nullptr);
  what.ids = ids;
  what.id_count = 2;
  EXPECT_EQ(zem_engine_complete(engine, &what, nullptr, &request), ZEM_ERROR_REQUEST);
  EXPECT_EQ(request, nullptr);
  EXPECT_EQ(zem_engine_close(engine), ZEM_OK) << "a refused request is not under way";
}

TEST_F(MisuseTest, OfARefusedRequestNothingIsHeard) {
  std::atomic<int> events = 0;
  zem_delivery how = delivery();
  how.user = &events;
  how.callback = [](const zem_event*, void* user) { ++*static_cast<std::atomic<int>*>(user); };
  const zem_engine engine = open();
  const zem_completion what = completion("", nullptr);
  zem_request request = nullptr;
  EXPECT_EQ(zem_engine_complete(engine, &what, &how, &request), ZEM_ERROR_REQUEST);
  EXPECT_EQ(zem_engine_complete(engine, &what, &how, nullptr), ZEM_ERROR_REQUEST);
  EXPECT_EQ(events, 0);
  zem_statistics sums{};
  sums.struct_size = sizeof sums;
  EXPECT_EQ(zem_engine_statistics(engine, &sums), ZEM_OK);
  EXPECT_EQ(sums.requests, 0U);
}

TEST_F(MisuseTest, TooManyRequestsAreRefused) {
  zem_engine_options with = options();
  with.sequences = 1;
  with.waiting = ZEM_NONE;
  const zem_engine engine = open(with);
  const zem_request first = complete(engine, "a", kEndless);
  zem_request second = nullptr;
  const zem_completion what = completion("a", kEndless);
  EXPECT_REFUSED(zem_engine_complete(engine, &what, nullptr, &second), ZEM_ERROR_QUEUE,
                 "too many requests wait");
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(zem_request_close(first), ZEM_OK);
}

TEST_F(MisuseTest, DamagedSavedConversationsAreRefused) {
  const zem_engine engine = open();
  size_t length = 7;
  EXPECT_REFUSED(zem_engine_restore(engine, modelPath(), nullptr, 0, &length), ZEM_ERROR_FORMAT,
                 "is not a saved conversation");
  EXPECT_REFUSED(zem_engine_restore(engine, "no such file", nullptr, 0, &length), ZEM_ERROR_FILE,
                 "no such file");
  EXPECT_EQ(length, 7U);
  const uint32_t ids[] = {5, 6, 7};
  EXPECT_REFUSED(zem_engine_save(engine, ids, 3, "unused", nullptr), ZEM_ERROR_REQUEST,
                 "nothing of this conversation is kept");
}

// What a callback tried, and how it ended.
struct Tries {
  zem_engine engine = nullptr;
  zem_request other = nullptr;
  std::vector<zem_code> refused;
  std::vector<zem_code> allowed;
  std::mutex mutex;
  std::condition_variable changed;
  bool ended = false;

  void tryAll() {
    zem_event event{};
    event.struct_size = sizeof event;
    size_t length = 0;
    const uint32_t id = 1;
    refused = {zem_engine_close(engine),
               zem_engine_cancel_all(engine),
               zem_request_next(other, 0, &event),
               zem_request_close(other),
               zem_engine_save(engine, &id, 1, "unused", nullptr),
               zem_engine_restore(engine, "unused", nullptr, 0, &length)};
    uint32_t ids[8];
    zem_description description{};
    description.struct_size = sizeof description;
    allowed = {zem_engine_tokenize(engine, "ab", 2, 0, ids, 8, &length),
               zem_engine_describe(engine, &description), zem_request_cancel(other)};
  }
};

TEST_F(MisuseTest, InsideACallbackCallsThatWaitAreRefused) {
  Tries tries;
  tries.engine = open();
  tries.other = complete(tries.engine, "Once", kEndless);
  zem_delivery how = delivery();
  how.user = &tries;
  how.callback = [](const zem_event* event, void* user) {
    if (event->kind != ZEM_EVENT_END) return;
    auto& inside = *static_cast<Tries*>(user);
    inside.tryAll();
    const std::lock_guard lock(inside.mutex);
    inside.ended = true;
    inside.changed.notify_all();
  };
  const zem_completion what = completion("Once", R"({"max_tokens": 2})");
  ASSERT_EQ(zem_engine_complete(tries.engine, &what, &how, nullptr), ZEM_OK);
  {
    std::unique_lock lock(tries.mutex);
    tries.changed.wait(lock, [&] { return tries.ended; });
  }
  EXPECT_EQ(tries.refused, std::vector<zem_code>(6, ZEM_ERROR_CALLBACK));
  EXPECT_EQ(tries.allowed, std::vector<zem_code>(3, ZEM_OK));
  EXPECT_EQ(zem_request_close(tries.other), ZEM_OK);
}

TEST_F(MisuseTest, AnExceptionOfACallbackEndsTheRequest) {
  zem_delivery how = delivery();
  std::atomic<int> ends = 0;
  how.user = &ends;
  how.callback = [](const zem_event* event, void* user) {
    if (event->kind == ZEM_EVENT_END) ++*static_cast<std::atomic<int>*>(user);
    throw 1;
  };
  const zem_engine engine = open();
  const zem_completion what = completion("Once", kEndless);
  ASSERT_EQ(zem_engine_complete(engine, &what, &how, nullptr), ZEM_OK);
  while (ends == 0) std::this_thread::yield();
  EXPECT_EQ(zem_engine_close(engine), ZEM_OK) << zem_last_error();
  EXPECT_EQ(ends, 1);
}

TEST_F(MisuseTest, ARequestWithACallbackHasNoQueue) {
  zem_delivery how = delivery();
  how.callback = [](const zem_event*, void*) {};
  const zem_engine engine = open();
  const zem_completion what = completion("Once", kEndless);
  zem_request request = nullptr;
  ASSERT_EQ(zem_engine_complete(engine, &what, &how, &request), ZEM_OK);
  zem_event event = noEvent();
  EXPECT_REFUSED(zem_request_next(request, 0, &event), ZEM_ERROR_ARGUMENT, "has a callback");
  EXPECT_EQ(zem_request_close(request), ZEM_OK);
}

TEST_F(MisuseTest, OfTwoThreadsThatWaitForEventsOneIsRefused) {
  zem_engine_options with = options();
  with.sequences = 1;
  const zem_engine engine = open(with);
  const zem_request runs = complete(engine, "Once", kEndless);
  const zem_request waits = complete(engine, "Once", kEndless);  // has no events for now
  std::thread first([&] {
    zem_event event = noEvent();
    zem_code code = ZEM_OK;
    // A look at the queue by the other thread counts as a wait too.
    while ((code = zem_request_next(waits, ZEM_FOREVER, &event)) == ZEM_ERROR_BUSY) {
      std::this_thread::yield();
    }
    EXPECT_EQ(code, ZEM_ERROR_HANDLE);
    EXPECT_THAT(zem_last_error(), HasSubstr("was closed while this call waited"));
  });
  zem_event event = noEvent();
  zem_code code = ZEM_OK;
  while ((code = zem_request_next(waits, 0, &event)) == ZEM_TIMEOUT) std::this_thread::yield();
  EXPECT_EQ(code, ZEM_ERROR_BUSY);
  EXPECT_EQ(zem_request_close(waits), ZEM_OK);
  first.join();
  EXPECT_EQ(zem_request_close(runs), ZEM_OK);
}

TEST_F(MisuseTest, EachThreadHasItsOwnError) {
  zem_engine_close(nullptr);
  EXPECT_THAT(zem_last_error(), StartsWith("zem_engine_close: "));
  std::thread([] {
    EXPECT_STREQ(zem_last_error(), "");
    zem_request_close(nullptr);
    EXPECT_THAT(zem_last_error(), StartsWith("zem_request_close: "));
  }).join();
  EXPECT_THAT(zem_last_error(), StartsWith("zem_engine_close: "));
}

TEST_F(MisuseTest, ALongErrorIsCutBetweenCharacters) {
  std::string path;
  while (path.size() < 5000) path += "\xC3\xA4";
  for (const char* before : {"", "x"}) {
    zem_engine engine = nullptr;
    EXPECT_NE(zem_engine_open((before + path).c_str(), nullptr, &engine), ZEM_OK);
    const std::string text = zem_last_error();
    EXPECT_LE(text.size(), 2047U);
    EXPECT_GE(text.size(), 2046U);
    EXPECT_EQ(text.substr(text.size() - 2), "\xC3\xA4");
  }
}

// Engines are opened, used and closed by several threads at once.
TEST_F(MisuseTest, ThreadsThatShareAnEngineGetErrorsAtWorst) {
  const zem_engine engine = open();
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        const zem_completion what = completion("Once", R"({"max_tokens": 3})");
        zem_request request = nullptr;
        const zem_code code = zem_engine_complete(engine, &what, nullptr, &request);
        if (code == ZEM_ERROR_HANDLE) return;
        ASSERT_EQ(code, ZEM_OK) << zem_last_error();
        ASSERT_EQ(zem_request_close(request), ZEM_OK);
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    const zem_code code = zem_engine_close(engine);
    if (code == ZEM_OK) break;
    ASSERT_EQ(code, ZEM_ERROR_BUSY);
    ASSERT_EQ(zem_engine_cancel_all(engine), ZEM_OK);
  }
  for (std::thread& thread : threads) thread.join();
}

// A callback uses the engine while one thread waits for it inside and another wants to close it.
TEST_F(MisuseTest, ACallbackNeverWaitsForOneWhoWantsToClose) {
  struct State {
    zem_engine engine = nullptr;
    std::atomic<bool> begun = false;
  } state;
  state.engine = open();
  zem_delivery how = delivery();
  how.user = &state;
  how.callback = [](const zem_event*, void* user) {
    auto& inside = *static_cast<State*>(user);
    inside.begun = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    uint32_t ids[8];
    size_t length = 0;
    EXPECT_EQ(zem_engine_tokenize(inside.engine, "ab", 2, 0, ids, 8, &length), ZEM_OK);
  };
  const zem_completion what = completion("Once", kEndless);
  ASSERT_EQ(zem_engine_complete(state.engine, &what, &how, nullptr), ZEM_OK);
  while (!state.begun) std::this_thread::yield();
  std::thread saver([&] {
    for (int i = 0; i < 10; ++i) {
      const uint32_t ids[] = {5, 6};
      EXPECT_EQ(zem_engine_save(state.engine, ids, 2, "unused", nullptr), ZEM_ERROR_REQUEST);
    }
  });
  for (int i = 0; i < 10; ++i) EXPECT_EQ(zem_engine_close(state.engine), ZEM_ERROR_BUSY);
  saver.join();
  EXPECT_EQ(zem_engine_cancel_all(state.engine), ZEM_OK);
  EXPECT_EQ(zem_engine_close(state.engine), ZEM_OK) << zem_last_error();
}

TEST(CodesTest, EveryCodeHasItsName) {
  EXPECT_STREQ(zem_code_name(ZEM_OK), "ZEM_OK");
  EXPECT_STREQ(zem_code_name(ZEM_ERROR_INTERNAL), "ZEM_ERROR_INTERNAL");
  EXPECT_STREQ(zem_code_name(ZEM_FINISHED), "ZEM_FINISHED");
  EXPECT_STREQ(zem_code_name(ZEM_FINISHED + 1), "unknown code");
  EXPECT_STREQ(zem_code_name(-1), "unknown code");
  EXPECT_EQ(zem_api_version(), ZEM_API_VERSION);
  EXPECT_THAT(zem_version(), testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
}

}  // namespace
}  // namespace zemtest
