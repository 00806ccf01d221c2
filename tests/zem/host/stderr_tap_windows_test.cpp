#include "host/stderr_tap.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <io.h>

#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "console/terminal.h"

namespace zemtool {
namespace {

constexpr int kStderr = 2;

// A pipe in the place of standard error, which a thread reads.
class StderrTapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::fflush(stderr);
    before_ = _dup(kStderr);
    std::array<int, 2> ends{};
    ASSERT_EQ(_pipe(ends.data(), 4096, _O_BINARY | _O_NOINHERIT), 0);
    audience_ = std::thread([this, exit = ends[0]] { listen(exit); });
    _dup2(ends[1], kStderr);
    _close(ends[1]);
  }
  void TearDown() override {
    if (audience_.joinable()) heard();
  }

  // Ends the stage and returns all that it was told.
  const std::string& heard() {
    std::fflush(stderr);
    _dup2(before_, kStderr);
    _close(before_);
    audience_.join();
    return heard_;
  }
  static void say(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
  }

 private:
  void listen(int exit) {
    std::array<char, 4096> piece;
    for (int got = 0; (got = _read(exit, piece.data(), piece.size())) > 0;) {
      heard_.append(piece.data(), static_cast<size_t>(got));
    }
    _close(exit);
  }

  int before_ = -1;
  std::thread audience_;
  std::string heard_;
};

TEST_F(StderrTapTest, PassesOnAndKeepsEverything) {
  StderrTap tap;
  say("one\n");
  std::fputs("two", stderr);
  EXPECT_EQ(tap.finish(), "one\ntwo");
  EXPECT_EQ(heard(), "one\ntwo");
}

TEST_F(StderrTapTest, SilenceIsTheEmptyText) {
  {
    StderrTap tap;
    EXPECT_EQ(tap.finish(), "");
  }
  EXPECT_EQ(heard(), "");
}

TEST_F(StderrTapTest, BytesAreNotChanged) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  bytes += "\r\n\n\x1A";
  StderrTap tap;
  say(bytes);
  EXPECT_EQ(tap.finish(), bytes);
  EXPECT_EQ(heard(), bytes);
}

TEST_F(StderrTapTest, FarMoreThanAPipeHoldsIsNotLost) {
  const std::string much(3'000'000, 'x');
  StderrTap tap;
  say(much);
  say("!");
  EXPECT_TRUE(tap.finish() == much + "!");
  EXPECT_TRUE(heard() == much + "!");
}

TEST_F(StderrTapTest, ThreadsMaySpeakAtOnce) {
  StderrTap tap;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 100; ++j) _write(kStderr, "0123456789\n", 11);
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::string all;
  for (int i = 0; i < 400; ++i) all += "0123456789\n";
  EXPECT_EQ(tap.finish(), all);
  EXPECT_EQ(heard(), all);
}

TEST_F(StderrTapTest, StandardErrorIsPutBackOnEveryPath) {
  try {
    const StderrTap tap;
    say("on the way out");
    throw std::runtime_error("thrown");
  } catch (const std::runtime_error&) {
  }
  say(", and after");
  EXPECT_EQ(heard(), "on the way out, and after");
}

TEST_F(StderrTapTest, FinishMayBeRepeatedAndHearsNothingAfterwards) {
  StderrTap tap;
  say("heard ");
  EXPECT_EQ(tap.finish(), "heard ");
  say("unheard");
  EXPECT_EQ(tap.finish(), "heard ");
  EXPECT_EQ(heard(), "heard unheard");
}

TEST_F(StderrTapTest, OneAfterAnother) {
  for (const std::string text : {"first", "second"}) {
    StderrTap tap;
    say(text);
    EXPECT_EQ(tap.finish(), text);
  }
  EXPECT_EQ(heard(), "firstsecond");
}

TEST_F(StderrTapTest, AClosedStandardErrorIsRefused) {
  _close(kStderr);
  EXPECT_THROW(StderrTap(), Failure);
}

}  // namespace
}  // namespace zemtool
