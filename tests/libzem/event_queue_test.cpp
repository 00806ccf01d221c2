// SPDX-License-Identifier: Apache-2.0
#include "libzem/event_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>

namespace zem::boundary {
namespace {

using Taken = EventQueue::Taken;

Event piece(zem_event_kind kind, std::string text, uint32_t call = 0) {
  Event event;
  event.kind = kind;
  event.text = std::move(text);
  event.call = call;
  return event;
}

class EventQueueTest : public testing::Test {
 protected:
  // "KIND:TEXT" of the next event, or what came instead of one.
  std::string next(uint32_t milliseconds = 0) {
    zem_event event{};
    switch (queue_.next(milliseconds, event)) {
      case Taken::Event:
        return std::to_string(event.kind) + ":" + std::string(event.text, event.text_size);
      case Taken::Timeout:
        return "timeout";
      case Taken::Finished:
        return "finished";
      case Taken::Busy:
        return "busy";
      default:
        return "closed";
    }
  }

  EventQueue queue_{10000};
};

TEST_F(EventQueueTest, GivesEventsInOrderThenTheEndThenNothing) {
  EXPECT_EQ(next(), "timeout");
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_REASONING, "a")));
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CONTENT, "b")));
  queue_.finish(piece(ZEM_EVENT_END, ""));
  queue_.finish(piece(ZEM_EVENT_END, "a second end"));
  EXPECT_EQ(next(), "3:a");
  EXPECT_EQ(next(), "4:b");
  EXPECT_EQ(next(), "8:");
  EXPECT_EQ(next(), "finished");
  EXPECT_EQ(next(ZEM_FOREVER), "finished");
}

TEST_F(EventQueueTest, NeighboursOfOneKindAreJoined) {
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CONTENT, "one ")));
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CONTENT, "two")));
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CALL_ARGUMENTS, "{", 0)));
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CALL_ARGUMENTS, "}", 0)));
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CALL_ARGUMENTS, "[]", 1)));
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_TOKEN, "x")));
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_TOKEN, "y")));
  EXPECT_EQ(next(), "4:one two");
  EXPECT_EQ(next(), "6:{}");
  EXPECT_EQ(next(), "6:[]");
  EXPECT_EQ(next(), "2:x");
  EXPECT_EQ(next(), "2:y");
}

TEST_F(EventQueueTest, OfThePromptTheLatestCountStays) {
  EXPECT_TRUE(queue_.push(promptEvent(10, 30)));
  EXPECT_TRUE(queue_.push(promptEvent(20, 30)));
  zem_event event{};
  EXPECT_EQ(queue_.next(0, event), Taken::Event);
  EXPECT_EQ(event.done, 20U);
  EXPECT_EQ(event.total, 30U);
  EXPECT_EQ(next(), "timeout");
}

TEST_F(EventQueueTest, RefusesWhatHasNoRoomAndHasItAgainLater) {
  const std::string large(6000, 'x');
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_TOKEN, large)));
  EXPECT_FALSE(queue_.push(piece(ZEM_EVENT_TOKEN, large)));
  EXPECT_EQ(next(), "2:" + large);
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_TOKEN, large)));
}

TEST_F(EventQueueTest, JoinedPiecesCountToo) {
  int pushed = 0;
  while (pushed < 100 && queue_.push(piece(ZEM_EVENT_CONTENT, std::string(1000, 'x')))) ++pushed;
  EXPECT_GE(pushed, 5);
  EXPECT_LT(pushed, 10);
  EXPECT_EQ(next().size(), 2 + 1000U * static_cast<size_t>(pushed));
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CONTENT, std::string(9000, 'x')))) << "all is free again";
}

TEST_F(EventQueueTest, AnEventsTextStaysUntilTheNextIsAskedFor) {
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_TOKEN, "stays")));
  zem_event event{};
  EXPECT_EQ(queue_.next(0, event), Taken::Event);
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_TOKEN, "another")));
  queue_.close();
  EXPECT_STREQ(event.text, "stays");
}

TEST_F(EventQueueTest, AWaitEndsWithAnEvent) {
  std::thread other([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CONTENT, "late")));
  });
  EXPECT_EQ(next(ZEM_FOREVER), "4:late");
  other.join();
}

TEST_F(EventQueueTest, AWaitEndsWhenTheQueueIsClosed) {
  std::thread other([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    queue_.close();
  });
  EXPECT_EQ(next(ZEM_FOREVER), "closed");
  other.join();
  EXPECT_EQ(next(), "closed");
}

TEST_F(EventQueueTest, ASecondThreadThatWaitsIsRefused) {
  std::string first;
  std::thread other([&] {
    // A look at the queue by the other thread counts as a wait too.
    while ((first = next(ZEM_FOREVER)) == "busy") std::this_thread::yield();
  });
  while (next(0) != "busy") std::this_thread::yield();
  EXPECT_TRUE(queue_.push(piece(ZEM_EVENT_CONTENT, "for the first")));
  other.join();
  EXPECT_EQ(first, "4:for the first");
}

TEST(EventTest, ARecordHasWhatTheEventHas) {
  Token token;
  token.id = 5;
  token.logProbabilities = LogProbabilities{-0.5, {{5, -0.5}, {7, -1.5}}};
  const Event event = tokenEvent(token, "bytes");
  const zem_event record = event.record();
  EXPECT_EQ(record.struct_size, sizeof(zem_event));
  EXPECT_EQ(record.kind, static_cast<uint32_t>(ZEM_EVENT_TOKEN));
  EXPECT_STREQ(record.text, "bytes");
  EXPECT_EQ(record.token, 5U);
  EXPECT_EQ(record.log_probability, -0.5);
  ASSERT_EQ(record.likely_count, 2U);
  EXPECT_EQ(record.likeliest[1].token, 7U);
  EXPECT_EQ(record.stop_text, -1);

  token.logProbabilities.reset();
  const Event plain = tokenEvent(token, "");
  EXPECT_TRUE(std::isnan(plain.record().log_probability));
  EXPECT_EQ(plain.record().likeliest, nullptr);
}

}  // namespace
}  // namespace zem::boundary
