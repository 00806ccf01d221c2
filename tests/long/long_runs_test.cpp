// SPDX-License-Identifier: Apache-2.0
// What only many repetitions show: memory that grows, replies that change, calls that
// get slower. ZEM_LONG_CYCLES and ZEM_LONG_POSITIONS say how long they are.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"
#include "sampling/sampling.h"
#include "session/generate.h"
#include "support/sanitizers.h"

namespace {

using zemtest::keepAll;
using zemtest::linked;
using zemtest::ModelFile;
using zemtest::Session;
using zemtest::TinyModel;
using zemtest::TinyModelOptions;

constexpr double kMiB = 1024.0 * 1024.0;

size_t numberFrom(const char* variable, size_t otherwise) {
  const char* value = std::getenv(variable);
  return value == nullptr ? otherwise : std::strtoul(value, nullptr, 10);
}

// Bytes of this process that are in memory, pages of files among them.
double residentBytes() {
  std::ifstream file("/proc/self/statm");
  double all = 0;
  double resident = 0;
  file >> all >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// The address sanitizer keeps what was freed; there the leak sanitizer looks instead.
constexpr bool kMemoryComesBack = !zemtest::kAddressSanitizer;

void expectGrowthBelow(double from, double to, double most) {
  std::printf("  memory %.2f MiB, then %.2f MiB\n", from / kMiB, to / kMiB);
  if (kMemoryComesBack) {
    EXPECT_LE(to - from, most);
  }
}

std::string lifeOf(const ModelFile& file) {
  ZEMRuntimeHandle* handle = nullptr;
  const ZEMRuntimeDescriptorV2& api = *linked().v2;
  // Room for the turn's frame and a short reply.
  if (api.create(file.path(), "host;ctx=24", &handle, nullptr, 0) != 0) return "not created";
  char reply[1024] = "";
  const int rc = api.chat_turn(handle, "hi", reply, sizeof reply);
  api.destroy(handle);
  return std::to_string(rc) + reply;
}

double meanOf(const std::vector<double>& values, size_t first, size_t count) {
  double sum = 0;
  for (size_t i = first; i < first + count; ++i) sum += values[i];
  return sum / static_cast<double>(count);
}

TEST(LongRunsTest, SessionsThatComeAndGoLeaveNothing) {
  const size_t cycles = numberFrom("ZEM_LONG_CYCLES", 40);
  ASSERT_GE(cycles, 20U);
  const ModelFile file{zemtest::endlessModel()};
  std::vector<double> milliseconds;
  std::string first;
  double before = 0;
  testing::internal::CaptureStderr();  // a line of each session's
  for (size_t i = 0; i < cycles; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const std::string said = lifeOf(file);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    milliseconds.push_back(took.count());
    if (i == 0) first = said;
    ASSERT_EQ(said, first) << "cycle " << i;
    if (i == cycles / 10) before = residentBytes();  // the allocator has what it keeps
  }
  const double after = residentBytes();
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(first[0], '0') << first;
  const size_t some = std::min<size_t>(100, cycles / 2);
  std::printf("  %zu cycles: the first %zu took %.2f ms each, the last %zu %.2f ms\n", cycles, some,
              meanOf(milliseconds, 0, some), some, meanOf(milliseconds, cycles - some, some));
  // A leak of 600 bytes a cycle would show in the long run.
  expectGrowthBelow(before, after, kMiB);
}

// ---- One conversation through the whole context ----

enum class Stop { EndOfText, EndOfTurn, Budget, Context, Cancel };

struct Turn {
  std::string user;
  size_t cancelAfter = 0;  // pieces; 0: never
};

struct Reply {
  std::string text;
  size_t position;  // of the session afterwards
  bool operator==(const Reply&) const = default;
};

constexpr size_t kBudget = 96;
constexpr float kTemperature = 3.0F;  // the stop tokens are drawn now and then
constexpr uint64_t kSeed = 10;
constexpr int32_t kEndOfText = 0;
constexpr int32_t kEndOfTurn = 2;
constexpr size_t kLongestUser = 20;
constexpr size_t kLastReply = 5;  // tokens that the last reply feeds, the one after them ends it
// What the framing of a turn and a text without merges can take up at most.
constexpr size_t kLongestTurn = 60 + kLongestUser + kBudget;

std::string framed(const std::string& user) {
  return "<|im_start|>user\n" + user + "<|im_end|>\n<|im_start|>assistant\n";
}

// The same turns by the rules of conversations alone: every token is fed singly,
// every reply drawn and ended here.
class PlainConversation {
 public:
  PlainConversation(const ModelFile& file, size_t positions)
      : session_(file, nullptr, linked()),
        positions_(positions),
        x_(session_.members().model.nEmb),
        logits_(session_.members().model.nVocab) {}

  Reply take(const Turn& turn) {
    for (const int32_t id : encode(framed(turn.user))) feed(id);
    std::string text;
    std::string piece;
    for (size_t pieces = 1;; ++pieces) {
      const int32_t id =
          qwen35rt::sampleNext(logits_.data(), logits_.size(), temperature_, 0, 0.0F, random_);
      if (id == kEndOfText) return end(Stop::EndOfText, text);
      if (id == kEndOfTurn) return end(Stop::EndOfTurn, text);
      EXPECT_TRUE(session_.members().tok->decode({id}, piece).ok());
      text += piece;
      if (pieces == turn.cancelAfter) return end(Stop::Cancel, text);
      if (pieces == kBudget) return end(Stop::Budget, text);
      if (fed_.size() == positions_) return end(Stop::Context, text);
      feed(id);
    }
  }

  std::vector<int32_t> encode(const std::string& text) const {
    std::vector<int32_t> ids;
    EXPECT_TRUE(session_.members().tok->encode(text, ids, true).ok());
    return ids;
  }
  void turnGreedy() { temperature_ = 0.0F; }
  size_t position() const { return fed_.size(); }
  const std::vector<int32_t>& fed() const { return fed_; }
  const std::set<Stop>& stops() const { return stops_; }

 private:
  void feed(int32_t id) {
    qwen35::Model& model = session_.members().model;
    qwen35::embedRow(model, static_cast<size_t>(id), x_.data());
    qwen35::forwardToken(model, x_.data(), fed_.size(), logits_.data());
    fed_.push_back(id);
  }
  Reply end(Stop stop, std::string text) {
    stops_.insert(stop);
    return {std::move(text), fed_.size()};
  }

  Session session_;
  size_t positions_;
  std::vector<float> x_;
  std::vector<float> logits_;
  std::mt19937 random_{static_cast<uint32_t>(kSeed)};
  float temperature_ = kTemperature;
  std::vector<int32_t> fed_;
  std::set<Stop> stops_;
};

// Through the tables, as a host does.
class HostConversation {
 public:
  HostConversation(const ModelFile& file, size_t positions) : session_(file, nullptr, linked()) {
    session_.setContext(positions);
  }

  // From the beginning, with the settings of the beginning.
  void begin() const {
    ASSERT_EQ(session_.reset(), 0);
    ZEMSessionOptions options = keepAll();
    options.temperature = kTemperature;
    options.seed = kSeed;
    ASSERT_EQ(session_.configure(options), 0);
  }
  void turnGreedy() const {
    ZEMSessionOptions options = keepAll();
    options.temperature = 0.0F;
    ASSERT_EQ(session_.configure(options), 0);
  }
  Reply take(const Turn& turn) const {
    struct Listener {
      std::string text;
      size_t left;
      volatile int cancel;
    } listener{"", turn.cancelAfter, 0};
    const ZEMChatTokenFn listen = [](const char* piece, uint32_t length, void* user) {
      auto& to = *static_cast<Listener*>(user);
      to.text.append(piece, length);
      if (to.left > 0 && --to.left == 0) to.cancel = 1;
    };
    EXPECT_EQ(session_.streamTo(turn.user.c_str(), listen, &listener, &listener.cancel), 0);
    return {listener.text, session_.members().pos};
  }

 private:
  Session session_;
};

// Turns that fill the context to the last position, with their replies.
struct Script {
  std::vector<Turn> turns;
  std::vector<Reply> replies;
};

Turn randomTurn(std::mt19937& random, size_t number) {
  Turn turn;
  const size_t length = random() % kLongestUser;
  while (turn.user.size() < length) turn.user += static_cast<char>('a' + random() % 26);
  if (number % 4 == 3) turn.cancelAfter = 1 + random() % 3;
  return turn;
}

// The last turn is as long as the room that is left but for some tokens of a reply.
Script fillContext(PlainConversation& plain, size_t positions) {
  Script script;
  std::mt19937 random(3);
  const auto take = [&](const Turn& turn) {
    script.turns.push_back(turn);
    script.replies.push_back(plain.take(turn));
  };
  while (plain.position() + 2 * kLongestTurn <= positions) {
    take(randomTurn(random, script.turns.size()));
  }
  const size_t frame = plain.encode(framed("")).size();
  plain.turnGreedy();
  take({std::string(positions - kLastReply - frame - plain.position(), '!'), 0});
  return script;
}

double secondsOf(const HostConversation& host, const Script& script, size_t from, size_t to) {
  const auto start = std::chrono::steady_clock::now();
  for (size_t i = from; i < to; ++i) {
    if (i + 1 == script.turns.size()) host.turnGreedy();
    EXPECT_EQ(host.take(script.turns[i]), script.replies[i]) << "turn " << i;
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Seconds for the whole of it.
double converse(const HostConversation& host, const Script& script) {
  host.begin();
  const size_t half = script.turns.size() / 2;
  const double first = secondsOf(host, script, 0, half);
  const double second = secondsOf(host, script, half, script.turns.size());
  std::printf("  %.2f s for the first half of the turns, %.2f s for the second\n", first, second);
  return first + second;
}

// Linear attention but for three layers: in long contexts it is the cheaper one.
TinyModelOptions hybridOptions() {
  TinyModelOptions options;
  options.linearLayers.clear();
  for (size_t layer = 0; layer < 32; ++layer) {
    if (layer != 3 && layer != 16 && layer != 31) options.linearLayers.push_back(layer);
  }
  return options;
}

// What was fed over many turns, in one go in a new session.
void expectTheSameFromANewSession(const ModelFile& file, const PlainConversation& plain,
                                  const std::string& lastReply) {
  const size_t positions = plain.position();
  const Session fresh(file, nullptr, linked());
  qwen35rt::Qwen35Session& s = fresh.members();
  fresh.setContext(positions);
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  const auto replyBegins = plain.fed().end() - kLastReply;
  ASSERT_TRUE(qwen35rt::prefill(s, {plain.fed().begin(), replyBegins}, x, logits));
  bool ok = false;
  EXPECT_EQ(qwen35rt::generate(s, x, logits, kEndOfTurn, ok), lastReply);
  EXPECT_TRUE(ok);
  EXPECT_EQ(s.pos, positions);
}

TEST(LongRunsTest, AConversationIsTheSameToTheLastPosition) {
  if (zemtest::kAddressSanitizer) {
    GTEST_SKIP() << "takes minutes here; shorter conversations go the same ways";
  }
  const size_t positions = numberFrom("ZEM_LONG_POSITIONS", 640);
  ASSERT_GE(positions, 2 * kLongestTurn);
  ASSERT_LE(positions, qwen35rt::kMaxPositions);
  const ModelFile file{TinyModel(hybridOptions())};

  PlainConversation plain(file, positions);
  const Script script = fillContext(plain, positions);
  EXPECT_EQ(plain.position(), positions);
  EXPECT_EQ(plain.stops().size(), 5U) << "every way to stop, or nothing is said of the others";
  std::printf("  %zu turns, %zu positions\n", script.turns.size(), plain.position());

  const HostConversation host(file, positions);
  const double first = converse(host, script);
  const double before = residentBytes();
  const double second = converse(host, script);
  expectGrowthBelow(before, residentBytes(), kMiB);
  std::printf("  %.2f s, and %.2f s once more in the same session\n", first, second);

  expectTheSameFromANewSession(file, plain, script.replies.back().text);
}

}  // namespace
