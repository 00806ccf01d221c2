// SPDX-License-Identifier: Apache-2.0
// A plug-in with scripted answers, so that the host's own logic can be tested
// to the byte. What it does follows from the name of the model file (which need
// not exist) and from the text of a prompt or turn.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fake_counting.h"
#include "zem/plugin.h"

#ifndef FAKE_ABI_VERSION
#define FAKE_ABI_VERSION 3
#endif

struct ZEMRuntimeHandle {
  std::string model;
  std::string hint;
  std::string settings;      // as last configured
  std::string systemPrompt;  // taken only between conversations
  uint64_t contextEnd = 8192;
  int turns = 0;
  uint64_t position = 0;  // of the counting model
  ZEMRuntimeStats stats{sizeof(ZEMRuntimeStats), 0, 0, 0};
};

namespace {

constexpr double kStepMs = 2;
constexpr uint64_t kBudget = 96;

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

std::string describe(const ZEMSessionOptions& o) {
  return "size=" + std::to_string(o.struct_size) + " temp=" + std::to_string(o.temperature) +
         " top_k=" + std::to_string(o.top_k) + " top_p=" + std::to_string(o.top_p) +
         " seed=" + std::to_string(o.seed) + " ctx=" + std::to_string(o.ctx_len);
}

void count(ZEMRuntimeHandle& session, uint64_t tokens) {
  session.stats.tokens += tokens;
  session.stats.generation_ms += kStepMs * static_cast<double>(tokens);
  session.stats.last_step_ms = kStepMs;
}

int probe(const char* path, ZEMRuntimeProbe* out) {
  const bool suits = contains(path, "good");
  *out = {suits ? 77 : 0, suits ? "fake-arch" : "", "vulkan", suits ? "it suits" : ""};
  return 0;
}

int create(const char* path, const char* hint, ZEMRuntimeHandle** out, char* err, size_t errSize) {
  *out = nullptr;
  if (contains(path, "refuse")) {
    std::strncpy(err, "scripted refusal", errSize - 1);
    return 1;
  }
  *out = new ZEMRuntimeHandle;
  (*out)->model = path;
  (*out)->hint = hint;
  return 0;
}

// The model "counts" counts the tokens that it is fed, claims a time for them,
// and says on standard error what it was given.
bool counts(const ZEMRuntimeHandle& session) { return contains(session.model, "counts"); }

void destroy(ZEMRuntimeHandle* handle) { delete handle; }

// The model "ends" stops the text after 12 tokens, "mute" at once.
uint64_t sampledTokens(const ZEMRuntimeHandle& session) {
  constexpr uint64_t kPromptTokens = 2;
  if (contains(session.model, "ends")) return 13;
  if (contains(session.model, "mute")) return 1;
  return std::min(kBudget, session.contextEnd - kPromptTokens + 1);
}

std::string completion(const ZEMRuntimeHandle& session, const std::string& prompt,
                       const ZEMSessionOptions& options) {
  if (prompt == "hint") return session.hint;
  if (prompt == "options") return describe(options);
  if (prompt == "threads") {
    const char* threads = std::getenv("OMP_NUM_THREADS");
    return threads == nullptr ? "unset" : threads;
  }
  if (prompt == "spinning") {
    const char* rounds = std::getenv("GOMP_SPINCOUNT");
    return rounds == nullptr ? "unset" : rounds;
  }
  if (prompt == "vulkan") return std::getenv("ZEM_NO_VULKAN") == nullptr ? "on" : "off";
  if (prompt == "bytes") return "a\x1b[31m\xC3\x28\xE2\x82";
  if (prompt == "huge") return std::string(size_t{4} << 20, 'x');
  if (prompt == "lines") return "one\ntwo\n";
  if (prompt == "nothing") return {};
  return "<" + prompt + ">";
}

// Tokens of a completion's prompt; nothing is claimed for what is generated.
int countPrompt(ZEMRuntimeHandle& session, const std::string& prompt) {
  uint64_t tokens = zemtest::countTokens(session.model, prompt);
  if (contains(session.model, "miscounts")) --tokens;
  std::fprintf(stderr, "prompt: %d tokens, context %d\n", static_cast<int>(tokens),
               static_cast<int>(session.contextEnd));
  if (tokens > session.contextEnd) return 1;
  session.stats = {sizeof(ZEMRuntimeStats), std::min(kBudget, session.contextEnd - tokens + 1),
                   zemtest::claimedMs(0, tokens), kStepMs};
  return 0;
}

int generateEx(ZEMRuntimeHandle* session, const char* prompt, const ZEMSessionOptions* options,
               char* out, size_t size) {
  if (std::string_view(prompt) == "fail") return 1;
  if (counts(*session)) {
    *out = '\0';
    return countPrompt(*session, prompt);
  }
  const std::string text = completion(*session, prompt, *options);
  const size_t length = std::min(text.size(), size - 1);
  std::memcpy(out, text.data(), length);
  out[length] = '\0';
  session->stats = {sizeof(ZEMRuntimeStats), 0, 0, 0};
  count(*session, sampledTokens(*session));
  return 0;
}

int generate(ZEMRuntimeHandle* session, const char* prompt, char* out, size_t size) {
  const ZEMSessionOptions options{};
  return generateEx(session, prompt, &options, out, size);
}

// "short" claims to have decoded all tokens in a quarter of their time, "jammed" fails.
int bench(ZEMRuntimeHandle* session, const ZEMBenchParams* params, ZEMBenchResult* result) {
  if (params->warmup != 1 || contains(session->model, "jammed")) return 1;
  double ms = kStepMs;
  if (contains(session->model, "short")) ms = kStepMs / 4;
  if (contains(session->model, "instant")) ms = 0;
  *result = {sizeof *result, ms, 1000 / ms, static_cast<uint64_t>(params->tokens)};
  session->stats = {sizeof(ZEMRuntimeStats), 0, 0, kStepMs};
  return 0;
}

int configure(ZEMRuntimeHandle* session, const ZEMSessionOptions* options) {
  session->settings = describe(*options);
  if (options->ctx_len != 0) session->contextEnd = options->ctx_len;
  if (options->system_prompt != nullptr && session->turns == 0) {
    session->systemPrompt = options->system_prompt;
  }
  return 0;
}

int reset(ZEMRuntimeHandle* session) {
  session->turns = 0;
  session->position = 0;
  session->stats = {sizeof(ZEMRuntimeStats), 0, 0, 0};
  return 0;
}

int stats(ZEMRuntimeHandle* session, ZEMRuntimeStats* out) {
  *out = session->stats;
  return 0;
}

std::vector<std::string> reply(const ZEMRuntimeHandle& session, const std::string& text) {
  if (text == "split") return {"\xE2", "\x82", "\xAC", "5 \xF0\x9F", "\x99\x82"};
  if (text == "torn") return {"ok \xE2\x82"};
  if (text == "control") return {"\x1b[31m", "red\a\r\tend\n"};
  if (text == "budget") return std::vector<std::string>(kBudget, "x");
  if (text == "almost") return std::vector<std::string>(kBudget - 1, "x");
  if (text == "slow") return std::vector<std::string>(kBudget, "tick ");
  if (text == "fail") return {"part"};
  if (text == "silence") return {};
  if (text == "system") return {"[" + session.systemPrompt + "]"};
  if (text == "turn") return {"turn ", std::to_string(session.turns)};
  if (text == "settings") return {session.settings};
  return {"you said: ", text};
}

// The model "counts-brief" ends a reply after 10 pieces, "counts-silent" at once.
// Pieces come a millisecond apart at least.
int countTurn(ZEMRuntimeHandle& session, const std::string& text, ZEMChatTokenFn piece, void* user,
              const volatile int* cancel) {
  const uint64_t tokens = zemtest::countTokens(session.model, zemtest::framedTurn(text));
  std::fprintf(stderr, "turn: %d tokens at %d\n", static_cast<int>(tokens),
               static_cast<int>(session.position));
  if (session.position + tokens > session.contextEnd) return 1;
  session.stats.generation_ms += zemtest::claimedMs(session.position, tokens);
  session.position += tokens;
  if (cancel != nullptr && *cancel != 0) return 0;
  const uint64_t most = contains(session.model, "silent")  ? 0
                        : contains(session.model, "brief") ? 10
                                                           : kBudget;
  for (uint64_t i = 1; i <= most; ++i) {
    piece("x", 1, user);
    if (cancel != nullptr && *cancel != 0) break;
    if (session.position >= session.contextEnd || i == kBudget) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ++session.position;
  }
  return 0;
}

int chatTurnStream(ZEMRuntimeHandle* session, const char* text, ZEMChatTokenFn piece, void* user,
                   volatile int* cancel) {
  ++session->turns;
  if (std::string_view(text) == "refuse") return 1;
  if (counts(*session)) return countTurn(*session, text, piece, user, cancel);
  for (const std::string& part : reply(*session, text)) {
    count(*session, 1);
    piece(part.c_str(), static_cast<uint32_t>(part.size()), user);
    if (std::string_view(text) == "slow")
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (cancel != nullptr && *cancel != 0) return 0;
  }
  return std::string_view(text) == "fail" ? 1 : 0;
}

int chatTurn(ZEMRuntimeHandle* /*session*/, const char* /*text*/, char* /*out*/, size_t /*size*/) {
  return 1;
}

const ZEMPluginDescriptor kPlugin = {1, 7, "fake", "scripted answers", nullptr, 0};
const ZEMRuntimeDescriptor kRuntime = {1, "fake-id", "fake", 0, probe, create, destroy, generate};
const ZEMRuntimeDescriptorV2 kRuntimeV2 = {FAKE_ABI_VERSION,
                                           sizeof(ZEMRuntimeDescriptorV2),
                                           "fake-id",
                                           "fake",
                                           0,
                                           probe,
                                           create,
                                           destroy,
                                           generate,
                                           generateEx,
                                           bench,
                                           configure,
                                           chatTurn,
                                           reset,
                                           stats};
const ZEMRuntimeDescriptorV2S kRuntimeV2S = {1, sizeof(ZEMRuntimeDescriptorV2S), "fake-id",
                                             chatTurnStream};

template <typename Table>
const Table* one(const Table& table, uint32_t* count) {
  if (count != nullptr) *count = 1;
  return &table;
}

}  // namespace

#ifndef FAKE_WITHOUT_OPENMP
// What an OpenMP library that the plug-in is linked with would have.
extern "C" ZEM_PLUGIN_EXPORT void omp_set_num_threads(int count);
void omp_set_num_threads(int count) { std::fprintf(stderr, "threads: %d\n", count); }
#endif

const ZEMPluginDescriptor* zem_plugin_init(const ZEMHostAPI* /*host*/) noexcept { return &kPlugin; }
const ZEMRuntimeDescriptor* zem_plugin_runtimes(uint32_t* count) noexcept {
  return one(kRuntime, count);
}
const ZEMRuntimeDescriptorV2* zem_plugin_runtimes_v2(uint32_t* count) noexcept {
  return one(kRuntimeV2, count);
}
const ZEMRuntimeDescriptorV2S* zem_plugin_runtimes_v2s(uint32_t* count) noexcept {
  return one(kRuntimeV2S, count);
}
