// SPDX-License-Identifier: Apache-2.0
#include "bench/measure.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "console/terminal.h"

namespace zemtool {
namespace {

using Clock = std::chrono::steady_clock;

// The prompt of the runtime's own benchmark, "Hi": at most two tokens and a
// beginning of sequence.
constexpr int kOwnPromptTokens = 3;
constexpr int kWarmUpTokens = 64;
// A turn's first token comes without a step that could be timed.
constexpr int kStepsPerTurn = kTokenBudget - 1;
// So many replies in a row of at most one token mean that the model has nothing more to say.
constexpr int kIdleTurns = 3;

std::string decodedTokens(int tokens) {
  return std::to_string(tokens) + (tokens == 1 ? " token" : " tokens");
}

// Positions that a decoding test needs: later turns have a frame of their own.
int positionsOf(const BenchTest& test, int frame) {
  if (test.kind == BenchTest::Kind::Prompt || test.depth == 0) return test.depth + test.tokens;
  return test.depth + test.tokens + (test.tokens - 1) / kStepsPerTurn * frame;
}

void requirePositions(const BenchTest& test, int positions) {
  if (positions <= kPositions) return;
  throw UsageError(test.name() + " needs " + std::to_string(positions) +
                   " positions, and a conversation of this runtime has at most " +
                   std::to_string(kPositions) + ": use a smaller depth or fewer tokens");
}

// When the pieces of a reply came.
struct Reply {
  int wanted = 0;
  int pieces = 0;
  Clock::time_point first;
  Clock::time_point last;
  volatile int cancel = 0;
};

void notePiece(const char* /*piece*/, uint32_t /*length*/, void* user) {
  auto& reply = *static_cast<Reply*>(user);
  reply.last = Clock::now();
  if (++reply.pieces == 1) reply.first = reply.last;
  if (reply.pieces >= reply.wanted) reply.cancel = 1;
}

// In a run that ended early the mean is far below its own last step. Noise does not do that
// in every repetition.
void warnIfCutShort(const std::vector<double>& ratios) {
  if (*std::max_element(ratios.begin(), ratios.end()) < 0.5) {
    complain("warning: the model seems to end its text early; the speed is overstated (try -n 64)");
  }
}

}  // namespace

bool needsTexts(const BenchTest& test) {
  return test.kind == BenchTest::Kind::Prompt || test.depth > 0;
}

void requireRoom(const BenchTest& test) { requirePositions(test, positionsOf(test, 0)); }

PreparedTest prepare(const BenchTest& test, const ExactPrompt* maker) {
  PreparedTest prepared;
  prepared.test = test;
  requireRoom(test);
  if (!needsTexts(test)) return prepared;
  const auto tokens = static_cast<size_t>(test.tokens);
  if (test.depth == 0) {
    prepared.before = maker->prompt(static_cast<size_t>(std::min(test.tokens, kWarmUpTokens)));
    prepared.text = maker->prompt(tokens);
    return prepared;
  }
  prepared.frame = static_cast<int>(maker->frameTokens());
  requirePositions(test, positionsOf(test, prepared.frame));
  prepared.before = maker->turn(static_cast<size_t>(test.depth));
  if (test.kind == BenchTest::Kind::Prompt) prepared.text = maker->turn(tokens);
  return prepared;
}

std::vector<double> BenchRunner::run(PreparedTest& prepared, int repetitions) {
  const BenchTest& test = prepared.test;
  std::vector<double> rates;
  if (test.kind == BenchTest::Kind::Prompt) {
    rates = feed(prepared, repetitions);
  } else if (test.depth == 0) {
    rates = decodeFromStart(prepared.test, repetitions);
  } else {
    rates = decodeAtDepth(prepared, repetitions);
  }
  progress_.clear();
  if (!std::all_of(rates.begin(), rates.end(), [](double rate) { return std::isfinite(rate); })) {
    complain("warning: the runtime measured no finite speed");
  }
  return rates;
}

std::vector<double> BenchRunner::feed(const PreparedTest& prepared, int repetitions) {
  const BenchTest& test = prepared.test;
  if (test.depth == 0) {
    setContext(std::min(test.tokens, kWarmUpTokens));
    session_.generate(prepared.before, sessionRecord({}));
  }
  std::vector<double> rates;
  for (int i = 1; i <= repetitions; ++i) {
    show(test, i, repetitions);
    rates.push_back(test.depth == 0 ? promptRate(prepared) : deepPromptRate(prepared));
  }
  return rates;
}

void BenchRunner::setContext(int positions) {
  ZEMSessionOptions settings = sessionRecord({});
  settings.ctx_len = static_cast<uint32_t>(positions);
  session_.configure(settings);
}

void BenchRunner::show(const BenchTest& test, int repetition, int repetitions) const {
  progress_.show(test.name() + ": " + std::to_string(repetition) + " of " +
                 std::to_string(repetitions));
}

// The context ends with the prompt. The runtime samples one token and takes no step with it,
// so its time in steps is the prompt's.
double BenchRunner::promptRate(const PreparedTest& prepared) {
  setContext(prepared.test.tokens);
  session_.generate(prepared.text, sessionRecord({}));
  const ZEMRuntimeStats stats = session_.stats();
  if (stats.tokens > 1) {
    throw Failure("the runtime counts fewer than " + std::to_string(prepared.test.tokens) +
                  " tokens in the prompt that was made for it");
  }
  return 1000.0 * prepared.test.tokens / stats.generation_ms;
}

// A turn that is cancelled before it starts only feeds its prompt.
double BenchRunner::deepPromptRate(const PreparedTest& prepared) {
  volatile int cancel = 1;
  setContext(kPositions);
  session_.reset();
  session_.chatTurn(prepared.before, nullptr, nullptr, &cancel);
  const double before = session_.stats().generation_ms;
  session_.chatTurn(prepared.text, nullptr, nullptr, &cancel);
  return 1000.0 * prepared.test.tokens / (session_.stats().generation_ms - before);
}

// The runtime's benchmark divides by the tokens that were asked for, even if the model ended
// its text early. Generating the same greedy text first shows how many tokens it has, and
// warms up.
void BenchRunner::shortenToText(BenchTest& test) {
  const int enough = test.tokens + 1;
  setContext(std::min(enough + kOwnPromptTokens, kPositions));
  ZEMSessionOptions greedy = sessionRecord({});
  greedy.temperature = 0;
  session_.generate("Hi", greedy);
  const auto sampled = static_cast<int>(session_.stats().tokens);
  setContext(kPositions);
  if (sampled >= enough || sampled >= kTokenBudget) return;
  const int usable = sampled - 1;  // the last one ended the text
  if (usable < 1) {
    throw Failure("the model ends its text at once on the benchmark's prompt; nothing to measure");
  }
  complain("warning: the model ends its text after " + decodedTokens(usable) +
           "; measuring these instead of " + std::to_string(test.tokens));
  test.tokens = usable;
}

std::vector<double> BenchRunner::decodeFromStart(BenchTest& test, int repetitions) {
  shortenToText(test);
  ZEMBenchParams params{};
  params.struct_size = sizeof params;
  params.tokens = test.tokens;
  params.warmup = 1;  // tokens + warmup - 1 steps are timed and divided by tokens
  std::vector<double> rates;
  std::vector<double> ratios;
  for (int i = 1; i <= repetitions; ++i) {
    show(test, i, repetitions);
    const ZEMBenchResult result = session_.bench(params);
    rates.push_back(result.tokens_per_sec);
    ratios.push_back(result.ms_per_token / session_.stats().last_step_ms);
  }
  progress_.clear();
  warnIfCutShort(ratios);
  return rates;
}

std::vector<double> BenchRunner::decodeAtDepth(PreparedTest& prepared, int repetitions) {
  BenchTest& test = prepared.test;
  std::vector<double> rates;
  setContext(kPositions);
  for (int i = 1; i <= repetitions; ++i) {
    show(test, i, repetitions);
    const Decoded decoded = decodeTurns(prepared);
    if (decoded.steps == 0) {
      throw Failure("the model ends its text at once at a depth of " + std::to_string(test.depth) +
                    "; nothing to measure");
    }
    if (decoded.steps < test.tokens) {
      progress_.clear();
      complain("warning: the model's replies end early and fill the context; measuring " +
               decodedTokens(decoded.steps) + " instead of " + std::to_string(test.tokens));
      test.tokens = decoded.steps;
    }
    rates.push_back(decoded.steps / decoded.seconds);
  }
  return rates;
}

// Times replies from the end of the filled depth on, each from its first piece to its last. A
// reply may end before all tokens are decoded, at the runtime's limit or at the model's end of
// text. Another turn then continues; its frame is not timed.
BenchRunner::Decoded BenchRunner::decodeTurns(const PreparedTest& prepared) {
  Decoded decoded;
  int position = 0;
  int idle = 0;
  session_.reset();
  while (decoded.steps < prepared.test.tokens && idle < kIdleTurns) {
    const bool first = position == 0;
    const int prompt = first ? prepared.test.depth : prepared.frame;
    if (position + prompt >= kPositions) break;
    Reply reply;
    reply.wanted = std::min(prepared.test.tokens - decoded.steps + 1, kTokenBudget);
    session_.chatTurn(first ? prepared.before : "", notePiece, &reply, &reply.cancel);
    // The runtime feeds the last piece only when the model ended the reply.
    position += prompt + reply.pieces - (reply.pieces == reply.wanted ? 1 : 0);
    idle = reply.pieces < 2 ? idle + 1 : 0;
    decoded.steps += std::max(reply.pieces - 1, 0);
    decoded.seconds += std::chrono::duration<double>(reply.last - reply.first).count();
  }
  return decoded;
}

}  // namespace zemtool
