// SPDX-License-Identifier: Apache-2.0
// What the user of one conversation waits for, through the engine: the first token after a model
// is opened, a second turn beside the first one, memory, and steps beside processes that keep
// every processor busy. Opening and steps: medians of rounds in which both sides take turns.
//   conversation_bench MODEL [POSITIONS] [exact|fast] [ROUNDS] [THREADS]
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine/engine.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ids = std::vector<uint32_t>;

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

void stopOn(const kiv::Status& status) {
  if (status.ok()) return;
  std::fprintf(stderr, "conversation_bench: %s\n", status.message().c_str());
  std::exit(1);
}

class Reply : public zem::Listener {
 public:
  void onToken(const zem::Token& token) override { ids_.push_back(token.id); }
  void onEnd(const zem::End& end) override { end_.set_value(end); }
  zem::End wait() { return end_.get_future().get(); }
  const Ids& ids() const { return ids_; }

 private:
  Ids ids_;
  std::promise<zem::End> end_;
};

std::unique_ptr<zem::Engine> open(const std::string& model, zem::Math math, size_t threads) {
  zem::EngineOptions options;
  options.math = math;
  options.threads = threads;
  std::unique_ptr<zem::Engine> engine;
  stopOn(zem::Engine::open(model, options, engine));
  return engine;
}

// Appends the reply of `count` tokens to the conversation.
zem::Usage reply(zem::Engine& engine, Ids& conversation, size_t count) {
  zem::Request request;
  request.prompt = conversation;
  request.stops.maxTokens = count;
  request.sampling.temperature = 0;
  const auto listener = std::make_shared<Reply>();
  zem::RequestHandle handle;
  stopOn(engine.submit(std::move(request), listener, handle));
  const zem::End end = listener->wait();
  conversation.insert(conversation.end(), listener->ids().begin(), listener->ids().end());
  return end.usage;
}

Ids prompt(size_t tokens, uint32_t seed) {
  Ids ids(tokens);
  for (size_t i = 0; i < tokens; ++i) ids[i] = static_cast<uint32_t>((seed + i * 7) % 200);
  return ids;
}

void measureOpening(const std::string& model, zem::Math math, size_t threads, int rounds) {
  std::vector<double> opening;
  std::vector<double> first;
  for (int i = 0; i < rounds; ++i) {
    const auto begin = Clock::now();
    const std::unique_ptr<zem::Engine> engine = open(model, math, threads);
    opening.push_back(secondsSince(begin));
    Ids conversation = prompt(1, 5);
    reply(*engine, conversation, 1);
    first.push_back(secondsSince(begin));
  }
  std::printf("opened after %.3f s; the first token of a prompt of one after %.3f s\n",
              median(opening), median(first));
}

void measureTurns(zem::Engine& engine, size_t positions) {
  Ids conversation = prompt(positions, 1);
  const double cold = reply(engine, conversation, 4).promptSeconds;
  for (uint32_t id = 1; id <= 20; ++id) conversation.push_back(id);
  const zem::Usage second = reply(engine, conversation, 4);
  std::printf(
      "first token after %zu positions: cold %.2f s, second turn %.3f s (%zu of %zu tokens "
      "reused), ratio %.4f\n",
      positions, cold, second.promptSeconds, second.reused, second.prompt,
      second.promptSeconds / cold);
}

double anonymousMebibytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("RssAnon:")) return std::strtod(line.c_str() + 8, nullptr) / 1024;
  }
  return 0;
}

// Processes that compute until this goes.
class BusyProcessors {
 public:
  explicit BusyProcessors(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      const pid_t child = fork();
      if (child == 0) {
        for (std::atomic<unsigned> spin = 0;;) ++spin;
      }
      children_.push_back(child);
    }
  }
  ~BusyProcessors() {
    for (const pid_t child : children_) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
  }
  BusyProcessors(const BusyProcessors&) = delete;
  BusyProcessors& operator=(const BusyProcessors&) = delete;

 private:
  std::vector<pid_t> children_;
};

void measureBusy(zem::Engine& engine, int rounds) {
  constexpr size_t kTokens = 16;
  const auto step = [&] {
    Ids conversation = prompt(2, 1);
    return reply(engine, conversation, kTokens).generateSeconds / (kTokens - 1);
  };
  step();
  std::vector<double> idle;
  std::vector<double> busy;
  std::vector<double> ratio;
  for (int i = 0; i < rounds; ++i) {
    idle.push_back(step());
    const BusyProcessors others(std::thread::hardware_concurrency());
    busy.push_back(step());
    ratio.push_back(busy.back() / idle.back());
  }
  std::printf("a step: idle %.3f ms, beside %u busy processes %.3f ms, ratio %.2f\n",
              1e3 * median(idle), std::thread::hardware_concurrency(), 1e3 * median(busy),
              median(ratio));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr,
                 "usage: conversation_bench MODEL [POSITIONS] [exact|fast] [ROUNDS] [THREADS]\n");
    return 2;
  }
  const std::string model = argv[1];
  const size_t positions = argc > 2 ? std::stoul(argv[2]) : 4000;
  const zem::Math math =
      argc > 3 && std::string(argv[3]) == "fast" ? zem::Math::Fast : zem::Math::Exact;
  const int rounds = argc > 4 ? std::stoi(argv[4]) : 3;
  const size_t threads = argc > 5 ? std::stoul(argv[5]) : 0;
  measureOpening(model, math, threads, rounds);
  const std::unique_ptr<zem::Engine> engine = open(model, math, threads);
  const double opened = anonymousMebibytes();
  measureTurns(*engine, positions);
  const double kept = static_cast<double>(engine->load().keptBytes) / (1 << 20);
  std::printf(
      "memory beside the file: %.0f MiB opened, %.0f MiB more after this conversation,\n"
      "  of which %.0f MiB are states and pages kept for later requests\n",
      opened, anonymousMebibytes() - opened, kept);
  measureBusy(*engine, rounds);
  return 0;
}
