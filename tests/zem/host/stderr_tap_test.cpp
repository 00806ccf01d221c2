#include "host/stderr_tap.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "console/terminal.h"

namespace zemtool {
namespace {

// An open file descriptor, closed with the object.
class Descriptor {
 public:
  Descriptor() = default;
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }
  void close() { reset(-1); }
  // Takes over `number`.
  void reset(int number) {
    if (number_ >= 0) ::close(number_);
    number_ = number;
  }

 private:
  int number_ = -1;
};

// A pipe in the place of standard error.
class Stage : public ::testing::Test {
 protected:
  void SetUp() override {
    std::fflush(stderr);
    before_.reset(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    audience_.reset(ends[0]);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
  }
  void TearDown() override { ::dup2(before_.number(), STDERR_FILENO); }

  static void say(const std::string& text) {
    ASSERT_EQ(::write(STDERR_FILENO, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // Waits for exactly this many bytes.
  std::string hear(size_t size) const {
    std::string text(size, '\0');
    size_t got = 0;
    while (got < size) {
      pollfd some{audience_.number(), POLLIN, 0};
      if (::poll(&some, 1, 20000) != 1) break;
      const ssize_t more = ::read(audience_.number(), text.data() + got, size - got);
      if (more <= 0) break;
      got += static_cast<size_t>(more);
    }
    text.resize(got);
    return text;
  }
  bool nothingMoreToHear() const {
    pollfd some{audience_.number(), POLLIN, 0};
    return ::poll(&some, 1, 0) == 0;
  }
  static ino_t streamIdentity() {
    struct stat facts {};
    EXPECT_EQ(::fstat(STDERR_FILENO, &facts), 0);
    return facts.st_ino;
  }
  static size_t openDescriptors() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      count += entry.path().empty() ? 0 : 1;
    }
    return count;
  }

  Descriptor audience_;

 private:
  Descriptor before_;
};
using StderrTapTest = Stage;

TEST_F(StderrTapTest, PassesOnAtOnceAndKeepsEverything) {
  StderrTap tap;
  say("one\n");
  EXPECT_EQ(hear(4), "one\n");
  std::fputs("two", stderr);
  EXPECT_EQ(hear(3), "two");
  EXPECT_EQ(tap.finish(), "one\ntwo");
  EXPECT_TRUE(nothingMoreToHear());
}

TEST_F(StderrTapTest, SilenceIsTheEmptyText) {
  StderrTap tap;
  EXPECT_EQ(tap.finish(), "");
  EXPECT_TRUE(nothingMoreToHear());
}

TEST_F(StderrTapTest, BytesAreNotChanged) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  StderrTap tap;
  say(bytes);
  EXPECT_EQ(tap.finish(), bytes);
  EXPECT_EQ(hear(256), bytes);
}

TEST_F(StderrTapTest, FarMoreThanAPipeHoldsIsNotLost) {
  const std::string much(3'000'000, 'x');
  std::string heard;
  std::thread audience([&] { heard = hear(much.size() + 1); });
  StderrTap tap;
  say(much);
  say("!");
  const std::string kept = tap.finish();
  audience.join();
  EXPECT_TRUE(kept == much + "!");
  EXPECT_TRUE(heard == much + "!");
}

TEST_F(StderrTapTest, ASlowReaderThatDoesNotBlockLosesNothing) {
  ASSERT_EQ(::fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK), 0);
  const std::string much(500'000, 'y');
  std::string heard;
  StderrTap tap;
  std::thread audience([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    heard = hear(much.size());
  });
  say(much);
  EXPECT_TRUE(tap.finish() == much);
  audience.join();
  EXPECT_TRUE(heard == much);
}

TEST_F(StderrTapTest, AReaderThatWentAwayIsNoHindrance) {
  const auto previous = std::signal(SIGPIPE, SIG_IGN);
  audience_.close();
  {
    StderrTap tap;
    say("to nobody");
    EXPECT_EQ(tap.finish(), "to nobody");
  }
  std::signal(SIGPIPE, previous);
}

TEST_F(StderrTapTest, ThreadsMaySpeakAtOnce) {
  StderrTap tap;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 100; ++j) say("0123456789\n");
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::string all;
  for (int i = 0; i < 400; ++i) all += "0123456789\n";
  EXPECT_EQ(tap.finish(), all);
  EXPECT_EQ(hear(all.size()), all);
}

TEST_F(StderrTapTest, StandardErrorIsPutBackOnEveryPath) {
  const ino_t before = streamIdentity();
  const size_t descriptors = openDescriptors();
  {
    StderrTap tap;
    EXPECT_NE(streamIdentity(), before);
    tap.finish();
    EXPECT_EQ(streamIdentity(), before);
  }
  EXPECT_EQ(streamIdentity(), before);
  try {
    const StderrTap tap;
    say("on the way out");
    throw std::runtime_error("thrown");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(streamIdentity(), before);
  EXPECT_EQ(hear(14), "on the way out");
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(StderrTapTest, FinishMayBeRepeatedAndHearsNothingAfterwards) {
  StderrTap tap;
  say("heard ");
  EXPECT_EQ(tap.finish(), "heard ");
  say("unheard");
  EXPECT_EQ(tap.finish(), "heard ");
  EXPECT_EQ(hear(13), "heard unheard");
}

TEST_F(StderrTapTest, OneAfterAnother) {
  for (const std::string text : {"first", "second"}) {
    StderrTap tap;
    say(text);
    EXPECT_EQ(tap.finish(), text);
  }
  EXPECT_EQ(hear(11), "firstsecond");
}

TEST_F(StderrTapTest, AChildIsHeardAndOneThatLivesOnIsNotWaitedFor) {
  std::array<int, 2> leash{};
  ASSERT_EQ(::pipe2(leash.data(), O_CLOEXEC), 0);
  StderrTap tap;
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(leash[1]);
    const bool spoken = ::write(STDERR_FILENO, "child\n", 6) == 6;
    char unused = 0;
    const bool ended = ::read(leash[0], &unused, 1) == 0;  // until the test is over
    ::_exit(spoken && ended ? 0 : 1);
  }
  EXPECT_EQ(hear(6), "child\n");
  EXPECT_EQ(tap.finish(), "child\n");
  ::close(leash[1]);
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  ::close(leash[0]);
}

TEST_F(StderrTapTest, AClosedStandardErrorIsRefused) {
  ::close(STDERR_FILENO);
  EXPECT_THROW(StderrTap(), Failure);
}

}  // namespace
}  // namespace zemtool
